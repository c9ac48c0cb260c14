// Event records and the queue that carries them to the handle thread.
//
// Why a queue: udev events arrive on the monitor thread (and once, as a
// batch, from the start-up scan on the main thread), but only the handle
// thread may talk to the driver about them, one at a time and in order.
// Producers append to the shared event list and signal; the handle thread
// moves everything queued to its private working list in one step and
// works on that without any lock (udev_handle.cpp), so a slow ioctl or
// sysfs read never blocks the monitor.
//
// Locking: g_eventMutex is the only lock of the pipeline and nothing else
// is ever taken while it is held (so there is no lock order to keep). It
// guards g_eventList and g_eventReady. It is never held while calling
// libudev, the driver or a shell: nodes leave the list under the lock and
// are deleted (udev_device_unref) after it is dropped. Every field of a
// node that left the event list belongs to the handle thread alone.
//
// The condition variable carries no predicate: the handle thread waits on
// it unconditionally, so a signal given while it is busy is lost and the
// queued nodes wait for the next event or the next 120 s wake-up (main loop
// and idle monitor polls). That bound is the design, not an accident.
#include "udev_event.h"

#include <cstdlib>
#include <cstring>

#include <libudev.h>
#include <pthread.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_thread.h"

namespace {

pthread_mutex_t g_eventMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_eventCond = PTHREAD_COND_INITIALIZER;
UdevListHead g_eventList = {&g_eventList, &g_eventList};  // guarded by g_eventMutex
// 1 once the start-up scan handed over its batch; never goes back. Read and
// written under g_eventMutex (set to 0 by UDEV_InitEventList before any
// thread exists).
int g_eventReady = 0;

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

void UDEV_AddEventNode(UdevEventNode *node)
{
    EventListLock lock;
    if (node != nullptr) {
        UDEV_ListAddTail(&node->list, &g_eventList);
    }
    // Before the scan's batch is in, events are only queued: the devices
    // found at start-up must be handled before them.
    if (g_eventReady == 1) {
        UDEV_SignalEventList();
    }
}

void UDEV_AddEventList(UdevListHead *list)
{
    EventListLock lock;
    if (list != nullptr) {
        UDEV_ListSpliceInit(list, &g_eventList);
    }
    g_eventReady = 1;
    UDEV_SignalEventList();
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
    UDEV_ListInit(&g_eventList);
    g_eventReady = 0;
    (void)pthread_mutex_init(&g_eventMutex, nullptr);
    (void)pthread_cond_init(&g_eventCond, nullptr);
    return true;
}

// Nodes the handle thread already took are not its business: they are
// left to the end of the process (the thread may have been stopped in the
// middle of a walk).
void UDEV_ReleaseEventList()
{
    UDEV_ClearEventList();
    (void)pthread_cond_destroy(&g_eventCond);
    (void)pthread_mutex_destroy(&g_eventMutex);
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
    (void)pthread_cond_signal(&g_eventCond);
}
