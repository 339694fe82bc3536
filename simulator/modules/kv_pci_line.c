// SPDX-License-Identifier: GPL-2.0
/*
 * The INTx lines of the functions: level-triggered, each an interrupt of its own.
 *
 * <debugfs>/kv_pci_host/0000:BB:SS.F is the line as the board holds it. A program that stands for the board
 * opens it, one at a time:
 *
 * read:  A u32, how often Interrupt Disable was cleared in the command register since the file was opened.
 *        Waits until that is more than the program has said it has seen; poll() tells.
 * write: Two u32: the count that the program has seen, and whether the board asserts its line.
 *
 * When the file is closed the line is released.
 *
 * What a driver writes reaches a board in order: when the command register lets the interrupt through again,
 * the board has seen what was written to its registers before, and may have released its line. A program sees
 * it later. So the line has no effect from then until the program has seen that count.
 */
#include <linux/debugfs.h>
#include <linux/interrupt.h>
#include <linux/irq.h>
#include <linux/irqdomain.h>
#include <linux/poll.h>
#include <linux/uaccess.h>

#include "kv_pci_host.h"

static struct irq_domain *kv_domain;
static struct dentry *kv_files;

/* ---- Interrupts ---- */

static bool kv_is_effective(const struct kv_function *function)
{
	const struct kv_line *line = &function->line;

	return line->asserted && !line->masked && (!line->attended || line->unmasks == line->unmasks_seen) &&
	       !(kv_pci_config_word(function, PCI_COMMAND) & PCI_COMMAND_INTX_DISABLE);
}

/* With the function's lock held. */
static void kv_look_at_line(struct kv_function *function)
{
	if (kv_is_effective(function))
		irq_work_queue(&function->line.raise);
}

static void kv_deliver(void *data)
{
	struct kv_function *function = data;
	unsigned long flags;
	bool effective;

	raw_spin_lock_irqsave(&function->lock, flags);
	effective = kv_is_effective(function);
	raw_spin_unlock_irqrestore(&function->lock, flags);
	if (effective)
		generic_handle_domain_irq(kv_domain, function->line.number);
}

/* Runs in interrupt context on the CPU where the line changed. */
static void kv_raise(struct irq_work *work)
{
	struct kv_function *function = container_of(work, struct kv_function, line.raise);
	unsigned int cpu = READ_ONCE(function->line.cpu);

	if (cpu == smp_processor_id())
		kv_deliver(function);
	else /* fails where it is on its way already */
		smp_call_function_single_async(cpu, &function->line.carry);
}

static void kv_set_masked(struct irq_data *data, bool masked)
{
	struct kv_function *function = irq_data_get_irq_chip_data(data);
	unsigned long flags;

	raw_spin_lock_irqsave(&function->lock, flags);
	function->line.masked = masked;
	kv_look_at_line(function);
	raw_spin_unlock_irqrestore(&function->lock, flags);
}

static void kv_irq_mask(struct irq_data *data)
{
	kv_set_masked(data, true);
}

static void kv_irq_unmask(struct irq_data *data)
{
	kv_set_masked(data, false);
}

static int kv_irq_set_affinity(struct irq_data *data, const struct cpumask *mask, bool force)
{
	struct kv_function *function = irq_data_get_irq_chip_data(data);
	unsigned int cpu = cpumask_first_and(mask, cpu_online_mask);

	if (cpu >= nr_cpu_ids)
		return -EINVAL;
	WRITE_ONCE(function->line.cpu, cpu);
	irq_data_update_effective_affinity(data, cpumask_of(cpu));
	return IRQ_SET_MASK_OK_DONE;
}

static struct irq_chip kv_irq_chip = {
	.name = "kv-pci",
	.irq_mask = kv_irq_mask,
	.irq_unmask = kv_irq_unmask,
	.irq_set_affinity = kv_irq_set_affinity,
};

static int kv_map_domain(struct irq_domain *domain, unsigned int irq, irq_hw_number_t number)
{
	struct kv_function *function;

	list_for_each_entry(function, (struct list_head *)domain->host_data, list) {
		if (function->line.number != number)
			continue;
		irq_set_chip_and_handler(irq, &kv_irq_chip, handle_level_irq);
		irq_set_chip_data(irq, function);
		irq_set_status_flags(irq, IRQ_LEVEL);
		irq_set_probe(irq);
		return 0;
	}
	return -ENXIO;
}

static const struct irq_domain_ops kv_domain_ops = {
	.map = kv_map_domain,
};

/* With the function's lock held. */
void kv_pci_line_unmasked(struct kv_function *function)
{
	++function->line.unmasks;
	wake_up_interruptible(&function->line.unmasked);
	kv_look_at_line(function);
}

