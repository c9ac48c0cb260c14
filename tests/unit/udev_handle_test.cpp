// The handle thread: which of the queued events reach the driver
// (supersession, retries), that the indexed walk gives exactly what the
// linear rule gives, the LVM request, and that the thread can be created
// and destroyed in every state without hanging.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "misc_ioctl.h"
#include "support/event_bed.h"
#include "support/pipeline_support.h"
#include "support/trace_capture.h"
#include "udev_event.h"
#include "udev_handle.h"
#include "udev_log.h"
#include "udev_lvm.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

using qmtest::DriverCall;
using qmtest::FakeDriver;
using qmtest::MakeNode;

std::atomic<int64_t> g_now{1'700'000'000};
int64_t TestClock()
{
    return g_now.load();
}

void NoFinish(uint32_t, UdevEventNode *) {}

DriverCall Add(const std::string &devNum, const std::string &tag = "")
{
    return {MISC_IOCTL_ADD, devNum + " nvme VENDOR PRODUCT " + tag};
}
DriverCall Remove(const std::string &devNum)
{
    return {MISC_IOCTL_REMOVE, devNum};
}
DriverCall Change(const std::string &devNum)
{
    return {MISC_IOCTL_CHANGE, devNum};
}

std::string Describe(const std::vector<DriverCall> &calls)
{
    std::ostringstream out;
    for (const DriverCall &call : calls) {
        out << qmtest::RequestName(call.request) << "(" << call.text << ") ";
    }
    return out.str();
}

class HandleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UDEV_ResetFlagsForTest();
        ASSERT_TRUE(UDEV_InitEventList());
        UDEV_SetEventClockForTest(TestClock);
        UDEV_SetAddFinishForTest(NoFinish);
        UDEV_ClearActivateLvmRequest();
    }
    void TearDown() override
    {
        UDEV_DeleteEventList(UDEV_GetWorkingList());
        UDEV_ReleaseEventList();
        UDEV_SetEventClockForTest(nullptr);
        UDEV_SetAddFinishForTest(nullptr);
        UDEV_ResetFlagsForTest();
    }

    static void Queue(UdevEventNode *node) { UDEV_ListAddTail(&node->list, UDEV_GetWorkingList()); }

    static size_t WorkingCount() { return qmtest::NodesOf(UDEV_GetWorkingList()).size(); }

    FakeDriver driver_;
};

// ---- failure paths: refused dispatches and their retries ----

TEST_F(HandleTest, RefusedEventIsKeptAndTriedAgainAfter120Seconds)
{
    qmtest::TraceCapture trace;
    driver_.Script({1030});
    Queue(MakeNode("add", "8:32", "a"));
    int64_t refusedAt = g_now.load();

    UDEV_HandleEvent();
    ASSERT_EQ(WorkingCount(), 1u);
    EXPECT_EQ(UDEV_NodeOf(UDEV_GetWorkingList()->next)->isRetry, 1);
    EXPECT_TRUE(trace.Has("add retry udev event add(8:32).\n"));

    for (int64_t later : {60, 119}) {
        g_now.store(refusedAt + later);
        UDEV_HandleEvent();
        EXPECT_EQ(driver_.CallCount(), 1u) << "tried again after only " << later << " s";
    }
    g_now.store(refusedAt + 120);
    UDEV_HandleEvent();
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Add("8:32", "a"), Add("8:32", "a")}));
    EXPECT_EQ(WorkingCount(), 0u);
}

TEST_F(HandleTest, EveryActionIsRetriedAndTheWaitRestartsOnEachRefusal)
{
    qmtest::TraceCapture trace;
    driver_.SetDefault(1030);
    Queue(MakeNode("remove", "8:48"));
    Queue(MakeNode("change", "8:64"));
    int64_t start = g_now.load();

    UDEV_HandleEvent();
    g_now.store(start + 130);
    UDEV_HandleEvent();  // refused again at +130
    g_now.store(start + 249);
    UDEV_HandleEvent();
    EXPECT_EQ(driver_.CallCount(), 4u);
    driver_.SetDefault(1024);
    g_now.store(start + 250);
    UDEV_HandleEvent();

    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Remove("8:48"), Change("8:64"), Remove("8:48"), Change("8:64"),
                                                        Remove("8:48"), Change("8:64")}));
    EXPECT_EQ(WorkingCount(), 0u);
    EXPECT_TRUE(trace.Has("add retry udev event remove(8:48).\n"));
    EXPECT_TRUE(trace.Has("add retry udev event change(8:64).\n"));
}

