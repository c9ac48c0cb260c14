// Transport time-outs written to sysfs after the driver accepted a SCSI add.
#pragma once

struct udev_device;
struct UdevEventNode;

void UDEV_SetHbaTimeOut(UdevEventNode *eventNode);
void UDEV_SetFcRportTimeOut(UdevEventNode *eventNode);
void UDEV_SetIscsiSessionTimeOut(UdevEventNode *eventNode);
void UDEV_SetScsiDeviceTimeOut(UdevEventNode *eventNode);
int UDEV_SetUdevDeviceAttrVal(struct udev_device *udevDev, const char *attrName, const char *value);
