// The handle thread: sleeps on the event list, moves what was queued to its
// private working list and walks it. It is the only thread that enriches
// nodes and the only one that talks to the driver about events, so events
// reach the driver one at a time and in queue order, and neither the
// working list nor the nodes on it need a lock (see udev_event.cpp for the
// event-list mutex, the only lock it takes). Its whole policy is here: what
// supersedes a node, what counts as a done dispatch for each action, the
// retry wait, and the time-out writes after an accepted add.
//
// One walk has two passes over the working list.
//  1. Nodes new on this walk (not marked for retry), in list order: the LVM
//     check (before enrichment, whatever becomes of the node), then
//     enrichment; a node that enrichment rejects is deleted.
//  2. The whole list in order: supersession, retry wait, dispatch, then
//     retry marking or delete.
// Both passes end at the stop flag, looked at before each node: after a
// stop at most the request already in flight completes (see
// UDEV_RunAddFinish for its time-out writes), so a long walk never outlives
// the destroyer's wait and never reaches into what the shutdown releases.
// Nodes left on the working list stay there to the end of the process.
//
// Each node keeps its own order of steps; only the interleaving across
// nodes differs from a single pass. It has to: supersession compares device
// numbers and actions, and a node that is not enriched yet has neither, so
// in a single pass the live events further down the list would be
// invisible to the nodes before them. With both passes, of several
// add/remove events for one device queued together only the last reaches
// the driver, and an add refused earlier gives way to a later remove.
//
// Pass 2 answers "does another queued add/remove carry this device
// number?" (the rule of UDEV_FindUdevEvent) from an index of surviving
// non-"change" nodes per device number that is kept up to date as nodes are
// deleted, so a storm of thousands of events in one batch costs linear time.
// If the index cannot be allocated the walk falls back to the linear rule.
#include "udev_handle.h"

#include <atomic>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <libudev.h>
#include <pthread.h>

#include "misc_ioctl.h"
#include "mpi_usr_if.h"
#include "udev_enrich.h"
#include "udev_event.h"
#include "udev_lvm.h"
#include "udev_protocol.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

UdevWorker g_handle;
UdevListHead g_workingList = {&g_workingList, &g_workingList};  // this thread's alone

constexpr int64_t UDEV_RETRY_STILL_WAITING = UDEV_RETRY_WAIT_SECONDS - 1;

bool UDEV_IsAddSuccess(int ret)
{
    return ret == UDEV_RET_OK || ret == UDEV_DRV_ADD_DONE || ret == UDEV_DRV_ADD_DONE_NOFINISH;
}

// Remove and change share one success set; it differs from add's on purpose.
bool UDEV_IsRemoveSuccess(int ret)
{
    return ret == UDEV_RET_OK || ret == UDEV_DRV_REMOVE_DONE_B || ret == UDEV_DRV_REMOVE_DONE_A;
}

void UDEV_RunAddFinish(UdevEventNode *udevEvent)
{
    // A stop that came while the add was with the driver skips the time-out
    // writes: the daemon is going down and the walk ends here.
    if (UDEV_IsStop()) {
        return;
    }
    UDEV_ProtocolHandleAddFinish(udevEvent->protocol, udevEvent);
}

bool UDEV_IsVlunAddEvent(UdevEventNode *eventNode)
{
    if (eventNode->isRetry == 1 || eventNode->udevDev == nullptr) {
        return false;
    }
    const char *major = udev_device_get_property_value(eventNode->udevDev, "MAJOR");
    if (major == nullptr) {
        return false;
    }
    const char *action = udev_device_get_action(eventNode->udevDev);
    if (action == nullptr || std::strcmp(action, "add") != 0) {
        return false;
    }
    const char *vlunMajor = UDEV_GetVlunMajorFromFile();
    return vlunMajor != nullptr && std::strcmp(vlunMajor, major) == 0;
}

// A node that makes other nodes of its device number be dropped.
bool UDEV_IsSuperseder(const UdevEventNode *eventNode)
{
    return std::strcmp(eventNode->action, "change") != 0;
}

std::string_view UDEV_DevNumOf(const UdevEventNode *eventNode)
{
    return {eventNode->devNum, strnlen(eventNode->devNum, sizeof(eventNode->devNum))};
}

// Hashes a device number given as std::string or std::string_view alike, so
// that a lookup with a node's devNum builds no std::string.
struct UdevDevNumHash {
    using is_transparent = void;
    size_t operator()(std::string_view devNum) const noexcept { return std::hash<std::string_view>{}(devNum); }
};

