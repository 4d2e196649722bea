// SPDX-License-Identifier: GPL-2.0
/*
 * What only the chassis has, for tests in a virtual machine: a register block with an interrupt,
 * served by UIO, whose device on the bus announces its removal through "uio_maps". It stays loaded.
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
#include <linux/platform_device.h>
#include <linux/poll.h>
#include <linux/uio_driver.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>

static void raise_irq(struct work_struct *work);
static DECLARE_DELAYED_WORK(irq_timer, raise_irq);

/* Each enabling is answered by one interrupt. */
static int control_irq(struct uio_info *info, s32 enable)
{
	cancel_delayed_work_sync(&irq_timer);
	if (enable)
		schedule_delayed_work(&irq_timer, msecs_to_jiffies(40));
	return 0;
}

static struct uio_info regblock_uio = {
	.name = "zmt_regblock",
	.version = "1",
	.irq = UIO_IRQ_CUSTOM,
	.irqcontrol = control_irq,
	.mem[0] = { .memtype = UIO_MEM_VIRTUAL, .size = PAGE_SIZE },
};

static void raise_irq(struct work_struct *work)
{
	uio_event_notify(&regblock_uio);
}

static const char maps_text[] = "map0\n";
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
	.read = removal_read,
	.poll = removal_poll,
};

static struct miscdevice removal_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "zmt_removal",
	.fops = &removal_operations,
};

static struct platform_device *regblock;

static int plug_regblock(void)
{
	int error;

	announced = false;
	regblock = platform_device_register_simple("zmt_regblock", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(regblock))
		return PTR_ERR(regblock);
	error = device_create_file(&regblock->dev, &dev_attr_uio_maps);
	return error ? error : uio_register_device(&regblock->dev, &regblock_uio);
}

static void announce_removal(void)
{
	announced = true;
	wake_up_interruptible(&announcement);
	sysfs_notify(&regblock->dev.kobj, NULL, "uio_maps");
}

static int control_regblock(const char *text, const struct kernel_param *param)
{
	if (sysfs_streq(text, "plug"))
		return plug_regblock();
	announce_removal();
	if (sysfs_streq(text, "notify"))
		return 0;
	cancel_delayed_work_sync(&irq_timer);
	uio_unregister_device(&regblock_uio);
	platform_device_unregister(regblock);
	return 0;
}

static const struct kernel_param_ops regblock_control = { .set = control_regblock };
module_param_cb(regblock, &regblock_control, NULL, 0200);

static int __init zmt_chassis_init(void)
{
	u32 *window = vmalloc_user(PAGE_SIZE);

	if (!window)
		return -ENOMEM;
	*window = 0x5a4d0000;
	regblock_uio.mem[0].addr = (uintptr_t)window;
	return misc_register(&removal_device);
}
module_init(zmt_chassis_init);
MODULE_DESCRIPTION("The chassis's own register block, for tests");
MODULE_LICENSE("GPL");