TEST_F(HandleTest, RefusedAddGivesWayToALaterRemove)
{
    driver_.Script({1030});
    Queue(MakeNode("add", "8:32", "a"));
    UDEV_HandleEvent();
    ASSERT_EQ(WorkingCount(), 1u);

    g_now.fetch_add(10);  // still waiting for its retry
    Queue(MakeNode("remove", "8:32"));
    UDEV_HandleEvent();

    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Add("8:32", "a"), Remove("8:32")}));
    EXPECT_EQ(WorkingCount(), 0u);
}

// ---- supersession in one batch ----

struct BatchCase {
    const char *name;
    std::vector<std::pair<const char *, const char *>> batch;  // action, devNum (tag: position)
    std::vector<DriverCall> sent;
};

class SupersessionTest : public HandleTest, public ::testing::WithParamInterface<BatchCase> {};

TEST_P(SupersessionTest, OnlyTheLastAddOrRemoveOfADeviceGoesOut)
{
    const BatchCase &c = GetParam();
    for (size_t i = 0; i < c.batch.size(); ++i) {
        Queue(MakeNode(c.batch[i].first, c.batch[i].second, std::to_string(i)));
    }
    UDEV_HandleEvent();
    EXPECT_EQ(driver_.Calls(), c.sent) << Describe(driver_.Calls());
    EXPECT_EQ(WorkingCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Batches, SupersessionTest,
    ::testing::Values(
        BatchCase{"add_then_remove", {{"add", "8:32"}, {"remove", "8:32"}}, {Remove("8:32")}},
        BatchCase{"remove_then_add", {{"remove", "8:16"}, {"add", "8:16"}}, {Add("8:16", "1")}},
        BatchCase{"change_gives_way_to_add", {{"change", "8:0"}, {"add", "8:0"}}, {Add("8:0", "1")}},
        // The add has gone out (and left the list) when the change's turn comes.
        BatchCase{"change_after_add_goes_too", {{"add", "8:0"}, {"change", "8:0"}}, {Add("8:0", "0"), Change("8:0")}},
        BatchCase{"two_changes_both_go", {{"change", "8:0"}, {"change", "8:0"}}, {Change("8:0"), Change("8:0")}},
        BatchCase{"three_adds_last_wins", {{"add", "8:0"}, {"add", "8:0"}, {"add", "8:0"}}, {Add("8:0", "2")}},
        BatchCase{"other_devices_untouched",
                  {{"add", "8:0"}, {"change", "8:16"}, {"remove", "8:0"}, {"add", "8:1"}},
                  {Change("8:16"), Remove("8:0"), Add("8:1", "3")}}),
    [](const ::testing::TestParamInfo<BatchCase> &info) { return std::string(info.param.name); });

TEST_F(HandleTest, SupersededEventIsLoggedByItsNumber)
{
    qmtest::TraceCapture trace;
    Queue(MakeNode("add", "8:32"));
    Queue(MakeNode("remove", "8:32"));
    UDEV_HandleEvent();
    EXPECT_EQ(qmtest::CountOf(trace.Text(), "find same udev event 8:32.\n"), 1u);
}

TEST_F(HandleTest, StormOfOneDeviceSendsOnlyItsLastEvent)
{
    constexpr int kEvents = 20000;
    for (int i = 0; i < kEvents; ++i) {
        Queue(MakeNode(i % 2 == 0 ? "add" : "remove", "8:0", std::to_string(i)));
    }
    Queue(MakeNode("add", "8:0", "last"));
    UDEV_HandleEvent();
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Add("8:0", "last")}));
}

TEST_F(HandleTest, StormOfManyDevicesKeepsQueueOrder)
{
    constexpr int kDevices = 5000;
    std::vector<DriverCall> expected;
    for (int i = 0; i < kDevices; ++i) {
        std::string devNum = "65:" + std::to_string(i);
        Queue(MakeNode("add", devNum.c_str()));
        Queue(MakeNode("change", devNum.c_str()));
    }
    for (int i = 0; i < kDevices; ++i) {
        std::string devNum = "65:" + std::to_string(i);
        Queue(MakeNode("remove", devNum.c_str()));
        expected.push_back(Remove(devNum));
    }
    UDEV_HandleEvent();
    EXPECT_EQ(driver_.Calls(), expected);
}

// ---- the indexed walk against the linear rule ----

// The reference: one walk over the list exactly as the linear rule reads,
// with the module's own UDEV_FindUdevEvent, retry check and dispatch.
void ReferenceWalk(UdevListHead *list)
{
    UdevListHead *next = nullptr;
    for (UdevListHead *pos = list->next; pos != list; pos = next) {
        next = pos->next;
        UdevEventNode *node = UDEV_NodeOf(pos);
        if (UDEV_FindUdevEvent(list, node)) {
            UDEV_DeleteEventNode(node);
            continue;
        }
        if (UDEV_CheckEventRetry(node)) {
            continue;
        }
        if (!UDEV_DispatchEventNode(node)) {
            UDEV_MarkEventRetry(node);
            continue;
        }
        UDEV_DeleteEventNode(node);
    }
}

