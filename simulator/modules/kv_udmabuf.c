// SPDX-License-Identifier: GPL-2.0
/*
 * A stand-in for the driver of DMA buffers: contiguous memory as character
 * devices of the class u-dma-buf, made and deleted by lines that are written to
 * /dev/u-dma-buf-mgr, "create NAME SIZE" and "delete NAME".
 *
 *   cached_size=BYTES  cached-buffer-pcie is there from the start, its memory
 *                      coherent with the caches
 *
 * <debugfs>/kv_udmabuf/NAME tells how a buffer was mapped last. Reading and
 * writing a device goes through the kernel's own mapping of the buffer.
 */
#include <linux/cdev.h>
#include <linux/debugfs.h>
#include <linux/device.h>
#include <linux/dma-direct.h>
#include <linux/dma-mapping.h>
#include <linux/fs.h>
#include <linux/idr.h>
#include <linux/list.h>
#include <linux/miscdevice.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#define KV_MAX_BUFFERS 512
#define KV_MAX_COMMAND 128

static unsigned long cached_size;
module_param(cached_size, ulong, 0444);
MODULE_PARM_DESC(cached_size, "bytes of cached-buffer-pcie, where not 0");

/* How a device that was opened with O_SYNC is mapped. Else it is mapped cached. */
enum kv_sync_mode {
	KV_SYNC_NONE,
	KV_SYNC_UNCACHED,
	KV_SYNC_WRITE_COMBINED,
	KV_SYNC_COHERENT,
	KV_SYNC_MODES,
};

static const char *const kv_mapping_names[KV_SYNC_MODES] = {
	"cached",
	"uncached",
	"write-combined",
	"coherent",
};

struct kv_buffer {
	struct device dev; /* who has the device open holds it, and so the memory */
	struct list_head list;
	struct device *owner; /* that the memory was allocated for */
	struct dentry *debug;
	void *memory;
	dma_addr_t address;
	size_t size; /* as asked for; the memory is whole pages */
	unsigned int sync_mode;
	const char *last_mapping;
};

/* Memory is allocated for them. Only the second one is coherent with the caches. */
static struct platform_device *kv_plain;
static struct platform_device *kv_coherent;

static LIST_HEAD(kv_buffers);
static DEFINE_MUTEX(kv_buffers_lock);
static DEFINE_IDA(kv_minors);
static dev_t kv_first;
static struct dentry *kv_debug;

static struct kv_buffer *to_buffer(struct device *dev)
{
	return container_of(dev, struct kv_buffer, dev);
}

static ssize_t phys_addr_show(struct device *dev, struct device_attribute *attr, char *text)
{
	return sysfs_emit(text, "%pad\n", &to_buffer(dev)->address);
}
static DEVICE_ATTR_RO(phys_addr);

static ssize_t size_show(struct device *dev, struct device_attribute *attr, char *text)
{
	return sysfs_emit(text, "%zu\n", to_buffer(dev)->size);
}
static DEVICE_ATTR_RO(size);

static ssize_t dma_coherent_show(struct device *dev, struct device_attribute *attr, char *text)
{
	return sysfs_emit(text, "%d\n", to_buffer(dev)->owner == &kv_coherent->dev);
}
static DEVICE_ATTR_RO(dma_coherent);

static ssize_t sync_mode_show(struct device *dev, struct device_attribute *attr, char *text)
{
	return sysfs_emit(text, "%u\n", to_buffer(dev)->sync_mode);
}

static ssize_t sync_mode_store(struct device *dev, struct device_attribute *attr, const char *text,
			       size_t length)
{
	unsigned int mode;
	int ret = kstrtouint(text, 0, &mode);

	if (ret)
		return ret;
	if (mode >= KV_SYNC_MODES)
		return -EINVAL;
	to_buffer(dev)->sync_mode = mode;
	return length;
}
static DEVICE_ATTR_RW(sync_mode);

static struct attribute *kv_buffer_attrs[] = {
	&dev_attr_phys_addr.attr,
	&dev_attr_size.attr,
	&dev_attr_dma_coherent.attr,
	&dev_attr_sync_mode.attr,
	NULL,
};
ATTRIBUTE_GROUPS(kv_buffer);

static struct class kv_class = {
	.name = "u-dma-buf",
	.dev_groups = kv_buffer_groups,
};

