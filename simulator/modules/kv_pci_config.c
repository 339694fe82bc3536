// SPDX-License-Identifier: GPL-2.0
/* The table of a PCI host, and the configuration spaces that it describes. */
#include <linux/slab.h>
#include <linux/string.h>

#include "kv_pci_host.h"

#define KV_COMMAND_WRITABLE                                                                                  \
	(PCI_COMMAND_IO | PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER | PCI_COMMAND_PARITY | PCI_COMMAND_SERR |  \
	 PCI_COMMAND_INTX_DISABLE)

/* ---- Configuration accesses ---- */

static bool kv_is_bridge(const struct kv_function *function)
{
	return (function->config[PCI_HEADER_TYPE] & 0x7f) == PCI_HEADER_TYPE_BRIDGE;
}

static unsigned int kv_bar_count(const struct kv_function *function)
{
	return kv_is_bridge(function) ? 2 : PCI_STD_NUM_BARS;
}

static bool kv_is_io(const struct kv_function *function, unsigned int bar)
{
	return function->config[PCI_BASE_ADDRESS_0 + 4 * bar] & PCI_BASE_ADDRESS_SPACE_IO;
}

static bool kv_is_wide(const struct kv_function *function, unsigned int bar)
{
	return !kv_is_io(function, bar) &&
	       function->config[PCI_BASE_ADDRESS_0 + 4 * bar] & PCI_BASE_ADDRESS_MEM_TYPE_64;
}

/* The address bits that a base address register keeps: those above its size. */
static u32 kv_bar_writable(const struct kv_function *function, unsigned int bar)
{
	if (function->bar_size[bar])
		return ~(u32)(function->bar_size[bar] - 1) &
		       (kv_is_io(function, bar) ? PCI_BASE_ADDRESS_IO_MASK : PCI_BASE_ADDRESS_MEM_MASK);
	if (bar > 0 && function->bar_size[bar - 1] && kv_is_wide(function, bar - 1))
		return ~(function->bar_size[bar - 1] - 1) >> 32;
	return 0;
}

static u8 kv_bridge_writable(unsigned int where)
{
	switch (where) {
	case PCI_PRIMARY_BUS ... PCI_SEC_LATENCY_TIMER:
	case PCI_PREF_BASE_UPPER32 ... PCI_IO_LIMIT_UPPER16 + 1:
	case PCI_MEMORY_BASE + 1:
	case PCI_MEMORY_LIMIT + 1:
	case PCI_PREF_MEMORY_BASE + 1:
	case PCI_PREF_MEMORY_LIMIT + 1:
	case PCI_BRIDGE_CONTROL:
		return 0xff;
	case PCI_IO_BASE:
	case PCI_IO_LIMIT:
	case PCI_MEMORY_BASE:
	case PCI_MEMORY_LIMIT:
	case PCI_PREF_MEMORY_BASE:
	case PCI_PREF_MEMORY_LIMIT:
		return 0xf0;
	default:
		return 0;
	}
}

/* Which bits of a byte software may write. All others keep what the table says. */
static u8 kv_writable(const struct kv_function *function, unsigned int where)
{
	unsigned int bar = (where - PCI_BASE_ADDRESS_0) / 4;

	switch (where) {
	case PCI_COMMAND:
		return KV_COMMAND_WRITABLE & 0xff;
	case PCI_COMMAND + 1:
		return KV_COMMAND_WRITABLE >> 8;
	case PCI_CACHE_LINE_SIZE:
	case PCI_LATENCY_TIMER:
	case PCI_INTERRUPT_LINE:
		return 0xff;
	}
	if (where >= PCI_BASE_ADDRESS_0 && bar < kv_bar_count(function))
		return kv_bar_writable(function, bar) >> 8 * (where % 4);
	return kv_is_bridge(function) ? kv_bridge_writable(where) : 0;
}

u32 kv_pci_config_read(struct kv_function *function, unsigned int where, unsigned int size)
{
	unsigned long flags;
	u32 value = 0;

	raw_spin_lock_irqsave(&function->lock, flags);
	while (size--) {
		u8 byte = function->config[where + size];

		if (where + size == PCI_STATUS && function->line.asserted)
			byte |= PCI_STATUS_INTERRUPT;
		value = value << 8 | byte;
	}
	raw_spin_unlock_irqrestore(&function->lock, flags);
	return value;
}

void kv_pci_config_write(struct kv_function *function, unsigned int where, unsigned int size, u32 value)
{
	unsigned long flags;
	bool was_disabled;

	raw_spin_lock_irqsave(&function->lock, flags);
	was_disabled = kv_pci_config_word(function, PCI_COMMAND) & PCI_COMMAND_INTX_DISABLE;
	for (; size--; ++where, value >>= 8) {
		u8 writable = kv_writable(function, where);

		function->config[where] = (function->config[where] & ~writable) | (value & writable);
	}
	if (was_disabled && !(kv_pci_config_word(function, PCI_COMMAND) & PCI_COMMAND_INTX_DISABLE))
		kv_pci_line_unmasked(function);
	raw_spin_unlock_irqrestore(&function->lock, flags);
}

