// The NVMe member of the protocol table.
#pragma once

struct udev_device;
struct UdevEventNode;

const char *UDEV_NvmeGetWwnByDevice(struct udev_device *udevDev);
int UDEV_NvmeInitAddEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
void UDEV_NvmeHandleAddFinish(UdevEventNode *eventNode);
int UDEV_NvmeFilterDevice(struct udev_device *udevDev);
int UDEV_NvmeInitEventNodeInfo(struct udev_device *udevDev, UdevEventNode *udevEventNode);
int UDEV_NvmeInitEventNodeManufacturer(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_NvmeInitEventNodeHctl(struct udev_device *udevDev, UdevEventNode *eventNode);
