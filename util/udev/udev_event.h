// The event record that carries one block-disk event through the pipeline,
// and the queue that carries records to the handle thread: the shared event
// list with its mutex, condition variable and ready flag.
#pragma once

#include <cstdint>
#include <memory>

#include "udev_list.h"

struct udev_device;

constexpr uint32_t UDEV_DEVNUM_LEN = 32;
constexpr uint32_t UDEV_ACTION_LEN = 16;
constexpr uint32_t UDEV_DEVINFO_LEN = 128;

constexpr int32_t UDEV_TRANSPORT_FCP = 0;
constexpr int32_t UDEV_TRANSPORT_ISCSI = 5;
constexpr int32_t UDEV_TRANSPORT_UNKNOWN = 15;

// One heap record per event, allocated whole and zero-filled. The node owns
// one reference to udevDev and drops it when it is deleted. Only the thread
// that holds the node (builder, then the handle thread) touches its fields.
// A node on no list links to itself.
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

// Owns a node that is on no list yet; whoever links it releases it.
struct UdevEventNodeDelete {
    void operator()(UdevEventNode *eventNode) const { UDEV_DeleteEventNode(eventNode); }
};
using UdevEventNodePtr = std::unique_ptr<UdevEventNode, UdevEventNodeDelete>;

// The event list. Add/AddList/Clear take the mutex for their whole work.
void UDEV_AddEventNode(UdevEventNode *node);
void UDEV_AddEventList(UdevListHead *list);
void UDEV_ClearEventList();
bool UDEV_InitEventList();
void UDEV_ReleaseEventList();

// For the handle thread: waits once, unconditionally, on the condition
// variable, then moves every queued node to the tail of `working`.
// Returns false when nothing was queued. A cancellation inside the wait
// leaves the mutex unlocked.
bool UDEV_WaitAndTakeEvents(UdevListHead *working);
// Signals the condition variable without taking the mutex (thread tear-down).
void UDEV_SignalEventList();
