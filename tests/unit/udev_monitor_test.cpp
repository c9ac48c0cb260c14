// The monitor thread: received disks become bare nodes, partitions never
// arrive, an interrupted poll is an idle poll, the thread ends on the stop
// flag or by cancellation in its poll (LeakSanitizer checks that its libudev
// objects go), and the receive buffer holds a burst (a warning if refused).
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <libudev.h>
#include <linux/capability.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/pipeline_support.h"
#include "support/trace_capture.h"
#include "support/udev_support.h"
#include "udev_event.h"
#include "udev_monitor.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

using namespace qmtest;

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(UDEV_InitEventList());
        UDEV_ListInit(&taken_);
    }
    void TearDown() override
    {
        UDEV_DestoryMonitorThread();
        EXPECT_FALSE(UDEV_WorkerMayStillRun());
        UDEV_DeleteEventList(&taken_);
        UDEV_ReleaseEventList();
    }
    // "action name" of every node taken so far.
    std::vector<std::string> Taken()
    {
        std::vector<std::string> out;
        for (UdevEventNode *node : NodesOf(&taken_)) {
            EXPECT_STREQ(node->devNum, "") << "the monitor fills in nothing";
            out.push_back(std::string(udev_device_get_action(node->udevDev)) + " " +
                          udev_device_get_sysname(node->udevDev));
        }
        return out;
    }
    Testbed bed_;
    BlockDevice disk_ = bed_.AddLocalDisk();
    BlockDevice partition_ = bed_.AddPartition(disk_, 1);
    UdevListHead taken_;
};

void IgnoreSignal(int) {}

char TaskState(pid_t tid)
{
    std::string text = ReadFile("/proc/self/task/" + std::to_string(tid) + "/stat");
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() ? text[paren + 2] : '?';
}

TEST_F(MonitorTest, InterruptedPollIsAnIdlePollThatWakesTheHandleThread)
{
    struct sigaction action = {};
    action.sa_handler = IgnoreSignal;  // no SA_RESTART: poll fails with EINTR
    struct sigaction previous = {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    UdevPtr udev(udev_new());
    UdevMonitorPtr monitor(udev_monitor_new_from_netlink(udev.get(), "udev"));
    UDEV_AddEventList(nullptr);  // ready: a null wake-up signals
    // The handle thread's wait, asleep before the poll is interrupted: a
    // wake-up given earlier would be lost.
    std::atomic<pid_t> waiterTid{0};
    std::atomic<bool> woken{false};
    std::thread waiter([&] {
        waiterTid.store(static_cast<pid_t>(syscall(SYS_gettid)));
        (void)UDEV_WaitAndTakeEvents(&taken_);
        woken.store(true);
    });
    ASSERT_TRUE(WaitUntil([&] { return waiterTid.load() != 0 && TaskState(waiterTid.load()) == 'S'; }));

    std::atomic<int> result{0};
    std::thread poller([&] { result.store(UDEV_WaitAndSendEvent(pipeFds[0], monitor.get())); });
    pthread_t handle = poller.native_handle();
    EXPECT_TRUE(WaitUntil([&] {
        (void)pthread_kill(handle, SIGUSR1);
        return result.load() != 0;
    }));
    poller.join();
    EXPECT_EQ(result.load(), UDEV_RET_OK);
    EXPECT_TRUE(WaitUntil([&] { return woken.load(); })) << "the idle poll woke no one";
    if (!woken.load()) {
        UDEV_SignalEventList();
    }
    waiter.join();
    close(pipeFds[0]);
    close(pipeFds[1]);
    (void)sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(MonitorTest, QueuesDisksButNeverPartitions)
{
    ASSERT_EQ(UDEV_CreateMonitorThread(), UDEV_RET_OK);
    ASSERT_EQ(1u, bed_.Emit(partition_.syspath, "add"));
    ASSERT_EQ(1u, bed_.Emit(disk_.syspath, "add"));
    ASSERT_EQ(1u, bed_.Emit(partition_.syspath, "change"));
    ASSERT_EQ(1u, bed_.Emit(disk_.syspath, "remove"));
    ASSERT_TRUE(WaitUntil([&] {
        (void)TakeQueued(&taken_);
        return NodesOf(&taken_).size() >= 2;
    }));
    EXPECT_EQ(Taken(), (std::vector<std::string>{"add " + disk_.name, "remove " + disk_.name}));
    UDEV_DestoryMonitorThread();  // cancelled in its poll
    EXPECT_FALSE(UDEV_WorkerMayStillRun()) << "the thread did not reach its end";
    EXPECT_TRUE(UDEV_IsStop());
}

TEST_F(MonitorTest, StopFlagEndsTheLoopAtTheNextEvent)
{
    LogCapture log;
    ASSERT_EQ(UDEV_CreateMonitorThread(), UDEV_RET_OK);
    UDEV_AddEventList(nullptr);
    UDEV_SetStop();
    ASSERT_EQ(1u, bed_.Emit(disk_.syspath, "change"));
    // A normal end: the event is queued, then the thread says it ends.
    ASSERT_TRUE(WaitUntil([&] { return log.Has("udev event monitor thread stop running.\n"); }));
    ASSERT_TRUE(TakeQueued(&taken_));
    EXPECT_EQ(Taken(), (std::vector<std::string>{"change " + disk_.name}));
}

int ReceiveBufferOf(int fd)
{
    int size = 0;
    socklen_t len = sizeof(size);
    return getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &len) == 0 ? size : -1;
}

long RmemMax()
{
    return std::stol("0" + qmtest::ReadFile("/proc/sys/net/core/rmem_max"));
}

// Capabilities belong to a thread: only the calling thread loses it.
bool DropNetAdminOfThisThread()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    data[CAP_NET_ADMIN / 32].effective &= ~(1u << (CAP_NET_ADMIN % 32));
    return syscall(SYS_capset, &header, data) == 0;
}