// Counts, per device number, the superseding nodes on the working list.
// Forget() must be called for every node deleted while the index is in use.
// Keys are owned copies (a node may be deleted while others of its device
// number are still counted); lookups take the node's text as it stands.
class SupersedeIndex {
public:
    explicit SupersedeIndex(UdevListHead *list) : list_(list) { Build(); }

    // Lookups allocate nothing and cannot fail: only Build can run out of
    // memory.
    bool IsSuperseded(UdevEventNode *eventNode)
    {
        if (!indexed_) {
            return UDEV_FindUdevEvent(list_, eventNode);
        }
        auto it = counts_.find(UDEV_DevNumOf(eventNode));
        size_t total = it == counts_.end() ? 0 : it->second;
        size_t self = UDEV_IsSuperseder(eventNode) ? 1 : 0;
        if (total <= self) {
            return false;
        }
        MPI_Log(MPI_LOG_INFO, "find same udev event %s.\n", eventNode->devNum);
        return true;
    }

    void Forget(const UdevEventNode *eventNode)
    {
        if (!indexed_ || !UDEV_IsSuperseder(eventNode)) {
            return;
        }
        auto it = counts_.find(UDEV_DevNumOf(eventNode));
        if (it != counts_.end() && it->second > 0) {
            --it->second;
        }
    }

private:
    void Build()
    {
        try {
            for (UdevListHead *pos = list_->next; pos != list_; pos = pos->next) {
                const UdevEventNode *node = UDEV_NodeOf(pos);
                if (!UDEV_IsSuperseder(node)) {
                    continue;
                }
                std::string_view devNum = UDEV_DevNumOf(node);
                auto it = counts_.find(devNum);
                if (it != counts_.end()) {
                    ++it->second;
                } else {
                    counts_.emplace(std::string(devNum), 1);
                }
            }
            indexed_ = true;
        } catch (const std::exception &) {
            DropIndex();
        }
    }

    // From here on the walk asks the linear rule, which reads the list as
    // it stands and so needs no bookkeeping.
    void DropIndex()
    {
        if (indexed_ || !counts_.empty()) {
            MPI_Log(MPI_LOG_WARN, "%s\n", "supersession index unavailable, using linear search.");
        }
        indexed_ = false;
        counts_.clear();
    }

    UdevListHead *list_;
    std::unordered_map<std::string, size_t, UdevDevNumHash, std::equal_to<>> counts_;
    bool indexed_ = false;
};

// Pass 1: LVM check and enrichment of the nodes that came with this walk.
void UDEV_PrepareNewEvents(UdevListHead *list)
{
    UdevListHead *next = nullptr;
    for (UdevListHead *pos = list->next; pos != list && !UDEV_IsStop(); pos = next) {
        next = pos->next;
        UdevEventNode *eventNode = UDEV_NodeOf(pos);
        if (eventNode->isRetry == 1) {
            continue;  // enriched on the walk that brought it
        }
        if (UDEV_IsVlunAddEvent(eventNode)) {
            MPI_Log(MPI_LOG_DEBUG, "%s.\n", "run activate lvm command");
            UDEV_RequestActivateLvm();
        }
        if (UDEV_EnrichAndFilterEventNode(eventNode) != UDEV_RET_OK) {
            UDEV_DeleteEventNode(eventNode);
        }
    }
}

// Pass 2: supersession, retry wait, dispatch, retry marking or delete.
void UDEV_DispatchWorkingList(UdevListHead *list)
{
    SupersedeIndex index(list);
    UdevListHead *next = nullptr;
    for (UdevListHead *pos = list->next; pos != list && !UDEV_IsStop(); pos = next) {
        next = pos->next;
        UdevEventNode *eventNode = UDEV_NodeOf(pos);
        if (index.IsSuperseded(eventNode)) {
            index.Forget(eventNode);
            UDEV_DeleteEventNode(eventNode);
            continue;
        }
        if (UDEV_CheckEventRetry(eventNode)) {
            continue;
        }
        if (!UDEV_DispatchEventNode(eventNode)) {
            UDEV_MarkEventRetry(eventNode);
            // "add" stands in this message for every action.
            MPI_Log(MPI_LOG_INFO, "add retry udev event %s(%s).\n", eventNode->action, eventNode->devNum);
            continue;
        }
        index.Forget(eventNode);
        UDEV_DeleteEventNode(eventNode);
    }
}

int UDEV_HandleWait()
{
    g_handle.state.store(UDEV_THREAD_RUNNING, std::memory_order_release);
    while (!UDEV_IsStop()) {
        if (!UDEV_WaitAndTakeEvents(&g_workingList)) {
            MPI_Log(MPI_LOG_DEBUG, "%s\n", "udev handle thread running......");
        }
        // Also when nothing new came: that is how nodes waiting for a retry
        // get their turn on the 120 s wake-ups.
        UDEV_HandleEvent();
    }
    return 0;
}

}  // namespace

