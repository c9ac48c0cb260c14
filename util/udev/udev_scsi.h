// The SCSI member of the protocol table.
#pragma once

struct udev_device;
struct UdevEventNode;

const char *UDEV_ScsiGetWwnByDevice(struct udev_device *udevDev);
int UDEV_ScsiInitAddEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
void UDEV_ScsiHandleAddFinish(UdevEventNode *eventNode);
int UDEV_ScsiInitEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_ScsiCheckUdevDevIsSupport(struct udev_device *scsiDev, UdevEventNode *eventNode);
void UDEV_ScsiInitEventNodeTgtInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
