// SPDX-License-Identifier: GPL-2.0
/*
 * A PCI host for machines that have none, with the functions of a table.
 *
 * table=FILE:     The table, below /lib/firmware.
 * memory=ADDRESS: Memory that the kernel was told to leave alone, at a multiple of 1 MiB. It stands behind
 *                 the memory BARs, from the lowest one in the table on. Without it the functions have no
 *                 BARs.
 *
 * The table is written as lspci -xxx writes it, with the size of each BAR added:
 *
 *   # a comment; empty lines are passed over, too
 *   09:00.0 whatever lspci tells, it is not looked at
 *   00: 5a 1b 18 0a 00 00 10 00 01 00 80 11 10 00 00 00
 *   10: 00 00 00 a1 00 00 00 00 08 00 10 a1 00 00 00 00
 *   bar 0: 1000
 *   bar 2: 100000
 *
 * Everything is hexadecimal. Rows of zeros may be left out, and rows may go up to fff. A bridge is a function
 * whose header says so: bus numbers and windows stand in its bytes, and stay as they are. "pci_table MACHINE"
 * prints the table of a simulated machine.
 *
 * A function with an interrupt pin can interrupt: kv_pci_line.c tells how. The module kv_pci_ethernet drives
 * the Ethernet controllers.
 */
#include <linux/firmware.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/sizes.h>

#include "kv_pci_host.h"

static char *table;
module_param(table, charp, 0444);
MODULE_PARM_DESC(table, "file below /lib/firmware that tells of the functions");

static unsigned long memory;
module_param(memory, ulong, 0444);
MODULE_PARM_DESC(memory, "physical address of the memory behind the BARs");

static struct platform_device *kv_host;
static struct pci_bus *kv_root;
static LIST_HEAD(kv_functions);

static struct resource kv_buses = {
	.name = "kv_pci_host buses",
	.start = 0,
	.end = 0xff,
	.flags = IORESOURCE_BUS,
};

static struct resource kv_window = {
	.name = "kv_pci_host memory",
	.flags = IORESOURCE_MEM,
};

static int kv_read(struct pci_bus *bus, unsigned int devfn, int where, int size, u32 *value)
{
	struct kv_function *function = kv_pci_find_function(&kv_functions, bus->number, devfn);

	if (!function)
		return PCIBIOS_DEVICE_NOT_FOUND;
	*value = kv_pci_config_read(function, where, size);
	return PCIBIOS_SUCCESSFUL;
}

static int kv_write(struct pci_bus *bus, unsigned int devfn, int where, int size, u32 value)
{
	struct kv_function *function = kv_pci_find_function(&kv_functions, bus->number, devfn);

	if (!function)
		return PCIBIOS_DEVICE_NOT_FOUND;
	kv_pci_config_write(function, where, size, value);
	return PCIBIOS_SUCCESSFUL;
}

static struct pci_ops kv_ops = {
	.read = kv_read,
	.write = kv_write,
};

static int kv_map_irq(const struct pci_dev *dev, u8 slot, u8 pin)
{
	struct kv_function *function = kv_pci_find_function(&kv_functions, dev->bus->number, dev->devfn);

	return function ? kv_pci_map_line(function) : 0;
}

/* The addresses on the bus that the memory BARs cover, in whole units of a bridge's window. */
static void kv_find_range(u64 *first, u64 *end)
{
	struct kv_function *function;
	unsigned int bar;

	*first = U64_MAX;
	*end = 0;
	list_for_each_entry(function, &kv_functions, list) {
		for (bar = 0; bar < PCI_STD_NUM_BARS; ++bar) {
			u64 address = kv_pci_bar_address(function, bar);

			if (!address)
				continue;
			*first = min(*first, round_down(address, SZ_1M));
			*end = max(*end, round_up(address + function->bar_size[bar], SZ_1M));
		}
	}
}

static int kv_add_window(struct pci_host_bridge *bridge)
{
	struct kv_function *function;
	u64 first, end;

	kv_find_range(&first, &end);
	if (!memory || !end) {
		list_for_each_entry(function, &kv_functions, list)
			kv_pci_hide_bars(function);
		return 0;
	}
	if (memory % SZ_1M)
		return -EINVAL;
	kv_window.start = memory;
	kv_window.end = memory + (end - first) - 1;
	pci_add_resource_offset(&bridge->windows, &kv_window, memory - first);
	return devm_request_pci_bus_resources(&kv_host->dev, &bridge->windows);
}

static int kv_scan(void)
{
	struct pci_host_bridge *bridge = pci_alloc_host_bridge(0);
	int ret;

	if (!bridge)
		return -ENOMEM;
	bridge->dev.parent = &kv_host->dev;
	bridge->ops = &kv_ops;
	bridge->map_irq = kv_map_irq;
	pci_add_resource(&bridge->windows, &kv_buses);
	ret = kv_add_window(bridge);
	if (ret) {
		pci_free_host_bridge(bridge);
		return ret;
	}
	pci_lock_rescan_remove();
	ret = pci_scan_root_bus_bridge(bridge);
	if (!ret) {
		kv_root = bridge->bus;
		pci_bus_claim_resources(kv_root); /* where the table puts them */
		pci_bus_add_devices(kv_root);
	}
	pci_unlock_rescan_remove();
	if (ret)
		pci_free_host_bridge(bridge);
	return ret;
}

static int kv_read_table(void)
{
	const struct firmware *file;
	int ret = table ? request_firmware(&file, table, &kv_host->dev) : -EINVAL;

	if (ret)
		return ret;
	ret = kv_pci_parse_table(file->data, file->size, &kv_functions);
	release_firmware(file);
	return ret;
}

static int __init kv_pci_host_init(void)
{
	int ret;

	kv_host = platform_device_register_simple("kv-pci-host", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(kv_host))
		return PTR_ERR(kv_host);
	ret = kv_read_table();
	if (ret)
		goto remove_host;
	ret = kv_pci_create_lines(&kv_functions);
	if (ret)
		goto remove_host;
	ret = kv_scan();
	if (!ret)
		return 0;

	kv_pci_remove_lines(&kv_functions);
remove_host:
	kv_pci_free_functions(&kv_functions);
	platform_device_unregister(kv_host);
	return ret;
}

static void __exit kv_pci_host_exit(void)
{
	pci_lock_rescan_remove();
	pci_stop_root_bus(kv_root);
	pci_remove_root_bus(kv_root);
	pci_unlock_rescan_remove();
	kv_pci_remove_lines(&kv_functions);
	kv_pci_free_functions(&kv_functions);
	platform_device_unregister(kv_host);
}

module_init(kv_pci_host_init);
module_exit(kv_pci_host_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("PCI host with the functions of a table, for tests");