struct NodeSpec {
    std::string action;
    std::string devNum;
    bool retry;
    int64_t age;
};

std::vector<std::string> Survivors(UdevListHead *list)
{
    std::vector<std::string> out;
    for (UdevEventNode *node : qmtest::NodesOf(list)) {
        out.push_back(std::string(node->action) + " " + node->devInfo + (node->isRetry == 1 ? " retry@" : " new@") +
                      std::to_string(node->retryTime));
    }
    return out;
}

TEST_F(HandleTest, IndexedWalkMatchesTheLinearRuleOnRandomLists)
{
    std::mt19937 rng(20240501);
    const char *actions[] = {"add", "remove", "change", "add", "remove", "change", "move"};
    const char *devNums[] = {"8:0", "8:16", "8:32", "259:0", "259:1"};
    const int64_t ages[] = {0, 10, 119, 120, 121, 400, -50};
    const int statuses[] = {1024, 1030, 1052, 1055, 1056, 1061, -1};
    for (int round = 0; round < 400; ++round) {
        std::vector<NodeSpec> specs(1 + rng() % 30);
        for (NodeSpec &spec : specs) {
            spec = {actions[rng() % 7], devNums[rng() % (1 + round % 5)], rng() % 3 == 0, ages[rng() % 7]};
        }
        std::vector<int> replies(specs.size());
        for (int &reply : replies) {
            reply = statuses[rng() % 7];
        }
        auto build = [&](UdevListHead *list) {
            for (size_t i = 0; i < specs.size(); ++i) {
                UdevEventNode *node = MakeNode(specs[i].action.c_str(), specs[i].devNum.c_str(), std::to_string(i));
                node->isRetry = specs[i].retry ? 1 : 0;
                node->retryTime = specs[i].retry ? g_now.load() - specs[i].age : 0;
                UDEV_ListAddTail(&node->list, list);
            }
        };

        UdevListHead reference;
        UDEV_ListInit(&reference);
        build(&reference);
        driver_.ClearCalls();
        driver_.Script(replies);
        ReferenceWalk(&reference);
        std::vector<DriverCall> expectedCalls = driver_.Calls();

        build(UDEV_GetWorkingList());
        driver_.ClearCalls();
        driver_.Script(replies);
        UDEV_HandleEvent();

        ASSERT_EQ(driver_.Calls(), expectedCalls)
            << "round " << round << ": indexed " << Describe(driver_.Calls()) << "\nlinear " << Describe(expectedCalls);
        ASSERT_EQ(Survivors(UDEV_GetWorkingList()), Survivors(&reference)) << "round " << round;
        UDEV_DeleteEventList(&reference);
        UDEV_DeleteEventList(UDEV_GetWorkingList());
    }
}

// ---- LVM activation of the product's own disks ----

const char *g_vlunMajor = nullptr;
const char *TestVlunMajor()
{
    return g_vlunMajor;
}

struct VlunCase {
    const char *name;
    const char *major;      // the disk's MAJOR
    const char *action;     // its uevent
    const char *vlunMajor;  // the driver's major (null: not readable)
    bool retry;
    bool armed;
};

class VlunAddTest : public HandleTest, public ::testing::WithParamInterface<VlunCase> {
protected:
    void SetUp() override
    {
        HandleTest::SetUp();
        UDEV_SetVlunMajorForTest(TestVlunMajor);
    }
    void TearDown() override
    {
        UDEV_SetVlunMajorForTest(nullptr);
        UDEV_ClearActivateLvmRequest();
        HandleTest::TearDown();
    }
};

