// Event records and the event list: what a new node holds, how the scan's
// batch and queued monitor events are ordered, when the handle thread is
// woken, what counts as a done dispatch, supersession and the retry wait,
// and that a cancellation inside the wait leaves the list usable.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <libudev.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <umockdev.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "support/pipeline_support.h"
#include "support/trace_capture.h"
#include "udev_event.h"
#include "udev_log.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

using qmtest::DriverCall;
using qmtest::FakeDriver;
using qmtest::MakeNode;

constexpr int64_t kNow = 1'700'000'000;
int64_t FixedClock()
{
    return kNow;
}

std::atomic<int> g_finishRuns{0};
void CountFinish(uint32_t /* protocol */, UdevEventNode * /* eventNode */)
{
    g_finishRuns.fetch_add(1);
}

class EventListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UDEV_ResetFlagsForTest();
        ASSERT_TRUE(UDEV_InitEventList());
        UDEV_SetEventClockForTest(FixedClock);
        UDEV_SetAddFinishForTest(CountFinish);
        g_finishRuns.store(0);
        UDEV_ListInit(&taken_);
    }
    void TearDown() override
    {
        UDEV_DeleteEventList(&taken_);
        UDEV_DeleteEventList(UDEV_GetWorkingList());
        UDEV_ReleaseEventList();
        UDEV_SetEventClockForTest(nullptr);
        UDEV_SetAddFinishForTest(nullptr);
    }

    std::vector<std::string> TakenDevNums()
    {
        std::vector<std::string> devNums;
        for (UdevEventNode *node : qmtest::NodesOf(&taken_)) {
            devNums.emplace_back(node->devNum);
        }
        return devNums;
    }

    UdevListHead taken_;
    FakeDriver driver_;
};

// ---- failure paths first: what a refused or unknown dispatch gives ----

struct DispatchCase {
    const char *action;
    int status;  // the driver's reply; negative: the ioctl itself fails
    bool done;
    bool finish;  // the protocol's finishing step after an accepted add
};

class DispatchTest : public EventListTest, public ::testing::WithParamInterface<DispatchCase> {};

std::string DispatchName(const ::testing::TestParamInfo<DispatchCase> &info)
{
    return std::string(info.param.action) + "_" +
           (info.param.status < 0 ? std::string("ioctl_fails") : std::to_string(info.param.status));
}

TEST_P(DispatchTest, ResultSetOfTheActionDecides)
{
    const DispatchCase &c = GetParam();
    UdevEventNode *node = MakeNode(c.action, "8:32", "t");
    ASSERT_NE(node, nullptr);
    driver_.Script({c.status});

    EXPECT_EQ(UDEV_DispatchEventNode(node), c.done);
    EXPECT_EQ(g_finishRuns.load(), c.finish ? 1 : 0);
    std::vector<DriverCall> calls = driver_.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_STREQ(qmtest::RequestName(calls[0].request), c.action);
    // An add carries the device information, remove and change the number.
    EXPECT_EQ(calls[0].text, std::strcmp(c.action, "add") == 0 ? std::string(node->devInfo) : "8:32");
    // A failed dispatch leaves the node as it was: the caller marks it.
    EXPECT_EQ(node->isRetry, 0);
    UDEV_DeleteEventNode(node);
}

INSTANTIATE_TEST_SUITE_P(
    Refused, DispatchTest,
    ::testing::Values(DispatchCase{"add", 1030, false, false}, DispatchCase{"add", 1055, false, false},
                      DispatchCase{"add", 1056, false, false}, DispatchCase{"add", -1, false, false},
                      DispatchCase{"remove", 1052, false, false}, DispatchCase{"remove", 1061, false, false},
                      DispatchCase{"remove", -1, false, false}, DispatchCase{"change", 1061, false, false},
                      DispatchCase{"change", 1030, false, false}),
    DispatchName);

INSTANTIATE_TEST_SUITE_P(
    Accepted, DispatchTest,
    ::testing::Values(DispatchCase{"add", 1024, true, true}, DispatchCase{"add", 1061, true, true},
                      DispatchCase{"add", 1052, true, false}, DispatchCase{"remove", 1024, true, false},
                      DispatchCase{"remove", 1055, true, false}, DispatchCase{"remove", 1056, true, false},
                      DispatchCase{"change", 1024, true, false}, DispatchCase{"change", 1055, true, false},
                      DispatchCase{"change", 1056, true, false}),
    DispatchName);

TEST_F(EventListTest, UnknownActionIsReportedAndCountsAsDone)
{
    qmtest::TraceCapture trace;
    for (const char *action : {"move", "bind", ""}) {
        UdevEventNode *node = MakeNode(action, "8:0");
        ASSERT_NE(node, nullptr);
        EXPECT_TRUE(UDEV_DispatchEventNode(node)) << action;
        UDEV_DeleteEventNode(node);
    }
    EXPECT_EQ(driver_.CallCount(), 0u);
    EXPECT_TRUE(trace.Has("input node action{move} not support.\n"));
}

// ---- the retry wait ----

struct RetryCase {
    const char *name;
    uint8_t isRetry;
    int64_t retryTime;
    bool waiting;
};

