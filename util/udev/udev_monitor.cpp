// The monitor thread: the daemon's only source of live events. It listens
// on a libudev netlink monitor (source "udev", whole disks of "block"),
// wraps every received device in a bare event node and queues it; the
// handle thread does all filtering and enrichment.
//
// Ownership: this thread creates the udev context, the monitor and every
// received udev_device. The context and monitor live in UDEV_Listen's frame
// (RAII, so a cancellation inside poll releases them too); each device's
// reference is handed whole to its event node and never touched here again.
//
// Any end of this thread sets the stop flag on a normal end, and the
// destroyer sets it before cancelling: the daemon never runs on without
// its monitor.
#include "udev_monitor.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include <libudev.h>
#include <poll.h>
#include <pthread.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "udev_event.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

UdevWorker g_monitor;

}  // namespace

bool UDEV_MonitorInit(struct udev *udev, struct udev_monitor **kernelMonitor, int *monitorFd)
{
    MPI_AssertNotNull(udev);
    MPI_AssertNotNull(kernelMonitor);
    *kernelMonitor = udev_monitor_new_from_netlink(udev, "udev");
    if (*kernelMonitor == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "get udev monitor failed.");
        return false;
    }
    *monitorFd = udev_monitor_get_fd(*kernelMonitor);
    if (*monitorFd < 0) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "get udev fd failed.");
        return false;
    }
    if (udev_monitor_filter_add_match_subsystem_devtype(*kernelMonitor, "block", "disk") != 0) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "set filter udev event failed.");
        return false;
    }
    // Without it a burst of thousands of path events overflows the default
    // socket buffer and events are lost for good. Not fatal: the kernel may
    // refuse the size (no CAP_NET_ADMIN), the default still works.
    if (udev_monitor_set_receive_buffer_size(*kernelMonitor, UDEV_MONITOR_RCVBUF_SIZE) < 0) {
        MPI_Log(MPI_LOG_WARN, "set receive buffer size{%d} of udev monitor failed.\n", UDEV_MONITOR_RCVBUF_SIZE);
    }
    if (udev_monitor_enable_receiving(*kernelMonitor) < 0) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "enable receive udev event failed.");
        return false;
    }
    return true;
}

void UDEV_MonitorRelease(struct udev *udev, struct udev_monitor *kernelMonitor)
{
    if (kernelMonitor != nullptr) {
        udev_monitor_unref(kernelMonitor);
    }
    if (udev != nullptr && udev_unref(udev) != nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "udev release isn't NULL.");
    }
}

void UDEV_MonitorSendEvent(struct udev_device *udevDev)
{
    MPI_AssertNotNull(udevDev);
    UdevDevicePtr device(udevDev);
    UdevEventNodePtr eventNode(UDEV_AllocEventNode());
    if (!eventNode) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "malloc event udev failed.");
        return;
    }
    eventNode->udevDev = device.release();  // the node owns the reference now
    UDEV_AddEventNode(eventNode.release());
}

void UDEV_MonitorObtainEvent(struct udev_monitor *monitor)
{
    MPI_AssertNotNull(monitor);
    UdevDevicePtr device(udev_monitor_receive_device(monitor));
    if (!device) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "get udev event failed.");
        return;
    }
    UDEV_MonitorSendEvent(device.release());
}

int UDEV_WaitAndSendEvent(int monitorFd, struct udev_monitor *kernelMonitor)
{
    MPI_Assert(monitorFd >= 0);
    MPI_AssertNotNull(kernelMonitor);
    struct pollfd pollFd = {monitorFd, POLLIN, 0};
    int ret = 0;
    int err = 0;
    {
        UdevCancelPoint cancelPoint;
        errno = 0;
        ret = poll(&pollFd, 1, UDEV_MONITOR_POLL_MS);
        err = errno;
    }
    if (ret > 0 && (pollFd.revents & POLLIN) != 0) {
        UDEV_MonitorObtainEvent(kernelMonitor);
        return UDEV_RET_OK;
    }
    if (err != 0 && err != EINTR) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "poll func run failed.");
        return UDEV_RET_FAIL;
    }
    // Idle (time-out, a signal, or no POLLIN): wake the handle thread so
    // that nodes waiting for a retry are looked at.
    MPI_Log(MPI_LOG_DEBUG, "%s\n", "udev monitor thread running......");
    UDEV_AddEventNode(nullptr);
    return UDEV_RET_OK;
}

int UDEV_Listen()
{
    UdevPtr udev(udev_new());
    if (!udev) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "new udev failed.");
        return 0;
    }
    struct udev_monitor *rawMonitor = nullptr;
    int monitorFd = -1;
    bool ready = UDEV_MonitorInit(udev.get(), &rawMonitor, &monitorFd);
    UdevMonitorPtr kernelMonitor(rawMonitor);
    if (!ready) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "Init udev failed.");
        UDEV_MonitorRelease(udev.release(), kernelMonitor.release());
        return 0;
    }
    MPI_Log(MPI_LOG_INFO, "%s\n", "start monitor udev event.");
    g_monitor.state.store(UDEV_THREAD_RUNNING, std::memory_order_release);
    while (!UDEV_IsStop()) {
        if (UDEV_WaitAndSendEvent(monitorFd, kernelMonitor.get()) == UDEV_RET_FAIL) {
            MPI_Log(MPI_LOG_ERROR, "%s\n", "udev event monitor failed.");
            break;
        }
    }
    UDEV_MonitorRelease(udev.release(), kernelMonitor.release());
    return 0;
}

void *UDEV_MonitorThr(void * /* arg */)
{
    UDEV_DisableCancel();
    // Publishes UDEV_THREAD_STOP as the very last step, on a normal end and
    // on cancellation alike.
    UdevThreadStopGuard stopOnExit(g_monitor.state);
    g_monitor.state.store(UDEV_THREAD_START, std::memory_order_release);
    (void)UDEV_Listen();
    MPI_Log(MPI_LOG_ERROR, "%s\n", "udev event monitor thread stop running.");
    UDEV_SetStop();
    UDEV_AddEventNode(nullptr);
    return nullptr;
}

int UDEV_CreateMonitorThread()
{
    // A thread whose set-up failed has already ended (and set the stop
    // flag): that still counts as started.
    return UDEV_CreateWorker(g_monitor, UDEV_MonitorThr, nullptr, "qmudev monitor thread", __func__);
}

// The thread normally sits in poll, where cancellation is open; its RAII
// frame releases the monitor and the context on the way out and the stop
// guard publishes UDEV_THREAD_STOP. Never joined: detached when done.
void UDEV_DestoryMonitorThread()
{
    UDEV_SetStop();
    if (!UDEV_StopWorker(g_monitor, true)) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "destory qmudev monitor thread wait stop timeout.");
    }
}
