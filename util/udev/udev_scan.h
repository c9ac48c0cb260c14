// The start-up scan: an "add" for every disk udev has, a "remove" for every
// device number the driver holds that udev no longer has, handed to the
// front of the event list in one step.
#pragma once

#include <cstdint>

struct udev_device;
struct UdevEventNode;
struct UdevListHead;

bool UDEV_Scan();
bool UDEV_UpdatePhyDev();
void UDEV_HandBlockDevice(const char *devPath, struct udev_device *udevDev);
bool UDEV_DispatchEvent(struct udev_device *udevDev);
bool UDEV_GetDev();
void UDEV_SplitHanleDeviceNumber(char *devNumber);
UdevEventNode *UDEV_InquiryScanNode(const char *devNum, UdevListHead *headNode);
UdevEventNode *UDEV_GetEventNodeByDevNum(const char *devNum, uint32_t devNumLen, const char *actionType);

// The reconciliation against another list than the scan's own: an "add"
// node on `scanList` keeps its device number off the removes appended.
void UDEV_SplitHanleDeviceNumberInto(char *devNumber, UdevListHead *scanList);
