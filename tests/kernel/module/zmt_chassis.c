// SPDX-License-Identifier: GPL-2.0
/*
 * What only the chassis has, for tests in a virtual machine: a register block with two windows and
 * an interrupt, served by UIO, whose device on the bus announces its removal through "uio_maps";
 * and the four NVRAM blocks of the class "zmt_nvram".
 *
 * Written to /sys/module/zmt_chassis/parameters/regblock:
 *   plug    the register block appears
 *   notify  its removal is announced
 *   unplug  it goes, announced
 *
 * Today's kernels call every sysfs attribute readable at any time. /dev/zmt_removal says the same
 * as "uio_maps", but poll reports nothing on it until the removal is announced; it can be mounted
 * over the attribute.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/platform_device.h>
#include <linux/poll.h>
#include <linux/uio_driver.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>

/* --- the register block --- */

#define IRQ_DELAY_MS 40

static struct platform_device *regblock;
static bool irq_allowed;

static void raise_irq(struct work_struct *work);
static DECLARE_DELAYED_WORK(irq_timer, raise_irq);

/* Each enabling is answered by one interrupt. */
static int control_irq(struct uio_info *info, s32 enable)
{
	cancel_delayed_work_sync(&irq_timer);
	if (enable && irq_allowed)
		schedule_delayed_work(&irq_timer, msecs_to_jiffies(IRQ_DELAY_MS));
	return 0;
}

static struct uio_info regblock_uio = {
	.name = "zmt_regblock",
	.version = "1",
	.irq = UIO_IRQ_CUSTOM,
	.irqcontrol = control_irq,
};

static void raise_irq(struct work_struct *work)
{
	uio_event_notify(&regblock_uio);
}

static const char maps_text[] = "map0\nmap1\n";
static bool announced;
static DECLARE_WAIT_QUEUE_HEAD(announcement);

static ssize_t uio_maps_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	return sysfs_emit(buf, "%s", maps_text);
}
static DEVICE_ATTR_RO(uio_maps);

static ssize_t removal_read(struct file *file, char __user *to, size_t count, loff_t *pos)
{
	return simple_read_from_buffer(to, count, pos, maps_text, sizeof(maps_text) - 1);
}

static __poll_t removal_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &announcement, table);
	return announced ? EPOLLIN | EPOLLPRI | EPOLLERR : 0;
}

static const struct file_operations removal_operations = {
	.owner = THIS_MODULE,
	.read = removal_read,
	.poll = removal_poll,
	.llseek = default_llseek,
};

static struct miscdevice removal_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "zmt_removal",
	.fops = &removal_operations,
};

static void announce_removal(void)
{
	announced = true;
	wake_up_interruptible(&announcement);
	sysfs_notify(&regblock->dev.kobj, NULL, "uio_maps");
}

static void free_windows(void)
{
	for (int i = 0; i < 2; i++) {
		vfree((void *)(uintptr_t)regblock_uio.mem[i].addr);
		regblock_uio.mem[i].addr = 0;
	}
}

/* Window i is i + 1 pages; every page begins with 0x5a4d0000 plus the numbers of both. */
static int make_windows(void)
{
	for (u32 i = 0; i < 2; i++) {
		struct uio_mem *mem = &regblock_uio.mem[i];
		char *window = vmalloc_user((i + 1) * PAGE_SIZE);

		if (!window)
			return -ENOMEM;
		for (u32 page = 0; page <= i; page++)
			*(u32 *)(window + page * PAGE_SIZE) = 0x5a4d0000 + (i << 8) + page;
		mem->memtype = UIO_MEM_VIRTUAL;
		mem->addr = (uintptr_t)window;
		mem->size = (i + 1) * PAGE_SIZE;
	}
	return 0;
}

static int plug_regblock(void)
{
	int error;

	if (regblock)
		return -EEXIST;
	regblock = platform_device_register_simple("zmt_regblock", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(regblock)) {
		error = PTR_ERR(regblock);
		goto no_device;
	}
	error = device_create_file(&regblock->dev, &dev_attr_uio_maps);
	if (error)
		goto no_attribute;
	error = make_windows();
	if (!error)
		error = uio_register_device(&regblock->dev, &regblock_uio);
	if (error)
		goto no_uio;
	irq_allowed = true;
	announced = false;
	return 0;

no_uio:
	free_windows();
no_attribute:
	platform_device_unregister(regblock);
no_device:
	regblock = NULL;
	return error;
}

static void unplug_regblock(void)
{
	announce_removal();
	irq_allowed = false;
	cancel_delayed_work_sync(&irq_timer);
	uio_unregister_device(&regblock_uio);
	free_windows();
	platform_device_unregister(regblock);
	regblock = NULL;
}

static int control_regblock(const char *text, const struct kernel_param *param)
{
	if (sysfs_streq(text, "plug"))
		return plug_regblock();
	if (!regblock)
		return -ENODEV;
	if (sysfs_streq(text, "notify"))
		announce_removal();
	else if (sysfs_streq(text, "unplug"))
		unplug_regblock();
	else
		return -EINVAL;
	return 0;
}

static const struct kernel_param_ops regblock_control = { .set = control_regblock };
module_param_cb(regblock, &regblock_control, NULL, 0200);

