// The event record that carries one block-disk event through the pipeline,
// and the two lists that hold records: the shared event list (mutex,
// condition variable, ready flag) and the handle thread's working list.
#pragma once

#include <cstdint>

#include "udev_list.h"

struct udev_device;

constexpr uint32_t UDEV_DEVNUM_LEN = 32;
constexpr uint32_t UDEV_ACTION_LEN = 16;
constexpr uint32_t UDEV_DEVINFO_LEN = 128;

constexpr int32_t UDEV_TRANSPORT_FCP = 0;
constexpr int32_t UDEV_TRANSPORT_ISCSI = 5;
constexpr int32_t UDEV_TRANSPORT_UNKNOWN = 15;

constexpr int64_t UDEV_RETRY_WAIT_SECONDS = 120;

// One heap record per event, allocated whole and zero-filled. The node owns
// one reference to udevDev and drops it when it is deleted. Only the thread
// that holds the node (builder, then the handle thread) touches its fields.
struct UdevEventNode {
    UdevListHead list;  // first member: a link is the node's address
    uint8_t isRetry;
    int64_t retryTime;
    struct udev_device *udevDev;
    char devNum[UDEV_DEVNUM_LEN];
    char action[UDEV_ACTION_LEN];
    int32_t host;
    int32_t channel;
    int32_t target;
    int32_t lun;
    int32_t transportType;
    int32_t transportId;
    uint32_t protocol;
    char devInfo[UDEV_DEVINFO_LEN];
};

inline UdevEventNode *UDEV_NodeOf(UdevListHead *link)
{
    return reinterpret_cast<UdevEventNode *>(link);
}

// Records.
UdevEventNode *UDEV_AllocEventNode();
void UDEV_DeleteEventNode(UdevEventNode *eventNode);
void UDEV_DeleteEventList(UdevListHead *list);
bool UDEV_DispatchEventNode(UdevEventNode *udevEvent);
bool UDEV_FindUdevEvent(UdevListHead *list, UdevEventNode *udevEvent);
bool UDEV_CheckEventRetry(UdevEventNode *udevEvent);

// The event list. Add/AddList/Clear take the mutex for their whole work.
void UDEV_AddEventNode(UdevEventNode *node);
void UDEV_AddEventList(UdevListHead *list);
void UDEV_ClearEventList();
bool UDEV_InitEventList();
void UDEV_ReleaseEventList();

// For the handle thread: waits once, unconditionally, on the condition
// variable, then moves every queued node to the tail of the working list.
// Returns false when nothing was queued. A cancellation inside the wait
// leaves the mutex unlocked.
bool UDEV_WaitAndTakeEvents(UdevListHead *working);
// Signals the condition variable without taking the mutex (thread tear-down).
void UDEV_SignalEventList();
// The handle thread's private working list (set empty by UDEV_InitEventList).
UdevListHead *UDEV_GetWorkingList();

// Marks a node whose dispatch the driver refused: it waits on the working
// list for UDEV_RETRY_WAIT_SECONDS before it is tried again.
void UDEV_MarkEventRetry(UdevEventNode *eventNode);
// The clock of the retry rule: `time` in seconds.
int64_t UDEV_GetEventTime();

// Test seams. A null argument restores the production function.
using UdevEventClockFn = int64_t (*)();
void UDEV_SetEventClockForTest(UdevEventClockFn clock);
using UdevAddFinishFn = void (*)(uint32_t protocol, UdevEventNode *eventNode);
void UDEV_SetAddFinishForTest(UdevAddFinishFn finish);
// Number of times the event list's condition variable was signalled.
uint64_t UDEV_GetEventSignalCountForTest();
