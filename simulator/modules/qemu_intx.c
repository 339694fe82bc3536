// SPDX-License-Identifier: GPL-2.0
/*
 * Mends a fault of QEMU 7.2, whose boards look at Interrupt Disable only where
 * a write to configuration space covers the lower byte of the command register.
 * Where just the upper byte is written, as user space may, the board goes on as
 * before: an interrupt that is pending stays away.
 *
 * This module makes such a write one of the whole register, which is what it
 * means on a real board. It serves the buses that are there when it is loaded.
 */
#include <linux/module.h>
#include <linux/pci.h>

static struct pci_ops *emulated_ops;
static struct pci_ops mended_ops;

/* Called with pci_lock held, like all accesses, so that nobody comes between. */
static int mended_write(struct pci_bus *bus, unsigned int devfn, int where, int size, u32 value)
{
	u32 command;
	int ret;

	if (where != PCI_COMMAND + 1 || size != 1)
		return emulated_ops->write(bus, devfn, where, size, value);
	ret = emulated_ops->read(bus, devfn, PCI_COMMAND, 2, &command);
	if (ret)
		return ret;
	command = (command & 0xff) | (value & 0xff) << 8;
	return emulated_ops->write(bus, devfn, PCI_COMMAND, 2, command);
}

static void replace_ops(struct pci_ops *from, struct pci_ops *to)
{
	struct pci_dev *pdev = NULL;

	for_each_pci_dev(pdev)
	{
		if (pdev->bus->ops == from)
			pci_bus_set_ops(pdev->bus, to);
	}
}

static int __init qemu_intx_init(void)
{
	struct pci_bus *root = pci_find_next_bus(NULL);

	if (!root)
		return -ENODEV;
	emulated_ops = root->ops;
	mended_ops = *emulated_ops;
	mended_ops.write = mended_write;
	replace_ops(emulated_ops, &mended_ops);
	return 0;
}

static void __exit qemu_intx_exit(void)
{
	replace_ops(&mended_ops, emulated_ops);
}

module_init(qemu_intx_init);
module_exit(qemu_intx_exit);

MODULE_DESCRIPTION("Interrupt Disable of QEMU's boards");
MODULE_LICENSE("GPL");