/* ---- The table ---- */

static struct kv_function *kv_add_function(struct list_head *functions, unsigned int bus, unsigned int devfn)
{
	struct kv_function *function;

	if (bus > 0xff || kv_pci_find_function(functions, bus, devfn))
		return NULL;
	function = kzalloc(sizeof(*function), GFP_KERNEL);
	if (!function)
		return NULL;
	function->bus = bus;
	function->devfn = devfn;
	raw_spin_lock_init(&function->lock);
	list_add_tail(&function->list, functions);
	return function;
}

static int kv_parse_bytes(struct kv_function *function, unsigned int where, const char *text)
{
	unsigned int byte;
	int length;

	while (sscanf(text, " %2x%n", &byte, &length) == 1) {
		if (where >= sizeof(function->config))
			return -EINVAL;
		function->config[where++] = byte;
		text += length;
	}
	return *skip_spaces(text) ? -EINVAL : 0;
}

static int kv_parse_line(const char *line, struct list_head *functions)
{
	unsigned int bus, slot, number, where, bar;
	struct kv_function *function;
	unsigned long long size;
	int length = 0;

	if (*line == '\0' || *line == '#')
		return 0;
	if (sscanf(line, "%x:%x.%x", &bus, &slot, &number) == 3) {
		if (slot > 31 || number > 7)
			return -EINVAL;
		return kv_add_function(functions, bus, PCI_DEVFN(slot, number)) ? 0 : -EINVAL;
	}
	if (list_empty(functions))
		return -EINVAL;
	function = list_last_entry(functions, struct kv_function, list);
	if (sscanf(line, "bar %u: %llx", &bar, &size) == 2) {
		if (bar >= kv_bar_count(function) || !is_power_of_2(size))
			return -EINVAL;
		function->bar_size[bar] = size;
		return 0;
	}
	if (sscanf(line, "%x:%n", &where, &length) == 1 && length)
		return kv_parse_bytes(function, where, line + length);
	return -EINVAL;
}

int kv_pci_parse_table(const char *text, size_t length, struct list_head *functions)
{
	char *copy = kmemdup_nul(text, length, GFP_KERNEL);
	unsigned int number = 0;
	char *rest = copy;
	char *line;
	int ret = 0;

	if (!copy)
		return -ENOMEM;
	while (!ret && (line = strsep(&rest, "\n"))) {
		++number;
		ret = kv_parse_line(line, functions);
		if (ret)
			pr_err("kv_pci_host: line %u of the table is not understood: %s\n", number, line);
	}
	kfree(copy);
	return ret;
}

void kv_pci_free_functions(struct list_head *functions)
{
	struct kv_function *function, *next;

	list_for_each_entry_safe(function, next, functions, list)
		kfree(function);
	INIT_LIST_HEAD(functions);
}

struct kv_function *kv_pci_find_function(struct list_head *functions, unsigned int bus, unsigned int devfn)
{
	struct kv_function *function;

	list_for_each_entry(function, functions, list) {
		if (function->bus == bus && function->devfn == devfn)
			return function;
	}
	return NULL;
}

/* Where a memory BAR stands on the bus; 0 where there is none. */
u64 kv_pci_bar_address(const struct kv_function *function, unsigned int bar)
{
	unsigned int where = PCI_BASE_ADDRESS_0 + 4 * bar;
	u64 address = kv_pci_config_word(function, where) | (u32)kv_pci_config_word(function, where + 2)
								    << 16;

	if (!function->bar_size[bar] || kv_is_io(function, bar))
		return 0;
	if (kv_is_wide(function, bar))
		address |= (u64)(kv_pci_config_word(function, where + 4) |
				 (u32)kv_pci_config_word(function, where + 6) << 16)
			   << 32;
	return address & PCI_BASE_ADDRESS_MEM_MASK;
}

/* Takes the BARs off a function. A bridge also forwards nothing any more. */
void kv_pci_hide_bars(struct kv_function *function)
{
	u8 *config = function->config;

	memset(function->bar_size, 0, sizeof(function->bar_size));
	memset(config + PCI_BASE_ADDRESS_0, 0, 4 * kv_bar_count(function));
	if (!kv_is_bridge(function))
		return;
	/* Windows that begin above their end. */
	memset(config + PCI_MEMORY_BASE, 0, PCI_CAPABILITY_LIST - PCI_MEMORY_BASE);
	config[PCI_MEMORY_BASE] = 0xf0;
	config[PCI_PREF_MEMORY_BASE] = 0xf0;
	config[PCI_IO_BASE] = 0xf0;
	config[PCI_IO_LIMIT] = 0;
}
