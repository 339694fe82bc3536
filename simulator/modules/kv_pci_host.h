/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The functions of the PCI host, as its parts see them: what the table says, what software has written, and
 * the interrupt line.
 */
#ifndef KV_PCI_HOST_H
#define KV_PCI_HOST_H

#include <linux/irq_work.h>
#include <linux/list.h>
#include <linux/pci.h>
#include <linux/smp.h>
#include <linux/wait.h>

/* The INTx line of one function, and the program that stands for the board, if any. */
struct kv_line {
	unsigned int number; /* hardware interrupt in the host's domain */
	unsigned int cpu;    /* that serves it */
	bool masked;	     /* by the interrupt core */
	bool asserted;
	bool attended;	  /* a program holds the line's file */
	u32 unmasks;	  /* how often the command register let the interrupt through again */
	u32 unmasks_seen; /* by the program */
	wait_queue_head_t unmasked;
	struct irq_work raise;
	call_single_data_t carry; /* to the CPU that serves it */
};

struct kv_function {
	struct list_head list;
	unsigned int bus;
	unsigned int devfn;
	u64 bar_size[PCI_STD_NUM_BARS];
	raw_spinlock_t lock; /* for what follows; taken inside the lock of configuration accesses */
	u8 config[PCI_CFG_SPACE_EXP_SIZE];
	struct kv_line line;
};

/* kv_pci_config.c: the table and the configuration spaces. */
int kv_pci_parse_table(const char *text, size_t length, struct list_head *functions);
void kv_pci_free_functions(struct list_head *functions);
struct kv_function *kv_pci_find_function(struct list_head *functions, unsigned int bus, unsigned int devfn);
u64 kv_pci_bar_address(const struct kv_function *function, unsigned int bar);
void kv_pci_hide_bars(struct kv_function *function);
u32 kv_pci_config_read(struct kv_function *function, unsigned int where, unsigned int size);
void kv_pci_config_write(struct kv_function *function, unsigned int where, unsigned int size, u32 value);

static inline u16 kv_pci_config_word(const struct kv_function *function, unsigned int where)
{
	return function->config[where] | function->config[where + 1] << 8;
}

/* kv_pci_line.c: the interrupt lines and their files. */
int kv_pci_create_lines(struct list_head *functions);
void kv_pci_remove_lines(struct list_head *functions);
int kv_pci_map_line(struct kv_function *function);
void kv_pci_line_unmasked(struct kv_function *function);

#endif