class RetryWaitTest : public EventListTest, public ::testing::WithParamInterface<RetryCase> {};

TEST_P(RetryWaitTest, WaitsUntil120SecondsHavePassed)
{
    const RetryCase &c = GetParam();
    UdevEventNode *node = MakeNode("add", "8:0");
    ASSERT_NE(node, nullptr);
    node->isRetry = c.isRetry;
    node->retryTime = c.retryTime;
    EXPECT_EQ(UDEV_CheckEventRetry(node), c.waiting);
    UDEV_DeleteEventNode(node);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RetryWaitTest,
    ::testing::Values(RetryCase{"clock_stepped_back", 1, kNow + 30, false},
                      RetryCase{"not_marked", 0, kNow, false}, RetryCase{"marked_now", 1, kNow, true},
                      RetryCase{"after_119s", 1, kNow - 119, true}, RetryCase{"after_120s", 1, kNow - 120, false},
                      RetryCase{"long_ago", 1, 0, false}),
    [](const ::testing::TestParamInfo<RetryCase> &info) { return std::string(info.param.name); });

TEST_F(EventListTest, MarkingStampsTheClock)
{
    UdevEventNode *node = MakeNode("remove", "8:0");
    ASSERT_NE(node, nullptr);
    UDEV_MarkEventRetry(node);
    EXPECT_EQ(node->isRetry, 1);
    EXPECT_EQ(node->retryTime, kNow);
    EXPECT_TRUE(UDEV_CheckEventRetry(node));
    UDEV_DeleteEventNode(node);
}

// ---- supersession, the linear reference rule ----

struct FindCase {
    const char *name;
    std::vector<std::pair<const char *, const char *>> list;  // action, devNum
    size_t candidate;
    bool superseded;
};

class FindUdevEventTest : public EventListTest, public ::testing::WithParamInterface<FindCase> {};

TEST_P(FindUdevEventTest, OnlyAnotherAddOrRemoveOfTheSameNumberSupersedes)
{
    const FindCase &c = GetParam();
    UdevListHead list;
    UDEV_ListInit(&list);
    std::vector<UdevEventNode *> nodes;
    for (const auto &[action, devNum] : c.list) {
        nodes.push_back(MakeNode(action, devNum));
        ASSERT_NE(nodes.back(), nullptr);
        UDEV_ListAddTail(&nodes.back()->list, &list);
    }
    EXPECT_EQ(UDEV_FindUdevEvent(&list, nodes[c.candidate]), c.superseded);
    UDEV_DeleteEventList(&list);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FindUdevEventTest,
    ::testing::Values(FindCase{"alone", {{"add", "8:0"}}, 0, false},
                      FindCase{"change_gives_way_to_add", {{"change", "8:0"}, {"add", "8:0"}}, 0, true},
                      FindCase{"add_ignores_change", {{"change", "8:0"}, {"add", "8:0"}}, 1, false},
                      FindCase{"two_changes_stand", {{"change", "8:0"}, {"change", "8:0"}}, 0, false},
                      FindCase{"earlier_remove_counts", {{"remove", "8:0"}, {"add", "8:0"}}, 1, true},
                      FindCase{"later_remove_counts", {{"add", "8:32"}, {"remove", "8:32"}}, 0, true},
                      FindCase{"unknown_action_counts", {{"add", "8:0"}, {"move", "8:0"}}, 0, true},
                      FindCase{"exact_number_only", {{"add", "8:1"}, {"add", "8:10"}, {"add", "18:1"}}, 0, false}),
    [](const ::testing::TestParamInfo<FindCase> &info) { return std::string(info.param.name); });

// ---- the event list: order and wake-ups ----

TEST_F(EventListTest, WakeUpsBeforeTheScanBatchAreSilent)
{
    uint64_t signals = UDEV_GetEventSignalCountForTest();
    UDEV_AddEventNode(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:48"));
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signals) << "no wake-up before the scan handed over";

    UDEV_AddEventList(nullptr);  // even an empty hand-over marks ready and wakes
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signals + 1);
    UDEV_AddEventNode(nullptr);
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signals + 2);
    UDEV_AddEventNode(MakeNode("remove", "8:48"));
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signals + 3);

    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    EXPECT_EQ(TakenDevNums(), (std::vector<std::string>{"8:48", "8:48"})) << "a null wake-up queues nothing";
}

TEST_F(EventListTest, ScanBatchGoesInFrontOfQueuedMonitorEvents)
{
    UDEV_AddEventNode(MakeNode("add", "8:64"));
    UDEV_AddEventNode(MakeNode("remove", "8:80"));
    UdevListHead scan;
    UDEV_ListInit(&scan);
    for (const char *devNum : {"8:0", "8:16", "8:32"}) {
        UDEV_ListAddTail(&MakeNode("add", devNum)->list, &scan);
    }

    UDEV_AddEventList(&scan);

    EXPECT_TRUE(UDEV_ListEmpty(&scan));
    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    EXPECT_EQ(TakenDevNums(), (std::vector<std::string>{"8:0", "8:16", "8:32", "8:64", "8:80"}));
}