/* --- NVRAM --- */

static struct nvram_block {
	const char *name;
	u32 baseaddr;
	u32 size;
	const char *mode;
	void *data;
	struct device *dev;
	struct mutex lock;
	unsigned int openings;
	bool exclusive; /* whoever has it open keeps all others out */
} blocks[] = {
	{ "nvlog-ofw-event", 0xf0004000, 8192, "ro" },
	{ "nvlog-diag-test", 0xf0006000, 16384, "ro" },
	{ "nvlog-diag-error", 0xf000a000, 32768, "ro" },
	{ "nvlog-pod", 0xf0000000, 16384, "rw" },
};

static int nvram_open(struct inode *inode, struct file *file)
{
	struct nvram_block *block = &blocks[iminor(inode)];
	bool exclusive = file->f_flags & O_EXCL;
	int error = 0;

	mutex_lock(&block->lock);
	if (block->exclusive || (exclusive && block->openings)) {
		error = -EBUSY;
	} else {
		block->openings++;
		block->exclusive = exclusive;
		file->private_data = block;
	}
	mutex_unlock(&block->lock);
	return error;
}

static int nvram_release(struct inode *inode, struct file *file)
{
	struct nvram_block *block = file->private_data;

	mutex_lock(&block->lock);
	block->openings--;
	block->exclusive = false;
	mutex_unlock(&block->lock);
	return 0;
}

static ssize_t nvram_read(struct file *file, char __user *to, size_t count, loff_t *pos)
{
	struct nvram_block *block = file->private_data;

	return simple_read_from_buffer(to, count, pos, block->data, block->size);
}

/* The mode is what the firmware's blocks tell; a test has to fill them all. */
static ssize_t nvram_write(struct file *file, const char __user *from, size_t count, loff_t *pos)
{
	struct nvram_block *block = file->private_data;

	return simple_write_to_buffer(block->data, block->size, pos, from, count);
}

static const struct file_operations nvram_operations = {
	.owner = THIS_MODULE,
	.open = nvram_open,
	.release = nvram_release,
	.read = nvram_read,
	.write = nvram_write,
	.llseek = default_llseek,
};

static struct nvram_block *block_of(struct device *dev)
{
	return dev_get_drvdata(dev);
}

#define NVRAM_ATTRIBUTE(field, format)                                                             \
	static ssize_t field##_show(struct device *dev, struct device_attribute *attr, char *buf)  \
	{                                                                                          \
		return sysfs_emit(buf, format "\n", block_of(dev)->field);                         \
	}                                                                                          \
	static DEVICE_ATTR_RO(field)

NVRAM_ATTRIBUTE(name, "%s");
NVRAM_ATTRIBUTE(baseaddr, "0x%x");
NVRAM_ATTRIBUTE(size, "0x%x");
NVRAM_ATTRIBUTE(mode, "%s");

static struct attribute *nvram_attrs[] = {
	&dev_attr_name.attr,
	&dev_attr_baseaddr.attr,
	&dev_attr_size.attr,
	&dev_attr_mode.attr,
	NULL,
};
ATTRIBUTE_GROUPS(nvram);

static struct class nvram_class = {
	.name = "zmt_nvram",
	.dev_groups = nvram_groups,
};
static int nvram_major;

static void remove_nvram(void)
{
	for (size_t i = 0; i < ARRAY_SIZE(blocks); i++) {
		if (blocks[i].dev)
			device_destroy(&nvram_class, MKDEV(nvram_major, i));
		vfree(blocks[i].data);
	}
	class_unregister(&nvram_class);
	__unregister_chrdev(nvram_major, 0, ARRAY_SIZE(blocks), "zmt_nvram");
}

static int add_block(unsigned int number)
{
	struct nvram_block *block = &blocks[number];
	struct device *dev;

	mutex_init(&block->lock);
	block->data = vzalloc(block->size);
	if (!block->data)
		return -ENOMEM;
	dev = device_create(&nvram_class, NULL, MKDEV(nvram_major, number), block, "nvram%u",
			    number);
	if (IS_ERR(dev))
		return PTR_ERR(dev);
	block->dev = dev;
	return 0;
}

static int add_nvram(void)
{
	int error = class_register(&nvram_class);

	if (error)
		return error;
	/* Minor numbers beyond the blocks have no devices. */
	nvram_major = __register_chrdev(0, 0, ARRAY_SIZE(blocks), "zmt_nvram", &nvram_operations);
	if (nvram_major < 0) {
		class_unregister(&nvram_class);
		return nvram_major;
	}
	for (size_t i = 0; i < ARRAY_SIZE(blocks) && !error; i++)
		error = add_block(i);
	if (error)
		remove_nvram();
	return error;
}

static int __init zmt_chassis_init(void)
{
	int error = misc_register(&removal_device);

	if (error)
		return error;
	error = add_nvram();
	if (error)
		misc_deregister(&removal_device);
	return error;
}

static void __exit zmt_chassis_exit(void)
{
	if (regblock)
		unplug_regblock();
	remove_nvram();
	misc_deregister(&removal_device);
}

module_init(zmt_chassis_init);
module_exit(zmt_chassis_exit);
MODULE_DESCRIPTION("The chassis's own devices, for tests");
MODULE_LICENSE("GPL");
