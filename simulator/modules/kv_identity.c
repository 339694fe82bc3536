// SPDX-License-Identifier: GPL-2.0
/*
 * What a target machine says of itself: its serial number, and the temperature
 * of its processor as the first sensor of the hardware monitor.
 */
#include <linux/hwmon.h>
#include <linux/module.h>
#include <linux/platform_device.h>

static char *serial = "1000";
module_param(serial, charp, 0444);
MODULE_PARM_DESC(serial, "serial number");

static long temperature = 40000;
module_param(temperature, long, 0444);
MODULE_PARM_DESC(temperature, "of the processor, in millidegrees Celsius");

static struct platform_device *kv_machine;
static struct platform_device *kv_rttm;
static struct device *kv_sensor;

static ssize_t system_serial_show(struct device *dev, struct device_attribute *attr, char *text)
{
	return sysfs_emit(text, "%s\n", serial);
}
static DEVICE_ATTR_RO(system_serial);

static umode_t kv_is_visible(const void *data, enum hwmon_sensor_types type, u32 attr, int channel)
{
	return 0444;
}

static int kv_read(struct device *dev, enum hwmon_sensor_types type, u32 attr, int channel, long *value)
{
	*value = temperature;
	return 0;
}

static const struct hwmon_channel_info *kv_channels[] = {
	HWMON_CHANNEL_INFO(temp, HWMON_T_INPUT),
	NULL,
};

static const struct hwmon_ops kv_sensor_ops = {
	.is_visible = kv_is_visible,
	.read = kv_read,
};

static const struct hwmon_chip_info kv_chip = {
	.ops = &kv_sensor_ops,
	.info = kv_channels,
};

static int kv_add_devices(void)
{
	struct platform_device_info rttm = {
		.parent = &kv_machine->dev,
		.name = "rttm",
		.id = PLATFORM_DEVID_NONE,
	};
	int ret;

	kv_rttm = platform_device_register_full(&rttm);
	if (IS_ERR(kv_rttm))
		return PTR_ERR(kv_rttm);
	ret = device_create_file(&kv_rttm->dev, &dev_attr_system_serial);
	if (!ret) {
		kv_sensor = hwmon_device_register_with_info(&kv_machine->dev, "ember_thermal", NULL, &kv_chip,
							    NULL);
		ret = PTR_ERR_OR_ZERO(kv_sensor);
	}
	if (ret)
		platform_device_unregister(kv_rttm);
	return ret;
}

static int __init kv_identity_init(void)
{
	int ret;

	kv_machine = platform_device_register_simple("ember", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(kv_machine))
		return PTR_ERR(kv_machine);
	ret = kv_add_devices();
	if (ret)
		platform_device_unregister(kv_machine);
	return ret;
}

static void __exit kv_identity_exit(void)
{
	hwmon_device_unregister(kv_sensor);
	platform_device_unregister(kv_rttm);
	platform_device_unregister(kv_machine);
}

module_init(kv_identity_init);
module_exit(kv_identity_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Serial number and temperature of a target machine");