// The size is above rmem_max: only CAP_NET_ADMIN gets it.
TEST_F(MonitorTest, ReceiveBufferHoldsABurstOrItsRefusalIsAWarning)
{
    int ran = 0;
    for (bool privileged : {true, false}) {
        SCOPED_TRACE(privileged ? "with CAP_NET_ADMIN" : "without CAP_NET_ADMIN");
        if (privileged ? geteuid() != 0 : RmemMax() >= UDEV_MONITOR_RCVBUF_SIZE) {
            continue;  // the case cannot be made on this host
        }
        ++ran;
        qmtest::TraceCapture trace;
        int size = -1;
        bool received = false;
        std::thread monitorThread([&] {
            UdevPtr udev(udev_new());
            struct udev_monitor *raw = nullptr;
            int fd = -1;
            bool initialised = (privileged || DropNetAdminOfThisThread()) && UDEV_MonitorInit(udev.get(), &raw, &fd);
            UdevMonitorPtr monitor(raw);
            if (initialised) {
                size = ReceiveBufferOf(fd);
                bed_.Emit(disk_.syspath, "add");
                struct pollfd pollFd = {fd, POLLIN, 0};
                received = poll(&pollFd, 1, 10000) == 1 && UdevDevicePtr(udev_monitor_receive_device(raw)) != nullptr;
            }
        });
        monitorThread.join();
        EXPECT_TRUE(received);
        // The kernel reports twice what was set, for its own bookkeeping.
        EXPECT_EQ(size >= UDEV_MONITOR_RCVBUF_SIZE, privileged) << size;
        EXPECT_EQ(trace.Has("set receive buffer size{134217728} of udev monitor failed."), !privileged);
        EXPECT_EQ(trace.Has("[WARN][UDEV  ][UDEV_MonitorInit: "), !privileged);
    }
    if (ran == 0) {
        GTEST_SKIP() << "neither privileged nor below rmem_max";
    }
}

}  // namespace
