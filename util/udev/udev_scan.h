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

// For tests: the scan's own list, and the step that hands a finished batch
// over (UDEV_AddEventList unless replaced; a null fn puts it back).
UdevListHead *UDEV_GetScanListForTest();
using UdevScanHandOverFn = void (*)(UdevListHead *list);
void UDEV_SetScanHandOverForTest(UdevScanHandOverFn fn);
// For tests: the device-number index fails as if out of memory after this
// many insertions (negative: never), so that the linear fallback is run.
void UDEV_SetScanIndexBudgetForTest(int64_t insertions);
