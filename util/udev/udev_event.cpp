// Event records and the two lists that carry them.
//
// Why a queue: udev events arrive on the monitor thread (and once, as a
// batch, from the start-up scan on the main thread), but only the handle
// thread may talk to the driver about them, one at a time and in order.
// Producers append to the shared event list and signal; the handle thread
// moves everything queued to its private working list in one step and
// works on that without any lock, so a slow ioctl or sysfs read never
// blocks the monitor.
//
// Locking: g_eventMutex is the only lock of the pipeline and nothing else
// is ever taken while it is held (so there is no lock order to keep). It
// guards g_eventList and g_eventReady. It is never held while calling
// libudev, the driver or a shell: nodes leave the list under the lock and
// are deleted (udev_device_unref) after it is dropped. The working list,
// and every field of a node once it left the event list, belong to the
// handle thread alone.
//
// The condition variable carries no predicate: the handle thread waits on
// it unconditionally, so a signal given while it is busy is lost and the
// queued nodes wait for the next event or the next 120 s wake-up (main loop
// and idle monitor polls). That bound is the design, not an accident.
#include "udev_event.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <libudev.h>
#include <pthread.h>

#include "misc_ioctl.h"
#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_log.h"
#include "udev_protocol.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

pthread_mutex_t g_eventMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_eventCond = PTHREAD_COND_INITIALIZER;
UdevListHead g_eventList = {&g_eventList, &g_eventList};  // guarded by g_eventMutex
// 1 once the start-up scan handed over its batch; never goes back. Written
// under g_eventMutex; atomic only because tests and diagnostics may look.
std::atomic<int> g_eventReady{0};
UdevListHead g_workingList = {&g_workingList, &g_workingList};  // handle thread only

std::atomic<uint64_t> g_signalCount{0};
std::atomic<UdevEventClockFn> g_eventClock{nullptr};
std::atomic<UdevAddFinishFn> g_addFinish{nullptr};

constexpr int64_t UDEV_RETRY_STILL_WAITING = UDEV_RETRY_WAIT_SECONDS - 1;

// Holds g_eventMutex for a scope. Also released when the scope is left by
// forced unwinding (cancellation inside the condition wait re-acquires the
// mutex before unwinding starts).
class EventListLock {
public:
    EventListLock() { (void)pthread_mutex_lock(&g_eventMutex); }
    ~EventListLock() { (void)pthread_mutex_unlock(&g_eventMutex); }
    EventListLock(const EventListLock &) = delete;
    EventListLock &operator=(const EventListLock &) = delete;
};

void UDEV_SignalLocked()
{
    g_signalCount.fetch_add(1, std::memory_order_relaxed);
    (void)pthread_cond_signal(&g_eventCond);
}

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
    UdevAddFinishFn finish = g_addFinish.load(std::memory_order_relaxed);
    if (finish != nullptr) {
        finish(udevEvent->protocol, udevEvent);
        return;
    }
    UDEV_ProtocolHandleAddFinish(udevEvent->protocol, udevEvent);
}

}  // namespace

UdevEventNode *UDEV_AllocEventNode()
{
    auto *eventNode = static_cast<UdevEventNode *>(std::malloc(sizeof(UdevEventNode)));
    if (eventNode == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "failed malloc UdevEventNode");
        return nullptr;
    }
    if (memset_s(eventNode, sizeof(UdevEventNode), 0, sizeof(UdevEventNode)) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "memset_s UdevEventNode failed.");
        std::free(eventNode);
        return nullptr;
    }
    UDEV_ListInit(&eventNode->list);
    eventNode->isRetry = 0;
    eventNode->retryTime = 0;
    eventNode->udevDev = nullptr;
    eventNode->host = -1;
    eventNode->channel = -1;
    eventNode->target = -1;
    eventNode->lun = -1;
    eventNode->transportType = UDEV_TRANSPORT_UNKNOWN;
    eventNode->transportId = -1;
    eventNode->protocol = 0;
    return eventNode;
}

void UDEV_DeleteEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    if (eventNode->udevDev != nullptr) {
        udev_device_unref(eventNode->udevDev);
        eventNode->udevDev = nullptr;
    }
    UDEV_ListDelInit(&eventNode->list);
    std::free(eventNode);
}

