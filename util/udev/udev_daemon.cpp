// Start-up, the one-second main loop and shutdown. Everything here runs on
// the initial thread; the workers only ever touch the stop flag, which
// lives with the threads (udev_thread).
#include "udev_daemon.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_config.h"
#include "udev_event.h"
#include "udev_handle.h"
#include "udev_log.h"
#include "udev_lvm.h"
#include "udev_monitor.h"
#include "udev_qmlinux.h"
#include "udev_sanboot.h"
#include "udev_scan.h"
#include "udev_thread.h"
#include "udev_timeout.h"
#include "util_ret.h"

namespace {

constexpr int UDEV_EXIT_FAIL = 1;
constexpr int UDEV_WAKE_TURNS = 120;  // handle thread woken about every two minutes
constexpr size_t UDEV_PID_BUF_LEN = 100;
constexpr mode_t UDEV_PID_FILE_MODE = 0644;

// The single-instance lock lives as long as the process: its descriptor is
// never closed on the success path (closing any descriptor of the file
// would drop the lock), and the file is never removed.
UniqueFd g_pidLockFd;

void NotifyShutdown()
{
    (void)sd_notify(0, "STATUS=shutdown");
}

// Fills in the pid after the lock is won: truncating earlier would wipe the
// running instance's pid when a second one is refused.
bool WritePid(int fd)
{
    if (::ftruncate(fd, 0) != 0) {
        MPI_Log(MPI_LOG_WARN, "truncate pid file fail: %s\n", std::strerror(errno));
    }
    char pidText[UDEV_PID_BUF_LEN] = {};
    if (sprintf_s(pidText, sizeof(pidText), "%ld", static_cast<long>(::getpid())) == -1) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "sprintf_s failed.");
        return false;
    }
    // The terminating NUL goes into the file too; readers rely on it.
    ssize_t written = ::write(fd, pidText, std::strlen(pidText) + 1);
    (void)written;
    return true;
}

void RunMainLoop()
{
    int counter = 0;
    while (!UDEV_IsStop()) {
        ::sleep(1);
        UDEV_ActivateLvmTick();
        counter += 1;
        if (counter > UDEV_WAKE_TURNS - 1) {
            counter = 0;
            // Wakes the handle thread so that nodes parked for retry are
            // looked at again when no new event arrives.
            UDEV_AddEventNode(nullptr);
        }
        UDEV_PutReady();
    }
}

// Both locks; `func` names the entry point in the records.
bool LockPidFile(const char *path, const char *func)
{
    UniqueFd fd(::open(path, O_WRONLY | O_CREAT, UDEV_PID_FILE_MODE));
    if (!fd) {
        MPI_LogAs(func, MPI_LOG_ERROR, "can't open %s: %s\n", path, std::strerror(errno));
        std::exit(UDEV_EXIT_FAIL);
    }
    if (UDEV_LockFile(fd.get()) < 0) {
        if (errno == EACCES || errno == EAGAIN) {
            return false;  // another instance runs; it says so itself
        }
        MPI_LogAs(func, MPI_LOG_ERROR, "can't lock %s: %s\n", path, std::strerror(errno));
        std::exit(UDEV_EXIT_FAIL);
    }
    if (!WritePid(fd.get())) {
        return false;
    }
    g_pidLockFd = std::move(fd);
    return true;
}

// How far start-up got; each stage holds what the ones before it made.
enum class InitStage { MISC_OPEN, CONFIG_READ, EVENTS_READY };

// The one undo of start-up, also the release of the orderly shutdown. Not
// the reverse of the making: configuration first, then the event list and
// the protocol layer's udev context, the misc device last.
void ReleaseFrom(InitStage reached)
{
    if (reached >= InitStage::CONFIG_READ) {
        UDEV_ReleaseConfig();
    }
    if (reached >= InitStage::EVENTS_READY) {
        UDEV_ReleaseEventList();
        UDEV_ProtocolReleaseHandle();
    }
    INTF_UTIL_MiscIoctlClose();
}

// A worker whose stop wait timed out (a failed start-up's undo or the
// shutdown) may come back to anything released here: then nothing is, and
// the process ends with everything in place (UDEV_EndProcess).
void ReleaseUnlessAdrift(InitStage reached)
{
    if (UDEV_WorkerMayStillRun()) {
        MPI_Log(MPI_LOG_ERROR, "%s\n",
                "worker thread still running, configuration, event list and misc device left to the end of the process.");
        return;
    }
    ReleaseFrom(reached);
}

// The protocol layer's context first: without it the lists are not set up.
bool InitEvents()
{
    return UDEV_ProtocolInitHandle() && UDEV_InitEventList();
}

// After a shutdown that left a worker running, the process ends without
// running static destructors: they would tear down objects (the protocol
// layer's udev context) under a thread that may still use them. The status
// is the same either way.
int UDEV_EndProcess(int status)
{
    if (UDEV_WorkerMayStillRun()) {
        std::fflush(nullptr);
        std::quick_exit(status);
    }
    return status;
}