TEST_P(VlunAddTest, AddOfTheDriversOwnDiskArmsTheRequest)
{
    const VlunCase &c = GetParam();
    g_vlunMajor = c.vlunMajor;
    qmtest::EventBed bed;
    std::string sysPath = bed.AddBlock("qmnva", c.major, "0");
    qmtest::EventReceiver receiver;
    bed.Send(sysPath, c.action);
    UdevDevicePtr device = receiver.Next();
    ASSERT_TRUE(device);

    UdevEventNode *node = UDEV_AllocEventNode();
    ASSERT_NE(node, nullptr);
    node->udevDev = device.release();
    node->isRetry = c.retry ? 1 : 0;
    node->retryTime = g_now.load();
    Queue(node);
    UDEV_HandleEvent();

    for (unsigned tick = 0; tick < UDEV_LVM_DUE_TICKS; ++tick) {
        UDEV_ActivateLvmTick();
    }
    EXPECT_EQ(UDEV_ActivateLvmDue(), c.armed);
    if (!c.retry) {
        // "qmnva" is neither SCSI nor NVMe: enrichment drops the node, but
        // only after the LVM check.
        EXPECT_EQ(WorkingCount(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, VlunAddTest,
    ::testing::Values(VlunCase{"driver_not_loaded", "252", "add", "", false, false},
                      VlunCase{"major_unreadable", "252", "add", nullptr, false, false},
                      VlunCase{"other_major", "8", "add", "252", false, false},
                      VlunCase{"remove_of_own_disk", "252", "remove", "252", false, false},
                      VlunCase{"change_of_own_disk", "252", "change", "252", false, false},
                      VlunCase{"retry_never_rearms", "252", "add", "252", true, false},
                      VlunCase{"add_of_own_disk", "252", "add", "252", false, true}),
    [](const ::testing::TestParamInfo<VlunCase> &info) { return std::string(info.param.name); });

// ---- the thread ----

class HandleThreadTest : public HandleTest {
protected:
    void TearDown() override
    {
        UDEV_DestoryHandleThread();
        EXPECT_EQ(UDEV_GetHandleThreadState(), UDEV_THREAD_STOP);
        HandleTest::TearDown();  // locks the event-list mutex once more
    }
};

TEST_F(HandleThreadTest, DestroyFromTheIdleWaitEndsTheThread)
{
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    EXPECT_EQ(UDEV_GetHandleThreadState(), UDEV_THREAD_RUNNING);
    UDEV_DestoryHandleThread();
    EXPECT_EQ(UDEV_GetHandleThreadState(), UDEV_THREAD_STOP);
    EXPECT_TRUE(UDEV_IsStop());
}

TEST_F(HandleThreadTest, HandsTheScanBatchToTheDriverInOrder)
{
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    UDEV_AddEventNode(MakeNode("add", "8:48", "monitor"));
    UdevListHead scan;
    UDEV_ListInit(&scan);
    UDEV_ListAddTail(&MakeNode("add", "8:0", "scan")->list, &scan);
    UDEV_ListAddTail(&MakeNode("remove", "8:32")->list, &scan);
    UDEV_AddEventList(&scan);

    ASSERT_TRUE(qmtest::WaitUntil([&] { return driver_.CallCount() >= 3; }));
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Add("8:0", "scan"), Remove("8:32"), Add("8:48", "monitor")}));
}

TEST_F(HandleThreadTest, DestroyWaitsOutADispatchInProgress)
{
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    driver_.HoldNext();
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:0", "held"));
    ASSERT_TRUE(driver_.WaitHeld());

    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        UDEV_DestoryHandleThread();
        destroyed.store(true);
    });
    // The cancellation is pending while the thread is in the driver; it
    // must not cut the dispatch short.
    ASSERT_TRUE(qmtest::WaitUntil([] { return UDEV_IsStop(); }));
    driver_.Release();
    destroyer.join();

    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(UDEV_GetHandleThreadState(), UDEV_THREAD_STOP);
    EXPECT_EQ(WorkingCount(), 0u) << "the accepted node was deleted: the walk ran to its end";
}

TEST_F(HandleThreadTest, DestroyAfterTheThreadEndedReturnsAtOnce)
{
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    UDEV_SetStop();
    UDEV_AddEventList(nullptr);
    ASSERT_TRUE(qmtest::WaitUntil([] {
        UDEV_AddEventNode(nullptr);
        return UDEV_GetHandleThreadState() == UDEV_THREAD_STOP;
    }));
}

TEST_F(HandleThreadTest, ThreadStartedAfterStopEndsAndStillCountsAsStarted)
{
    UDEV_SetStop();
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    ASSERT_TRUE(qmtest::WaitUntil([] { return UDEV_GetHandleThreadState() == UDEV_THREAD_STOP; }));
}

TEST_F(HandleThreadTest, WakeUpWithNothingQueuedStillRetries)
{
    ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    driver_.Script({1030});
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("remove", "8:0"));
    ASSERT_TRUE(qmtest::WaitUntil([&] { return driver_.CallCount() == 1; }));

    // Only wake-ups from now on: the retry comes from the working list. The
    // clock moves on with each one, so the retry is due whenever the thread
    // marked the node.
    ASSERT_TRUE(qmtest::WaitUntil([&] {
        g_now.fetch_add(121);
        UDEV_AddEventNode(nullptr);
        return driver_.CallCount() == 2;
    }));
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Remove("8:0"), Remove("8:0")}));
}

}  // namespace
