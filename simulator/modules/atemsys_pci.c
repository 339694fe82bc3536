// SPDX-License-Identifier: GPL-2.0
/* A stand-in for the driver through which an EtherCAT master has its
 * controllers: it holds them. */
#include <linux/module.h>
#include <linux/pci.h>

static int atemsys_probe(struct pci_dev *pdev, const struct pci_device_id *id)
{
	return 0;
}

static const struct pci_device_id atemsys_ids[] = {
	{PCI_DEVICE(0x8086, 0x1533)}, {PCI_DEVICE(0x8086, 0x10d3)}, {}};

static struct pci_driver atemsys_driver = {
	.name = "atemsys_pci",
	.id_table = atemsys_ids,
	.probe = atemsys_probe,
};
module_pci_driver(atemsys_driver);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Driver of controllers that are an EtherCAT master's, for tests");
