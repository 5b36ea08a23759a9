// SPDX-License-Identifier: MIT
/*
 * The part of an HDMI receiver's driver that announces what the source sends, without the receiver: what is written to
 * /sys/class/extcon/hdmirx_aud/state becomes its content and goes out as the kernel's event of that device.
 */
#include <linux/device.h>
#include <linux/kdev_t.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>

#define STATE_SIZE 256

static DEFINE_MUTEX(state_lock);
static char state_text[STATE_SIZE];
static struct class* receiver_class;
static struct device* receiver;

static ssize_t state_show(struct device* dev, struct device_attribute* attr, char* buf)
{
    ssize_t length;

    mutex_lock(&state_lock);
    length = sysfs_emit(buf, "%s", state_text);
    mutex_unlock(&state_lock);
    return length;
}

static ssize_t state_store(struct device* dev, struct device_attribute* attr, const char* buf, size_t count)
{
    char* environment[] = {"NAME=hdmirx_aud", NULL, NULL};

    if (count >= STATE_SIZE)
        return -EINVAL;
    mutex_lock(&state_lock);
    strscpy(state_text, buf, STATE_SIZE);
    environment[1] = kasprintf(GFP_KERNEL, "STATE=%s", strim(state_text));
    if (environment[1])
        kobject_uevent_env(&dev->kobj, KOBJ_CHANGE, environment);
    kfree(environment[1]);
    mutex_unlock(&state_lock);
    return count;
}
static DEVICE_ATTR_RW(state);

static int __init receiver_init(void)
{
    int error;

    receiver_class = class_create(THIS_MODULE, "extcon");
    if (IS_ERR(receiver_class))
        return PTR_ERR(receiver_class);
    receiver = device_create(receiver_class, NULL, MKDEV(0, 0), NULL, "hdmirx_aud");
    if (IS_ERR(receiver)) {
        class_destroy(receiver_class);
        return PTR_ERR(receiver);
    }
    error = device_create_file(receiver, &dev_attr_state);
    if (error) {
        device_unregister(receiver);
        class_destroy(receiver_class);
    }
    return error;
}

static void __exit receiver_exit(void)
{
    device_unregister(receiver);
    class_destroy(receiver_class);
}

module_init(receiver_init);
module_exit(receiver_exit);
MODULE_LICENSE("Dual MIT/GPL");
MODULE_DESCRIPTION("Announcements of an HDMI receiver");