TEST_F(EventListTest, TakingAppendsBehindNodesWaitingOnTheWorkingList)
{
    UDEV_ListAddTail(&MakeNode("add", "8:0")->list, &taken_);
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:16"));
    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    EXPECT_EQ(TakenDevNums(), (std::vector<std::string>{"8:0", "8:16"}));
    EXPECT_FALSE(qmtest::TakeQueued(&taken_)) << "nothing queued any more";
}

TEST_F(EventListTest, ClearDeletesQueuedNodesWithTheirDevices)
{
    UMockdevTestbed *bed = umockdev_testbed_new();
    gchar *sysPath = umockdev_testbed_add_device(bed, "block", "sdq", nullptr, nullptr, "DEVTYPE", "disk", "MAJOR",
                                                 "65", "MINOR", "0", nullptr);
    struct udev *udev = udev_new();
    ASSERT_NE(udev, nullptr);
    UdevEventNode *node = UDEV_AllocEventNode();
    ASSERT_NE(node, nullptr);
    node->udevDev = udev_device_new_from_syspath(udev, sysPath);
    ASSERT_NE(node->udevDev, nullptr);
    UDEV_AddEventNode(node);
    UDEV_AddEventNode(MakeNode("add", "8:0"));

    UDEV_ClearEventList();

    // The node's reference was the last one on the device: the context is
    // now held only here (LeakSanitizer checks the device itself).
    EXPECT_EQ(udev_unref(udev), nullptr);
    EXPECT_FALSE(qmtest::TakeQueued(&taken_));
    g_free(sysPath);
    g_object_unref(bed);
}

// ---- cancellation inside the condition wait ----

char ThreadState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() ? text[paren + 2] : '?';
}

struct WaiterArgs {
    UdevListHead *working;
    std::atomic<pid_t> tid{0};
    std::atomic<bool> returned{false};
};

void *CancelledWaiter(void *arg)
{
    auto *args = static_cast<WaiterArgs *>(arg);
    UDEV_DisableCancel();
    args->tid.store(static_cast<pid_t>(syscall(SYS_gettid)));
    (void)UDEV_WaitAndTakeEvents(args->working);
    args->returned.store(true);
    return nullptr;
}

TEST_F(EventListTest, CancellationInsideTheWaitLeavesTheListUsable)
{
    WaiterArgs args;
    args.working = &taken_;
    pthread_t waiter;
    ASSERT_EQ(pthread_create(&waiter, nullptr, CancelledWaiter, &args), 0);
    // Best effort: cancel once the waiter sleeps in the wait. A cancel that
    // comes earlier is pending and acted on by the wait all the same.
    (void)qmtest::WaitUntil([&] { return args.tid.load() != 0 && ThreadState(args.tid.load()) == 'S'; });
    ASSERT_EQ(pthread_cancel(waiter), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(waiter, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(args.returned.load());

    // Had the cancellation left the mutex locked, each of these would block
    // for good (and the test runner's time-out would report it).
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:0"));
    ASSERT_TRUE(qmtest::TakeQueued(&taken_));
    EXPECT_EQ(TakenDevNums(), (std::vector<std::string>{"8:0"}));
    UDEV_AddEventNode(MakeNode("add", "8:16"));
    // TearDown's UDEV_ReleaseEventList locks it once more.
}

// ---- the record ----

TEST(EventNodeTest, NewNodeHoldsTheInitialValues)
{
    UdevEventNode *node = UDEV_AllocEventNode();
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->list.next, &node->list);
    EXPECT_EQ(node->list.prev, &node->list);
    EXPECT_EQ(node->isRetry, 0);
    EXPECT_EQ(node->retryTime, 0);
    EXPECT_EQ(node->udevDev, nullptr);
    EXPECT_STREQ(node->devNum, "");
    EXPECT_STREQ(node->action, "");
    EXPECT_STREQ(node->devInfo, "");
    EXPECT_EQ(node->host, -1);
    EXPECT_EQ(node->channel, -1);
    EXPECT_EQ(node->target, -1);
    EXPECT_EQ(node->lun, -1);
    EXPECT_EQ(node->transportType, 15);
    EXPECT_EQ(node->transportId, -1);
    EXPECT_EQ(node->protocol, 0u);
    UDEV_DeleteEventNode(node);
}

TEST(EventNodeTest, DeletingUnlinksFromTheMiddleOfAList)
{
    UdevListHead list;
    UDEV_ListInit(&list);
    UdevEventNode *first = MakeNode("add", "8:0");
    UdevEventNode *middle = MakeNode("add", "8:16");
    UdevEventNode *last = MakeNode("add", "8:32");
    for (UdevEventNode *node : {first, middle, last}) {
        UDEV_ListAddTail(&node->list, &list);
    }
    UDEV_DeleteEventNode(middle);
    EXPECT_EQ(qmtest::NodesOf(&list), (std::vector<UdevEventNode *>{first, last}));
    EXPECT_EQ(last->list.prev, &first->list);
    UDEV_DeleteEventList(&list);
    UDEV_DeleteEventList(nullptr);
    UDEV_DeleteEventList(&list);  // already empty: left alone
}

}  // namespace
