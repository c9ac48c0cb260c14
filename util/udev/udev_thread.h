// What the three worker threads share: the stop flag, the clock, run
// states, the creator's and destroyer's 100 ms x 300 wait, and cancellation
// confined to the points where a thread blocks.
#pragma once

#include <atomic>
#include <cstdint>

#include <pthread.h>

// The single stop signal of the main loop and every worker thread. Any
// thread may set it; it is never cleared while the process runs.
void UDEV_SetStop();
bool UDEV_IsStop();

// The `time` clock in seconds (the retry wait of the event pipeline).
int64_t UDEV_GetTime();

constexpr int UDEV_THREAD_INIT = 0;
constexpr int UDEV_THREAD_START = 1;
constexpr int UDEV_THREAD_RUNNING = 2;
constexpr int UDEV_THREAD_STOP = 3;

constexpr int UDEV_THREAD_WAIT_TURNS = 300;
constexpr unsigned UDEV_THREAD_WAIT_USEC = 100000;

// Looks at `state` every 100 ms, at most 301 times. Returns true as soon as
// it is UDEV_THREAD_STOP, or UDEV_THREAD_RUNNING when acceptRunning.
// Run states are published with release and read here with acquire: a
// destroyer that saw UDEV_THREAD_STOP also sees everything the thread wrote
// before (the working list, the nodes), so it may reuse or free them.
bool UDEV_WaitThreadState(const std::atomic<int> &state, bool acceptRunning);

// One worker thread as its module owns it. `state` is published by the
// thread (release) and read by anyone (acquire); `thread` and `live` are
// touched only by the creator and the destroyer, both on the main thread.
struct UdevWorker {
    std::atomic<int> state{UDEV_THREAD_INIT};
    pthread_t thread{};
    bool live = false;  // a thread we still have to cancel and detach
};

// Creates the thread on `run` (with `arg`) and waits until it runs, or has
// already ended: its end has set the stop flag, which brings the daemon
// down anyway. A thread that does not start in time is cancelled and
// detached. Failures are logged in the name of the creator `func` for the
// thread called `name`. UDEV_RET_OK once it runs, else UDEV_RET_FAIL.
int UDEV_CreateWorker(UdevWorker &worker, void *(*run)(void *), void *arg, const char *name, const char *func);

// Cancels a live worker, then (waitStop) waits for its UDEV_THREAD_STOP,
// cancelling once more when the wait times out, and detaches it: workers are
// never joined. Returns false only when the wait timed out; the worker may
// then still run, and UDEV_WorkerMayStillRun says so from then on.
bool UDEV_StopWorker(UdevWorker &worker, bool waitStop);

// True once a stop wait has timed out: a worker that was told to stop may
// still be inside a call (an ioctl the driver does not answer) and use
// whatever it was using. Read by the shutdown on the initial thread.
bool UDEV_WorkerMayStillRun();

// Worker threads run with cancellation disabled and enable it only around
// the call that blocks (condition wait, poll, sleep, system), so that a
// cancellation never lands while a list is half-linked or a lock is held.
class UdevCancelPoint {
public:
    UdevCancelPoint();
    ~UdevCancelPoint();
    UdevCancelPoint(const UdevCancelPoint &) = delete;
    UdevCancelPoint &operator=(const UdevCancelPoint &) = delete;

private:
    int previous_;
};
// Called first thing in each worker thread.
void UDEV_DisableCancel();

// Held for the whole life of a worker thread: when the thread is ended by
// cancellation (forced unwinding), its run state still reaches
// UDEV_THREAD_STOP, so the destroyer's 100 ms poll sees the end at once.
// The thread's normal end steps (log line, stop flag, wake-up) are not
// repeated here: they belong to a normal end only.
class UdevThreadStopGuard {
public:
    explicit UdevThreadStopGuard(std::atomic<int> &state) : state_(state) {}
    ~UdevThreadStopGuard() { state_.store(UDEV_THREAD_STOP, std::memory_order_release); }
    UdevThreadStopGuard(const UdevThreadStopGuard &) = delete;
    UdevThreadStopGuard &operator=(const UdevThreadStopGuard &) = delete;

private:
    std::atomic<int> &state_;
};
