// SPDX-License-Identifier: GPL-2.0
/*
 * Hands the INTx interrupt of PCI boards to user space through UIO. It knows
 * no board by itself: ids come through new_id.
 *
 * The interrupt is disabled in the board's command register each time that it
 * arrives, and stays so until user space enables it there again. An interrupt
 * fix changes nothing of that: what was asked for is kept and shown, no more.
 */
#include <linux/interrupt.h>
#include <linux/module.h>
#include <linux/pci.h>
#include <linux/slab.h>
#include <linux/sysfs.h>
#include <linux/uio_driver.h>

struct kelvaro {
	struct uio_info uio;
	struct pci_dev *pdev;
	/* What user space has written to the device file, the type before the mask. */
	u32 fix[2];
	unsigned int fix_writes;
};

static irqreturn_t kelvaro_handler(int irq, struct uio_info *uio)
{
	struct kelvaro *board = uio->priv;

	/* False if it was another one's: the line is shared. */
	return pci_check_and_mask_intx(board->pdev) ? IRQ_HANDLED : IRQ_NONE;
}

static int kelvaro_irqcontrol(struct uio_info *uio, s32 value)
{
	struct kelvaro *board = uio->priv;

	board->fix[board->fix_writes++ % ARRAY_SIZE(board->fix)] = value;
	return 0;
}

/* The interrupt fix as it was asked for: "WRITES TYPE MASK". */
static ssize_t fix_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	struct kelvaro *board = dev_get_drvdata(dev);

	return sysfs_emit(buf, "%u 0x%x 0x%x\n", board->fix_writes, board->fix[0], board->fix[1]);
}
static DEVICE_ATTR_RO(fix);

static struct attribute *kelvaro_attrs[] = {
	&dev_attr_fix.attr,
	NULL,
};
ATTRIBUTE_GROUPS(kelvaro);

static int kelvaro_probe(struct pci_dev *pdev, const struct pci_device_id *id)
{
	struct kelvaro *board;
	int ret;

	ret = pcim_enable_device(pdev);
	if (ret)
		return ret;
	if (!pdev->irq || !pci_intx_mask_supported(pdev))
		return dev_err_probe(&pdev->dev, -ENODEV, "no INTx that can be masked\n");

	board = devm_kzalloc(&pdev->dev, sizeof(*board), GFP_KERNEL);
	if (!board)
		return -ENOMEM;
	board->pdev = pdev;
	board->uio.name = "uio_kelvaro";
	board->uio.version = "1";
	board->uio.irq = pdev->irq;
	board->uio.irq_flags = IRQF_SHARED;
	board->uio.handler = kelvaro_handler;
	board->uio.irqcontrol = kelvaro_irqcontrol;
	board->uio.priv = board;
	pci_set_drvdata(pdev, board);
	return devm_uio_register_device(&pdev->dev, &board->uio);
}

static struct pci_driver kelvaro_driver = {
	.name = "uio_kelvaro",
	.probe = kelvaro_probe,
	.dev_groups = kelvaro_groups,
};
module_pci_driver(kelvaro_driver);

MODULE_DESCRIPTION("INTx of PCI boards in user space");
MODULE_LICENSE("GPL");