void UDEV_DeleteEventList(UdevListHead *list)
{
    if (list == nullptr) {
        return;
    }
    UdevListHead *next = nullptr;
    for (UdevListHead *pos = list->next; pos != list; pos = next) {
        next = pos->next;
        UDEV_DeleteEventNode(UDEV_NodeOf(pos));
    }
}

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

// The reference rule of supersession: a linear walk. The handle thread
// answers the same question from an index (udev_handle.cpp) and falls back
// to this walk when the index cannot be built.
bool UDEV_FindUdevEvent(UdevListHead *list, UdevEventNode *udevEvent)
{
    MPI_AssertNotNull(list);
    MPI_AssertNotNull(udevEvent);
    for (UdevListHead *pos = list->next; pos != list; pos = pos->next) {
        UdevEventNode *node = UDEV_NodeOf(pos);
        if (node == udevEvent || std::strcmp(node->action, "change") == 0) {
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
    uint64_t waited = static_cast<uint64_t>(UDEV_GetEventTime()) - static_cast<uint64_t>(udevEvent->retryTime);
    return waited <= static_cast<uint64_t>(UDEV_RETRY_STILL_WAITING);
}

void UDEV_MarkEventRetry(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    eventNode->isRetry = 1;
    eventNode->retryTime = UDEV_GetEventTime();
}

int64_t UDEV_GetEventTime()
{
    UdevEventClockFn clock = g_eventClock.load(std::memory_order_relaxed);
    return clock != nullptr ? clock() : UDEV_GetTime();
}

void UDEV_AddEventNode(UdevEventNode *node)
{
    EventListLock lock;
    if (node != nullptr) {
        UDEV_ListAddTail(&node->list, &g_eventList);
    }
    // Before the scan's batch is in, events are only queued: the devices
    // found at start-up must be handled before them.
    if (g_eventReady.load(std::memory_order_relaxed) == 1) {
        UDEV_SignalLocked();
    }
}

void UDEV_AddEventList(UdevListHead *list)
{
    EventListLock lock;
    if (list != nullptr) {
        UDEV_ListSpliceInit(list, &g_eventList);
    }
    g_eventReady.store(1, std::memory_order_relaxed);
    UDEV_SignalLocked();
}

void UDEV_ClearEventList()
{
    UdevListHead doomed = {&doomed, &doomed};
    {
        EventListLock lock;
        UDEV_ListSpliceTailInit(&g_eventList, &doomed);
    }
    UDEV_DeleteEventList(&doomed);
}

bool UDEV_InitEventList()
{
    if (!UDEV_ProtocolInitHandle()) {
        return false;
    }
    UDEV_ListInit(&g_eventList);
    UDEV_ListInit(&g_workingList);
    g_eventReady.store(0, std::memory_order_relaxed);
    (void)pthread_mutex_init(&g_eventMutex, nullptr);
    (void)pthread_cond_init(&g_eventCond, nullptr);
    return true;
}

// Nodes still on the working list are left to the end of the process: the
// handle thread may have been stopped in the middle of a walk.
void UDEV_ReleaseEventList()
{
    UDEV_ClearEventList();
    (void)pthread_cond_destroy(&g_eventCond);
    (void)pthread_mutex_destroy(&g_eventMutex);
    UDEV_ProtocolReleaseHandle();
}

bool UDEV_WaitAndTakeEvents(UdevListHead *working)
{
    EventListLock lock;
    {
        UdevCancelPoint cancelPoint;
        (void)pthread_cond_wait(&g_eventCond, &g_eventMutex);
    }
    if (UDEV_ListEmpty(&g_eventList)) {
        return false;
    }
    UDEV_ListSpliceTailInit(&g_eventList, working);
    return true;
}

void UDEV_SignalEventList()
{
    g_signalCount.fetch_add(1, std::memory_order_relaxed);
    (void)pthread_cond_signal(&g_eventCond);
}

UdevListHead *UDEV_GetWorkingList()
{
    return &g_workingList;
}

void UDEV_SetEventClockForTest(UdevEventClockFn clock)
{
    g_eventClock.store(clock, std::memory_order_relaxed);
}

void UDEV_SetAddFinishForTest(UdevAddFinishFn finish)
{
    g_addFinish.store(finish, std::memory_order_relaxed);
}

uint64_t UDEV_GetEventSignalCountForTest()
{
    return g_signalCount.load(std::memory_order_relaxed);
}