static int kv_mapping_show(struct seq_file *out, void *unused)
{
	struct kv_buffer *buffer = out->private;

	seq_printf(out, "%s\n", buffer->last_mapping);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(kv_mapping);

static int kv_open(struct inode *inode, struct file *file)
{
	struct kv_buffer *buffer;
	int ret = -ENODEV;

	mutex_lock(&kv_buffers_lock);
	list_for_each_entry(buffer, &kv_buffers, list) {
		if (buffer->dev.devt == inode->i_rdev) {
			get_device(&buffer->dev);
			file->private_data = buffer;
			ret = 0;
		}
	}
	mutex_unlock(&kv_buffers_lock);
	return ret;
}

static int kv_release(struct inode *inode, struct file *file)
{
	struct kv_buffer *buffer = file->private_data;

	put_device(&buffer->dev);
	return 0;
}

static ssize_t kv_read(struct file *file, char __user *to, size_t length, loff_t *offset)
{
	struct kv_buffer *buffer = file->private_data;

	return simple_read_from_buffer(to, length, offset, buffer->memory, buffer->size);
}

static ssize_t kv_write(struct file *file, const char __user *from, size_t length, loff_t *offset)
{
	struct kv_buffer *buffer = file->private_data;

	return simple_write_to_buffer(buffer->memory, buffer->size, offset, from, length);
}

static int kv_mmap(struct file *file, struct vm_area_struct *vma)
{
	struct kv_buffer *buffer = file->private_data;
	unsigned int mode = file->f_flags & O_SYNC ? buffer->sync_mode : KV_SYNC_NONE;
	phys_addr_t memory = dma_to_phys(buffer->owner, buffer->address);
	struct page *page = pfn_to_page(PHYS_PFN(memory) + vma->vm_pgoff);
	unsigned long pages = PHYS_PFN(PAGE_ALIGN(buffer->size));
	unsigned long address;
	int ret = 0;

	if (vma_pages(vma) > pages || vma->vm_pgoff > pages - vma_pages(vma))
		return -EINVAL;
	switch (mode) {
	case KV_SYNC_UNCACHED:
		vma->vm_page_prot = pgprot_noncached(vma->vm_page_prot);
		break;
	case KV_SYNC_WRITE_COMBINED:
		vma->vm_page_prot = pgprot_writecombine(vma->vm_page_prot);
		break;
	case KV_SYNC_COHERENT:
		vma->vm_page_prot = pgprot_dmacoherent(vma->vm_page_prot);
		break;
	}
	buffer->last_mapping = kv_mapping_names[mode];
	/* Page by page: /proc/PID/pagemap tells nothing of a mapping by frame
	 * numbers alone. */
	for (address = vma->vm_start; !ret && address < vma->vm_end; address += PAGE_SIZE)
		ret = vm_insert_page(vma, address, page++);
	return ret;
}

static const struct file_operations kv_buffer_fops = {
	.owner = THIS_MODULE,
	.open = kv_open,
	.release = kv_release,
	.read = kv_read,
	.write = kv_write,
	.mmap = kv_mmap,
	.llseek = default_llseek,
};
static struct cdev kv_cdev;

static void kv_free_buffer(struct device *dev)
{
	struct kv_buffer *buffer = to_buffer(dev);

	if (buffer->memory)
		dma_free_coherent(buffer->owner, PAGE_ALIGN(buffer->size), buffer->memory, buffer->address);
	ida_free(&kv_minors, MINOR(dev->devt) - MINOR(kv_first));
	kfree(buffer);
}

static struct kv_buffer *kv_find_buffer(const char *name)
{
	struct kv_buffer *buffer;

	list_for_each_entry(buffer, &kv_buffers, list) {
		if (!strcmp(dev_name(&buffer->dev), name))
			return buffer;
	}
	return NULL;
}

/* Pages that are not from the area for contiguous memory have no reference each, and can't be mapped. */
static bool kv_can_be_mapped(struct kv_buffer *buffer)
{
	unsigned long last = PHYS_PFN(dma_to_phys(buffer->owner, buffer->address) + buffer->size - 1);

	return page_count(pfn_to_page(last)) > 0;
}

static int kv_create(const char *name, size_t size, struct device *owner)
{
	struct kv_buffer *buffer;
	int minor, ret;

	lockdep_assert_held(&kv_buffers_lock);
	if (size == 0 || size > PHYS_ADDR_MAX - PAGE_SIZE)
		return -EINVAL;
	if (kv_find_buffer(name))
		return -EEXIST;
	buffer = kzalloc(sizeof(*buffer), GFP_KERNEL);
	if (!buffer)
		return -ENOMEM;
	minor = ida_alloc_max(&kv_minors, KV_MAX_BUFFERS - 1, GFP_KERNEL);
	if (minor < 0) {
		kfree(buffer);
		return minor;
	}
	device_initialize(&buffer->dev);
	buffer->dev.class = &kv_class;
	buffer->dev.devt = MKDEV(MAJOR(kv_first), MINOR(kv_first) + minor);
	buffer->dev.release = kv_free_buffer;
	buffer->owner = owner;
	buffer->size = size;
	buffer->sync_mode = KV_SYNC_UNCACHED;
	buffer->last_mapping = "never";

	ret = dev_set_name(&buffer->dev, "%s", name);
	if (ret)
		goto put;
	buffer->memory =
		dma_alloc_coherent(owner, PAGE_ALIGN(size), &buffer->address, GFP_KERNEL | __GFP_NOWARN);
	ret = buffer->memory && kv_can_be_mapped(buffer) ? device_add(&buffer->dev) : -ENOMEM;
	if (ret)
		goto put;
	buffer->debug = debugfs_create_file(name, 0444, kv_debug, buffer, &kv_mapping_fops);
	list_add_tail(&buffer->list, &kv_buffers);
	return 0;
put:
	put_device(&buffer->dev);
	return ret;
}

static void kv_delete(struct kv_buffer *buffer)
{
	lockdep_assert_held(&kv_buffers_lock);
	list_del(&buffer->list);
	debugfs_remove(buffer->debug);
	device_unregister(&buffer->dev);
}

static int kv_execute(int argc, char **argv)
{
	struct kv_buffer *buffer;
	unsigned long size;

	if (argc == 3 && !strcmp(argv[0], "create") && !strchr(argv[1], '/') && !kstrtoul(argv[2], 0, &size))
		return kv_create(argv[1], size, &kv_plain->dev);
	if (argc != 2 || strcmp(argv[0], "delete"))
		return -EINVAL;
	buffer = kv_find_buffer(argv[1]);
	if (!buffer)
		return -ENODEV;
	kv_delete(buffer);
	return 0;
}

static ssize_t kv_manager_write(struct file *file, const char __user *from, size_t length, loff_t *offset)
{
	char **argv;
	char *line;
	int argc, ret = -EINVAL;

	if (length == 0 || length > KV_MAX_COMMAND)
		return -EINVAL;
	line = memdup_user_nul(from, length);
	if (IS_ERR(line))
		return PTR_ERR(line);
	if (strchr(line, '\n') == line + length - 1) {
		argv = argv_split(GFP_KERNEL, line, &argc);
		if (argv) {
			mutex_lock(&kv_buffers_lock);
			ret = kv_execute(argc, argv);
			mutex_unlock(&kv_buffers_lock);
			argv_free(argv);
		} else {
			ret = -ENOMEM;
		}
	}
	kfree(line);
	return ret ? ret : length;
}

static const struct file_operations kv_manager_fops = {
	.owner = THIS_MODULE,
	.write = kv_manager_write,
	.llseek = noop_llseek,
};

static struct miscdevice kv_manager = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "u-dma-buf-mgr",
	.fops = &kv_manager_fops,
	.mode = 0600,
};