int kv_pci_map_line(struct kv_function *function)
{
	return function->config[PCI_INTERRUPT_PIN] ? irq_create_mapping(kv_domain, function->line.number) : 0;
}

/* ---- Files ---- */

static int kv_line_open(struct inode *inode, struct file *file)
{
	struct kv_function *function = inode->i_private;
	struct kv_line *line = &function->line;
	int ret = -EBUSY;

	raw_spin_lock_irq(&function->lock);
	if (!line->attended) {
		line->attended = true;
		line->unmasks = 0;
		line->unmasks_seen = 0;
		ret = 0;
	}
	raw_spin_unlock_irq(&function->lock);
	file->private_data = function;
	return ret;
}

static int kv_line_release(struct inode *inode, struct file *file)
{
	struct kv_function *function = file->private_data;

	raw_spin_lock_irq(&function->lock);
	function->line.attended = false;
	function->line.asserted = false;
	raw_spin_unlock_irq(&function->lock);
	return 0;
}

static bool kv_has_unseen(struct kv_function *function)
{
	bool unseen;

	raw_spin_lock_irq(&function->lock);
	unseen = function->line.unmasks != function->line.unmasks_seen;
	raw_spin_unlock_irq(&function->lock);
	return unseen;
}

static ssize_t kv_line_read(struct file *file, char __user *to, size_t length, loff_t *offset)
{
	struct kv_function *function = file->private_data;
	u32 count;

	if (length != sizeof(count))
		return -EINVAL;
	if (!(file->f_flags & O_NONBLOCK) &&
	    wait_event_interruptible(function->line.unmasked, kv_has_unseen(function)))
		return -ERESTARTSYS;
	if (!kv_has_unseen(function))
		return -EAGAIN;
	count = READ_ONCE(function->line.unmasks);
	return copy_to_user(to, &count, sizeof(count)) ? -EFAULT : sizeof(count);
}

static ssize_t kv_line_write(struct file *file, const char __user *from, size_t length, loff_t *offset)
{
	struct kv_function *function = file->private_data;
	u32 state[2]; /* unmasks seen, asserted */

	if (length != sizeof(state))
		return -EINVAL;
	if (copy_from_user(state, from, sizeof(state)))
		return -EFAULT;
	raw_spin_lock_irq(&function->lock);
	function->line.unmasks_seen = state[0];
	function->line.asserted = state[1];
	kv_look_at_line(function);
	raw_spin_unlock_irq(&function->lock);
	return length;
}

static __poll_t kv_line_poll(struct file *file, poll_table *wait)
{
	struct kv_function *function = file->private_data;

	poll_wait(file, &function->line.unmasked, wait);
	return EPOLLOUT | (kv_has_unseen(function) ? EPOLLIN : 0);
}

static const struct file_operations kv_line_fops = {
	.owner = THIS_MODULE,
	.open = kv_line_open,
	.release = kv_line_release,
	.read = kv_line_read,
	.write = kv_line_write,
	.poll = kv_line_poll,
	.llseek = noop_llseek,
};

static void kv_create_line(struct kv_function *function, unsigned int number)
{
	struct kv_line *line = &function->line;
	char name[sizeof("0000:00:00.0")];

	line->number = number;
	line->masked = true;
	init_waitqueue_head(&line->unmasked);
	line->raise = IRQ_WORK_INIT_HARD(kv_raise);
	INIT_CSD(&line->carry, kv_deliver, function);
	if (function->config[PCI_INTERRUPT_PIN]) {
		snprintf(name, sizeof(name), "0000:%02x:%02x.%x", function->bus, PCI_SLOT(function->devfn),
			 PCI_FUNC(function->devfn));
		debugfs_create_file(name, 0600, kv_files, function, &kv_line_fops);
	}
}

int kv_pci_create_lines(struct list_head *functions)
{
	struct kv_function *function;
	unsigned int count = 0;

	kv_files = debugfs_create_dir("kv_pci_host", NULL);
	list_for_each_entry(function, functions, list)
		kv_create_line(function, count++);
	kv_domain = irq_domain_add_linear(NULL, count, &kv_domain_ops, functions);
	if (kv_domain)
		return 0;
	debugfs_remove(kv_files);
	return -ENOMEM;
}

void kv_pci_remove_lines(struct list_head *functions)
{
	struct kv_function *function;

	debugfs_remove(kv_files);
	list_for_each_entry(function, functions, list) {
		irq_dispose_mapping(irq_find_mapping(kv_domain, function->line.number));
		irq_work_sync(&function->line.raise);
	}
	irq_domain_remove(kv_domain);
}
