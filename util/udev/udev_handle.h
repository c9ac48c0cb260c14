// The handle thread: the single consumer of the event list, and the policy
// of a walk: supersession, the retry wait, dispatch to the driver and the
// time-out writes after an accepted add.
#pragma once

#include <cstdint>

struct UdevEventNode;
struct UdevListHead;

constexpr int64_t UDEV_RETRY_WAIT_SECONDS = 120;

int UDEV_CreateHandleThread();  // UDEV_RET_OK / UDEV_RET_FAIL
void UDEV_DestoryHandleThread();
void *UDEV_HandleThr(void *arg);
void UDEV_HandleEvent();  // one walk of the thread's working list
// One walk of `list`, which the caller owns as the thread owns its own.
void UDEV_HandleEventList(UdevListHead *list);

// One node with the driver: add with its devInfo (then the protocol's
// time-outs when the driver took the disk as new), remove and change with
// its devNum. True when the driver's answer counts as done for the action.
bool UDEV_DispatchEventNode(UdevEventNode *udevEvent);
// Whether another add or remove of the node's device number is on `list`.
bool UDEV_FindUdevEvent(UdevListHead *list, UdevEventNode *udevEvent);
// Whether a node whose dispatch the driver refused still waits for its
// retry (UDEV_RETRY_WAIT_SECONDS by the `time` clock).
bool UDEV_CheckEventRetry(UdevEventNode *udevEvent);
void UDEV_MarkEventRetry(UdevEventNode *eventNode);