static int __init kv_create_cached(void)
{
	int ret = 0;

	if (cached_size) {
		mutex_lock(&kv_buffers_lock);
		ret = kv_create("cached-buffer-pcie", cached_size, &kv_coherent->dev);
		mutex_unlock(&kv_buffers_lock);
	}
	return ret;
}

static void kv_delete_all(void)
{
	struct kv_buffer *buffer, *next;

	mutex_lock(&kv_buffers_lock);
	list_for_each_entry_safe(buffer, next, &kv_buffers, list)
		kv_delete(buffer);
	mutex_unlock(&kv_buffers_lock);
}

static int __init kv_udmabuf_init(void)
{
	int ret;

	kv_plain = platform_device_register_simple("kv-udmabuf", 0, NULL, 0);
	if (IS_ERR(kv_plain))
		return PTR_ERR(kv_plain);
	kv_coherent = platform_device_register_simple("kv-udmabuf", 1, NULL, 0);
	if (IS_ERR(kv_coherent)) {
		ret = PTR_ERR(kv_coherent);
		goto remove_plain;
	}
	kv_coherent->dev.dma_coherent = true;
	ret = class_register(&kv_class);
	if (ret)
		goto remove_coherent;
	ret = alloc_chrdev_region(&kv_first, 0, KV_MAX_BUFFERS, "u-dma-buf");
	if (ret)
		goto remove_class;
	cdev_init(&kv_cdev, &kv_buffer_fops);
	kv_cdev.owner = THIS_MODULE;
	ret = cdev_add(&kv_cdev, kv_first, KV_MAX_BUFFERS);
	if (ret)
		goto remove_region;
	kv_debug = debugfs_create_dir("kv_udmabuf", NULL);
	ret = kv_create_cached();
	if (!ret)
		ret = misc_register(&kv_manager);
	if (!ret)
		return 0;

	kv_delete_all();
	debugfs_remove(kv_debug);
	cdev_del(&kv_cdev);
remove_region:
	unregister_chrdev_region(kv_first, KV_MAX_BUFFERS);
remove_class:
	class_unregister(&kv_class);
remove_coherent:
	platform_device_unregister(kv_coherent);
remove_plain:
	platform_device_unregister(kv_plain);
	return ret;
}

static void __exit kv_udmabuf_exit(void)
{
	misc_deregister(&kv_manager);
	kv_delete_all();
	debugfs_remove(kv_debug);
	cdev_del(&kv_cdev);
	unregister_chrdev_region(kv_first, KV_MAX_BUFFERS);
	class_unregister(&kv_class);
	platform_device_unregister(kv_coherent);
	platform_device_unregister(kv_plain);
}

module_init(kv_udmabuf_init);
module_exit(kv_udmabuf_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Buffer devices for tests");
