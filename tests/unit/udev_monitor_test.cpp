// The monitor thread against a umockdev testbed: received disks become bare
// nodes on the event list, partitions never arrive, an interrupted poll is
// an idle poll, and the thread ends on the stop flag or a cancellation with
// its libudev objects released (LeakSanitizer watches the latter).
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <libudev.h>
#include <pthread.h>
#include <unistd.h>

#include "support/event_bed.h"
#include "support/pipeline_support.h"
#include "udev_event.h"
#include "udev_log.h"
#include "udev_monitor.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UDEV_ResetFlagsForTest();
        ASSERT_TRUE(UDEV_InitEventList());
        UDEV_ListInit(&taken_);
        disk_ = bed_.AddBlock("sdm", "8", "192");
        partition_ = bed_.AddBlock("sdm1", "8", "193", "partition");
    }
    void TearDown() override
    {
        UDEV_DeleteEventList(&taken_);
        UDEV_ReleaseEventList();
        UDEV_ResetFlagsForTest();
    }

    std::vector<std::string> TakenNames()
    {
        std::vector<std::string> names;
        for (UdevEventNode *node : qmtest::NodesOf(&taken_)) {
            names.emplace_back(node->udevDev != nullptr ? udev_device_get_sysname(node->udevDev) : "(none)");
        }
        return names;
    }

    qmtest::EventBed bed_;
    std::string disk_;
    std::string partition_;
    UdevListHead taken_;
};

// ---- failure paths of one poll ----

void NoteSignal(int) {}

struct PollArgs {
    int fd;
    struct udev_monitor *monitor;
    std::atomic<int> result{0};
    std::atomic<bool> done{false};
};

TEST_F(MonitorTest, InterruptedPollCountsAsIdleAndWakesTheHandleThread)
{
    struct sigaction action = {};
    action.sa_handler = NoteSignal;  // no SA_RESTART: poll returns EINTR
    struct sigaction previous = {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    UdevPtr udev(udev_new());
    UdevMonitorPtr monitor(udev_monitor_new_from_netlink(udev.get(), "udev"));
    ASSERT_TRUE(monitor);
    UDEV_AddEventList(nullptr);  // ready: a null wake-up signals
    uint64_t signals = UDEV_GetEventSignalCountForTest();

    PollArgs args;
    args.fd = pipeFds[0];  // never readable
    args.monitor = monitor.get();
    std::thread poller([&] {
        args.result.store(UDEV_WaitAndSendEvent(args.fd, args.monitor));
        args.done.store(true);
    });
    pthread_t handle = poller.native_handle();
    ASSERT_TRUE(qmtest::WaitUntil([&] {
        (void)pthread_kill(handle, SIGUSR1);
        return args.done.load();
    }));
    poller.join();

    EXPECT_EQ(args.result.load(), UDEV_RET_OK);
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signals + 1);
    EXPECT_FALSE(qmtest::TakeQueued(&taken_)) << "an idle poll queues no node";
    close(pipeFds[0]);
    close(pipeFds[1]);
    (void)sigaction(SIGUSR1, &previous, nullptr);
}

// ---- one poll that receives ----

TEST_F(MonitorTest, ReceivedDiskBecomesABareNode)
{
    UdevPtr udev(udev_new());
    struct udev_monitor *raw = nullptr;
    int fd = -1;
    bool ready = UDEV_MonitorInit(udev.get(), &raw, &fd);
    UdevMonitorPtr monitor(raw);
    ASSERT_TRUE(ready);
    ASSERT_GE(fd, 0);

    bed_.Send(disk_, "add");
    ASSERT_EQ(UDEV_WaitAndSendEvent(fd, monitor.get()), UDEV_RET_OK);

    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    std::vector<UdevEventNode *> nodes = qmtest::NodesOf(&taken_);
    ASSERT_EQ(nodes.size(), 1u);
    ASSERT_NE(nodes[0]->udevDev, nullptr);
    EXPECT_STREQ(udev_device_get_action(nodes[0]->udevDev), "add");
    EXPECT_STREQ(udev_device_get_sysname(nodes[0]->udevDev), "sdm");
    // Nothing is filled in here: the handle thread enriches.
    EXPECT_STREQ(nodes[0]->devNum, "");
    EXPECT_STREQ(nodes[0]->action, "");
    EXPECT_EQ(nodes[0]->host, -1);
}

// ---- the thread ----

class MonitorThreadTest : public MonitorTest {
protected:
    void TearDown() override
    {
        UDEV_DestoryMonitorThread();
        EXPECT_EQ(UDEV_GetMonitorThreadState(), UDEV_THREAD_STOP);
        MonitorTest::TearDown();
    }
};

TEST_F(MonitorThreadTest, QueuesDisksButNeverPartitions)
{
    ASSERT_EQ(UDEV_CreateMonitorThread(), UDEV_RET_OK);
    ASSERT_EQ(UDEV_GetMonitorThreadState(), UDEV_THREAD_RUNNING);
    bed_.Send(partition_, "add");
    bed_.Send(disk_, "add");
    bed_.Send(partition_, "change");
    bed_.Send(disk_, "remove");

    ASSERT_TRUE(qmtest::TakeAtLeast(&taken_, 2));
    EXPECT_EQ(TakenNames(), (std::vector<std::string>{"sdm", "sdm"}));
    std::vector<UdevEventNode *> nodes = qmtest::NodesOf(&taken_);
    EXPECT_STREQ(udev_device_get_action(nodes[0]->udevDev), "add");
    EXPECT_STREQ(udev_device_get_action(nodes[1]->udevDev), "remove");
}

TEST_F(MonitorThreadTest, DestroyCancelsTheThreadInItsPoll)
{
    ASSERT_EQ(UDEV_CreateMonitorThread(), UDEV_RET_OK);
    UDEV_DestoryMonitorThread();
    EXPECT_EQ(UDEV_GetMonitorThreadState(), UDEV_THREAD_STOP);
    EXPECT_TRUE(UDEV_IsStop());
}

TEST_F(MonitorThreadTest, StopFlagEndsTheLoopAtTheNextEvent)
{
    ASSERT_EQ(UDEV_CreateMonitorThread(), UDEV_RET_OK);
    UDEV_AddEventList(nullptr);
    uint64_t signals = UDEV_GetEventSignalCountForTest();
    UDEV_SetStop();
    bed_.Send(disk_, "change");

    // A normal end: the event is still queued, then the end's wake-up.
    ASSERT_TRUE(qmtest::WaitUntil([] { return UDEV_GetMonitorThreadState() == UDEV_THREAD_STOP; }));
    EXPECT_GE(UDEV_GetEventSignalCountForTest(), signals + 2);
    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    EXPECT_EQ(TakenNames(), (std::vector<std::string>{"sdm"}));
}

}  // namespace
