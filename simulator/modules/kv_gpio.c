// SPDX-License-Identifier: GPL-2.0
/*
 * A GPIO chip in place of the platform's: the onboard serial ports' transceivers hang on its lines.
 *
 * <debugfs>/kv_gpio/history tells what was done with the lines, a step a line and in order:
 *
 *	request 16 onboard_serial
 *	output 16=1
 *	free 16
 *
 * "input 16" and "set 16=0" are the other steps. Writing anything to the file empties it.
 *
 * <debugfs>/kv_gpio/lines holds a character for each line, from line 0 up: the level of an output, '-' for an
 * input. Lines keep both when nobody holds them, as the platform's do.
 */
#include <linux/debugfs.h>
#include <linux/gpio/driver.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/seq_buf.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>

#define KV_GPIO_LINES 17

static const char *const kv_gpio_names[KV_GPIO_LINES] = {
	[8] = "SERIAL1_RS485",	      [9] = "SERIAL1_TERMINATION",  [10] = "SERIAL1_HALF_DUPLEX",
	[11] = "SERIAL0_TERMINATION", [12] = "SERIAL0_HALF_DUPLEX", [13] = "SERIAL0_RS485",
	[15] = "SERIAL0_TX_EN",	      [16] = "SERIAL1_TX_EN",
};

static struct platform_device *kv_gpio_device;
static struct gpio_chip kv_gpio_chip;
static struct dentry *kv_gpio_folder;

/* Guards all that follows. */
static DEFINE_SPINLOCK(kv_gpio_lock);
static unsigned long kv_gpio_levels;
static unsigned long kv_gpio_outputs;
static char kv_gpio_text[8192];
static struct seq_buf kv_gpio_history;

static int kv_gpio_request(struct gpio_chip *chip, unsigned int line)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	seq_buf_printf(&kv_gpio_history, "request %u %s\n", line, gpiochip_is_requested(chip, line));
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return 0;
}

static void kv_gpio_free(struct gpio_chip *chip, unsigned int line)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	seq_buf_printf(&kv_gpio_history, "free %u\n", line);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
}

static int kv_gpio_get_direction(struct gpio_chip *chip, unsigned int line)
{
	return test_bit(line, &kv_gpio_outputs) ? GPIO_LINE_DIRECTION_OUT : GPIO_LINE_DIRECTION_IN;
}

static int kv_gpio_direction_input(struct gpio_chip *chip, unsigned int line)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	__clear_bit(line, &kv_gpio_outputs);
	seq_buf_printf(&kv_gpio_history, "input %u\n", line);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return 0;
}

static int kv_gpio_direction_output(struct gpio_chip *chip, unsigned int line, int level)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	__set_bit(line, &kv_gpio_outputs);
	__assign_bit(line, &kv_gpio_levels, level);
	seq_buf_printf(&kv_gpio_history, "output %u=%d\n", line, !!level);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return 0;
}

static int kv_gpio_get(struct gpio_chip *chip, unsigned int line)
{
	return test_bit(line, &kv_gpio_levels);
}

static void kv_gpio_set(struct gpio_chip *chip, unsigned int line, int level)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	__assign_bit(line, &kv_gpio_levels, level);
	seq_buf_printf(&kv_gpio_history, "set %u=%d\n", line, !!level);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
}

static int kv_gpio_history_show(struct seq_file *file, void *unused)
{
	unsigned long flags;
	int result = 0;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	if (seq_buf_has_overflowed(&kv_gpio_history))
		result = -ENOSPC; /* better no history than one with a hole */
	else
		seq_write(file, kv_gpio_text, kv_gpio_history.len);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return result;
}

static ssize_t kv_gpio_history_write(struct file *file, const char __user *text, size_t count,
				     loff_t *position)
{
	unsigned long flags;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	seq_buf_clear(&kv_gpio_history);
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return count;
}

static int kv_gpio_history_open(struct inode *inode, struct file *file)
{
	return single_open(file, kv_gpio_history_show, NULL);
}

static const struct file_operations kv_gpio_history_fops = {
	.owner = THIS_MODULE,
	.open = kv_gpio_history_open,
	.read = seq_read,
	.write = kv_gpio_history_write,
	.llseek = seq_lseek,
	.release = single_release,
};

static int kv_gpio_lines_show(struct seq_file *file, void *unused)
{
	unsigned long flags;
	unsigned int line;

	spin_lock_irqsave(&kv_gpio_lock, flags);
	for (line = 0; line < KV_GPIO_LINES; line++) {
		if (!test_bit(line, &kv_gpio_outputs))
			seq_putc(file, '-');
		else
			seq_putc(file, test_bit(line, &kv_gpio_levels) ? '1' : '0');
	}
	seq_putc(file, '\n');
	spin_unlock_irqrestore(&kv_gpio_lock, flags);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(kv_gpio_lines);

static int __init kv_gpio_init(void)
{
	int result;

	seq_buf_init(&kv_gpio_history, kv_gpio_text, sizeof(kv_gpio_text));
	kv_gpio_device = platform_device_register_simple("kv-gpio", -1, NULL, 0);
	if (IS_ERR(kv_gpio_device))
		return PTR_ERR(kv_gpio_device);

	kv_gpio_chip = (struct gpio_chip){
		.label = "kv_gpio",
		.parent = &kv_gpio_device->dev,
		.owner = THIS_MODULE,
		.base = -1,
		.ngpio = KV_GPIO_LINES,
		.names = kv_gpio_names,
		.request = kv_gpio_request,
		.free = kv_gpio_free,
		.get_direction = kv_gpio_get_direction,
		.direction_input = kv_gpio_direction_input,
		.direction_output = kv_gpio_direction_output,
		.get = kv_gpio_get,
		.set = kv_gpio_set,
	};
	result = gpiochip_add_data(&kv_gpio_chip, NULL);
	if (result) {
		platform_device_unregister(kv_gpio_device);
		return result;
	}

	/* Without debugfs the chip works all the same, so its errors are not looked at. */
	kv_gpio_folder = debugfs_create_dir("kv_gpio", NULL);
	debugfs_create_file("history", 0600, kv_gpio_folder, NULL, &kv_gpio_history_fops);
	debugfs_create_file("lines", 0400, kv_gpio_folder, NULL, &kv_gpio_lines_fops);
	return 0;
}

static void __exit kv_gpio_exit(void)
{
	debugfs_remove(kv_gpio_folder);
	gpiochip_remove(&kv_gpio_chip);
	platform_device_unregister(kv_gpio_device);
}

module_init(kv_gpio_init);
module_exit(kv_gpio_exit);
MODULE_DESCRIPTION("GPIO chip that keeps the history of its lines");
MODULE_LICENSE("GPL");
