// Run-state polling and cancellation confinement shared by the handle,
// monitor and LVM activation threads.
//
// Why cancellation is confined: the destroyers cancel a thread right after
// asking it to stop. With deferred cancellation left on, any libc call that
// is a cancellation point (fopen inside a log line, popen, ioctl on some
// libcs) could end a thread in the middle of a dispatch, with a node
// half-unlinked or the event-list mutex held. So every worker disables
// cancellation first thing and opens it only around the one call it blocks
// in (condition wait, poll, sleep, system). glibc acts on a cancellation by
// forced unwinding, so the destructors of the frames above the blocking call
// run: the event-list lock guard unlocks the mutex, the monitor's udev
// context and monitor are dropped, and UdevThreadStopGuard publishes
// UDEV_THREAD_STOP. For the same reason no function on such a path is
// noexcept and none swallows the unwind with catch (...).
#include "udev_thread.h"

#include <cstring>
#include <ctime>

#include <pthread.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "util_ret.h"

namespace {

// Only ever goes from 0 to 1; a relaxed atomic so that the threads' reads
// are defined.
std::atomic<int> g_stopFlag{0};

// Set by the initial thread only (the destroyers), read by it too.
bool g_workerAdrift = false;

enum class UdevStartResult { STARTED, CREATE_FAILED, START_TIMEOUT };

UdevStartResult StartWorker(UdevWorker &worker, void *(*run)(void *), void *arg, int *err)
{
    worker.state.store(UDEV_THREAD_INIT, std::memory_order_relaxed);
    *err = pthread_create(&worker.thread, nullptr, run, arg);
    if (*err != 0) {
        return UdevStartResult::CREATE_FAILED;
    }
    worker.live = true;
    if (UDEV_WaitThreadState(worker.state, true)) {
        return UdevStartResult::STARTED;
    }
    (void)pthread_cancel(worker.thread);
    (void)pthread_detach(worker.thread);
    worker.live = false;
    return UdevStartResult::START_TIMEOUT;
}

}  // namespace

void UDEV_SetStop()
{
    g_stopFlag.store(1, std::memory_order_relaxed);
}

bool UDEV_IsStop()
{
    return g_stopFlag.load(std::memory_order_relaxed) != 0;
}

int64_t UDEV_GetTime()
{
    return static_cast<int64_t>(time(nullptr));
}

bool UDEV_WaitThreadState(const std::atomic<int> &state, bool acceptRunning)
{
    // One look, then up to UDEV_THREAD_WAIT_TURNS sleeps of 100 ms each
    // followed by a look: at most 301 looks, about 30 s.
    for (int count = 0;; ++count) {
        int current = state.load(std::memory_order_acquire);
        if (current == UDEV_THREAD_STOP || (acceptRunning && current == UDEV_THREAD_RUNNING)) {
            return true;
        }
        if (count >= UDEV_THREAD_WAIT_TURNS) {
            return false;
        }
        (void)usleep(UDEV_THREAD_WAIT_USEC);
    }
}

UdevCancelPoint::UdevCancelPoint() : previous_(PTHREAD_CANCEL_DISABLE)
{
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous_);
}

UdevCancelPoint::~UdevCancelPoint()
{
    (void)pthread_setcancelstate(previous_, nullptr);
}

void UDEV_DisableCancel()
{
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

int UDEV_CreateWorker(UdevWorker &worker, void *(*run)(void *), void *arg, const char *name, const char *func)
{
    int err = 0;
    switch (StartWorker(worker, run, arg, &err)) {
        case UdevStartResult::STARTED:
            return UDEV_RET_OK;
        case UdevStartResult::CREATE_FAILED:
            MPI_LogAs(func, MPI_LOG_ERROR, "failed to create %s: %s\n", name, strerror(err));
            return UDEV_RET_FAIL;
        case UdevStartResult::START_TIMEOUT:
            break;
    }
    MPI_LogAs(func, MPI_LOG_ERROR, "create %s success but wait run timeout.\n", name);
    return UDEV_RET_FAIL;
}

bool UDEV_StopWorker(UdevWorker &worker, bool waitStop)
{
    if (!worker.live) {
        return true;
    }
    (void)pthread_cancel(worker.thread);
    bool stopped = !waitStop || UDEV_WaitThreadState(worker.state, false);
    if (!stopped) {
        (void)pthread_cancel(worker.thread);
        g_workerAdrift = true;
    }
    (void)pthread_detach(worker.thread);
    worker.live = false;
    return stopped;
}

bool UDEV_WorkerMayStillRun()
{
    return g_workerAdrift;
}
