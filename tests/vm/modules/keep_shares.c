// SPDX-License-Identifier: MIT
/*
 * The machine's files come through virtio devices whose driver cannot be suspended: they would be gone after the first
 * suspend. This takes all PCI devices out of it. Sound, display and CEC are no PCI devices here.
 */
#include <linux/device.h>
#include <linux/module.h>
#include <linux/pci.h>
#include <linux/virtio.h>

static int exempt_children(struct device* dev, void* unused)
{
    dev_pm_syscore_device(dev, true);
    return 0;
}

static int __init keep_init(void)
{
    struct pci_dev* device = NULL;

    for_each_pci_dev(device)
    {
        dev_pm_syscore_device(&device->dev, true);
        device_for_each_child(&device->dev, NULL, exempt_children);
    }
    return 0;
}

static void __exit keep_exit(void) {}

module_init(keep_init);
module_exit(keep_exit);
MODULE_LICENSE("Dual MIT/GPL");
MODULE_DESCRIPTION("Keeps the shared folders through a suspend");
