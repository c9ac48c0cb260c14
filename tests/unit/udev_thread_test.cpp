// Cancellation confinement of the worker threads: a cancellation that
// arrives while a worker is busy waits for its next blocking point, is acted
// on there, and still publishes the thread's end; the creator's wait sees
// a thread that is running or already over.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include "support/pipeline_support.h"
#include "udev_thread.h"

namespace {

struct Worker {
    std::atomic<int> state{UDEV_THREAD_INIT};
    std::atomic<bool> cancelSent{false};
    std::atomic<bool> survivedBusyPart{false};
    std::atomic<bool> passedBlockingPoint{false};
};

void *ConfinedWorker(void *arg)
{
    auto *worker = static_cast<Worker *>(arg);
    UDEV_DisableCancel();
    UdevThreadStopGuard stopOnExit(worker->state);
    worker->state.store(UDEV_THREAD_RUNNING);
    while (!worker->cancelSent.load()) {
        // Busy, outside any blocking point: usleep is a cancellation point,
        // but cancellation is closed here.
        (void)usleep(1000);
    }
    (void)usleep(1000);
    worker->survivedBusyPart.store(true);
    {
        UdevCancelPoint cancelPoint;
        (void)sleep(600);
    }
    worker->passedBlockingPoint.store(true);
    return nullptr;
}

TEST(CancelPointTest, CancellationWaitsForTheBlockingPointAndPublishesTheEnd)
{
    Worker worker;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ConfinedWorker, &worker), 0);
    ASSERT_TRUE(UDEV_WaitThreadState(worker.state, true));
    ASSERT_EQ(pthread_cancel(thread), 0);
    worker.cancelSent.store(true);

    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(worker.survivedBusyPart.load());
    EXPECT_FALSE(worker.passedBlockingPoint.load());
    EXPECT_EQ(worker.state.load(), UDEV_THREAD_STOP);
}

struct WaitCase {
    int finalState;
    bool acceptRunning;
};

class WaitThreadStateTest : public ::testing::TestWithParam<WaitCase> {};

TEST_P(WaitThreadStateTest, SeesTheStateTheThreadReachesLater)
{
    std::atomic<int> state{UDEV_THREAD_INIT};
    std::thread thread([&] {
        state.store(UDEV_THREAD_START);
        (void)usleep(150000);  // so that the waiter has to sleep and look again
        state.store(GetParam().finalState);
    });
    EXPECT_TRUE(UDEV_WaitThreadState(state, GetParam().acceptRunning));
    EXPECT_EQ(state.load(), GetParam().finalState);
    thread.join();
}

INSTANTIATE_TEST_SUITE_P(Cases, WaitThreadStateTest,
                         ::testing::Values(WaitCase{UDEV_THREAD_RUNNING, true}, WaitCase{UDEV_THREAD_STOP, true},
                                           WaitCase{UDEV_THREAD_STOP, false}));

}  // namespace