bool UDEV_DispatchEventNode(UdevEventNode *udevEvent)
{
    MPI_AssertNotNull(udevEvent);
    if (std::strcmp(udevEvent->action, "add") == 0) {
        int ret = INTF_UTIL_MiscIoctlAdd(udevEvent->devInfo);
        // 1052 counts as done but the driver did not take the disk as new:
        // no time-outs to set.
        if (ret == UDEV_RET_OK || ret == UDEV_DRV_ADD_DONE) {
            UDEV_RunAddFinish(udevEvent);
        }
        return UDEV_IsAddSuccess(ret);
    }
    if (std::strcmp(udevEvent->action, "remove") == 0) {
        return UDEV_IsRemoveSuccess(INTF_UTIL_MiscIoctlRemove(udevEvent->devNum));
    }
    if (std::strcmp(udevEvent->action, "change") == 0) {
        return UDEV_IsRemoveSuccess(INTF_UTIL_MiscIoctlChange(udevEvent->devNum));
    }
    // Reported and counted as done, so that it is dropped and never retried.
    MPI_Log(MPI_LOG_INFO, "input node action{%s} not support.\n", udevEvent->action);
    return true;
}

// The reference rule of supersession: a linear walk. The walk answers the
// same question from an index (SupersedeIndex) and falls back to this one
// when the index cannot be built.
bool UDEV_FindUdevEvent(UdevListHead *list, UdevEventNode *udevEvent)
{
    MPI_AssertNotNull(list);
    MPI_AssertNotNull(udevEvent);
    for (UdevListHead *pos = list->next; pos != list; pos = pos->next) {
        UdevEventNode *node = UDEV_NodeOf(pos);
        if (node == udevEvent || !UDEV_IsSuperseder(node)) {
            continue;
        }
        if (std::strcmp(node->devNum, udevEvent->devNum) == 0) {
            MPI_Log(MPI_LOG_INFO, "find same udev event %s.\n", udevEvent->devNum);
            return true;
        }
    }
    return false;
}

bool UDEV_CheckEventRetry(UdevEventNode *udevEvent)
{
    MPI_AssertNotNull(udevEvent);
    if (udevEvent->isRetry != 1) {
        return false;
    }
    // Unsigned on purpose: a clock that stepped back wraps to a huge
    // difference, and the node is tried again at once.
    uint64_t waited = static_cast<uint64_t>(UDEV_GetTime()) - static_cast<uint64_t>(udevEvent->retryTime);
    return waited <= static_cast<uint64_t>(UDEV_RETRY_STILL_WAITING);
}

void UDEV_MarkEventRetry(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    eventNode->isRetry = 1;
    eventNode->retryTime = UDEV_GetTime();
}

void UDEV_HandleEventList(UdevListHead *list)
{
    MPI_AssertNotNull(list);
    UDEV_PrepareNewEvents(list);
    UDEV_DispatchWorkingList(list);
}

void UDEV_HandleEvent()
{
    UDEV_HandleEventList(&g_workingList);
}

void *UDEV_HandleThr(void * /* arg */)
{
    UDEV_DisableCancel();
    // Publishes UDEV_THREAD_STOP as the very last step, on a normal end and
    // on cancellation alike.
    UdevThreadStopGuard stopOnExit(g_handle.state);
    g_handle.state.store(UDEV_THREAD_START, std::memory_order_release);
    (void)UDEV_HandleWait();
    MPI_Log(MPI_LOG_ERROR, "%s\n", "udev handle thread run failed.");
    UDEV_SetStop();  // the daemon does not run on without its handler
    return nullptr;
}

int UDEV_CreateHandleThread()
{
    return UDEV_CreateWorker(g_handle, UDEV_HandleThr, nullptr, "qmudev handle thread", __func__);
}

// Stop flag, wake-up, then cancel at once: the thread is normally asleep in
// the condition wait, where cancellation is open. If the wake-up wins, it
// sees the stop flag after its walk and ends normally; if the cancellation
// wins, it unwinds out of the wait with the mutex released by its lock
// guard. Busy in a walk, it cannot be cancelled and ends normally after it.
// The thread is never joined: it is detached once we are done with it.
void UDEV_DestoryHandleThread()
{
    UDEV_SetStop();
    if (!g_handle.live) {
        return;
    }
    UDEV_SignalEventList();
    if (!UDEV_StopWorker(g_handle, true)) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "destory qmudev handle thread wait stop timeout.");
    }
}
