// Transport time-outs written to sysfs after the driver accepted a SCSI add,
// and the protocol layer's libudev context they look devices up in.
#pragma once

struct udev_device;
struct UdevEventNode;

// The context lives from before the worker threads start to after they
// stopped. Without it every time-out write fails its device lookup.
bool UDEV_ProtocolInitHandle();
void UDEV_ProtocolReleaseHandle();

void UDEV_SetHbaTimeOut(UdevEventNode *eventNode);
void UDEV_SetFcRportTimeOut(UdevEventNode *eventNode);
void UDEV_SetIscsiSessionTimeOut(UdevEventNode *eventNode);
void UDEV_SetScsiDeviceTimeOut(UdevEventNode *eventNode);
int UDEV_SetUdevDeviceAttrVal(struct udev_device *udevDev, const char *attrName, const char *value);