void ForkAndLeaveParent()
{
    pid_t pid = ::fork();
    if (pid < 0) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "fork failed.");
        std::exit(UDEV_EXIT_FAIL);
    }
    if (pid > 0) {
        // _exit: the child owns the stdio buffers from here on.
        ::_exit(0);
    }
}

}  // namespace

int UDEV_Main(int argc, char *argv[])
{
    if (UDEV_ProcessSanbootParameter(argc, argv) != UDEV_RET_OK) {
        return UDEV_EXIT_FAIL;
    }
    if (!UDEV_Init()) {
        NotifyShutdown();
        return UDEV_EndProcess(UDEV_EXIT_FAIL);
    }
    if (!UDEV_Scan()) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "synchronization physical device failed.");
        UDEV_SetStop();
        UDEV_Shutdown();
        return UDEV_EndProcess(UDEV_EXIT_FAIL);
    }
    RunMainLoop();
    UDEV_Shutdown();
    return UDEV_EndProcess(0);
}

bool UDEV_Init()
{
    if (UDEV_InitLog() != UDEV_RET_OK) {
        return false;
    }
    if (INTF_UTIL_MiscIoctlInit() != UDEV_RET_OK) {
        return false;
    }
    InitStage reached = InitStage::MISC_OPEN;
    bool made = UDEV_CheckRunning() && UDEV_TriggerAchieveBindInfo() && UDEV_InitConfig();
    if (made) {
        reached = InitStage::CONFIG_READ;
        // Optional: on any failure the defaults stand.
        (void)UDEV_InitQmLinuxConfig();
        made = InitEvents();
    }
    if (made) {
        reached = InitStage::EVENTS_READY;
        made = UDEV_CreateThreads() == UDEV_RET_OK;
        if (!made) {
            MPI_Log(MPI_LOG_ERROR, "%s\n", "failed to create threads");
        }
    }
    if (!made) {
        ReleaseUnlessAdrift(reached);
    }
    return made;
}

bool UDEV_CheckRunning()
{
    return LockPidFile(UDEV_PID_FILE, __func__);
}

bool UDEV_CheckRunningAt(const char *path)
{
    MPI_AssertNotNull(path);
    return LockPidFile(path, __func__);
}

int UDEV_LockFile(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return ::fcntl(fd, F_SETLK, &lock);
}

bool UDEV_TriggerAchieveBindInfo()
{
    if (INTF_UTIL_MiscIoctlStart() != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "Failed to trigger ioctl.\n");
        return false;
    }
    MPI_Log(MPI_LOG_INFO, "%s\n", "Success to trigger ioctl");
    return true;
}

int UDEV_CreateThreads()
{
    if (UDEV_CreateHandleThread() != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (UDEV_CreateMonitorThread() != UDEV_RET_OK) {
        UDEV_DestoryHandleThread();
        return UDEV_RET_FAIL;
    }
    if (UDEV_CreateActivateLvm() != UDEV_RET_OK) {
        UDEV_DestoryMonitorThread();
        UDEV_DestoryHandleThread();
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

// Not the reverse of creation: LVM first, then handle, then monitor.
void UDEV_DestroyThreads()
{
    UDEV_DestoryActivateLvm();
    UDEV_DestoryHandleThread();
    UDEV_DestoryMonitorThread();
}

// Release order: configuration, event list (its nodes, condition variable
// and mutex), the protocol layer's udev context, misc device.
// Who may touch what while a worker runs:
//  - handle thread: the vendor list and the time-out settings, the event
//    list and its lock, the protocol layer's udev context, the misc device
//    descriptor, the LVM request flags;
//  - monitor thread: the event list and its lock (appends), its own udev
//    context and monitor;
//  - LVM thread: the LVM request flags and the trace file only.
// The LVM thread is never waited for and needs nothing of what is released.
// If the wait for the handle or the monitor thread timed out, that thread
// may still be inside a call (an ioctl the driver never answers) and come
// back to any of its objects: then nothing is released (ReleaseUnlessAdrift).
void UDEV_Shutdown()
{
    UDEV_DestroyThreads();
    ReleaseUnlessAdrift(InitStage::EVENTS_READY);
    NotifyShutdown();
}

// Classic double-fork daemonising; start-up does not call it, the service
// manager keeps the daemon in the foreground.
void UDEV_SetPidBack()
{
    ForkAndLeaveParent();
    (void)::setsid();
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ignore.sa_flags = 0;
    if (::sigaction(SIGHUP, &ignore, nullptr) < 0) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "can't ignore SIGHUP");
        std::exit(UDEV_EXIT_FAIL);
    }
    ForkAndLeaveParent();
    int dirRet = ::chdir("/");
    (void)dirRet;
    mode_t previous = ::umask(077);
    (void)::umask(previous | 022);
}
