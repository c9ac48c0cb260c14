// The handle thread: its indexed walk sends and keeps exactly what the
// linear supersession and retry rules do, the LVM request, and the thread's
// end from every state.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/pipeline_support.h"
#include "support/udev_support.h"
#include "udev_event.h"
#include "udev_handle.h"
#include "udev_lvm.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

using namespace qmtest;

std::atomic<int64_t> g_now{1'700'000'000};

std::string Describe(const std::vector<DriverCall> &calls)
{
    std::ostringstream out;
    for (const DriverCall &call : calls) {
        out << call.request % 256 << "(" << call.text << ") ";
    }
    return out.str();
}

class HandleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(UDEV_InitEventList());
        SetClock(g_now.load());
        UDEV_ListInit(&working_);
    }
    void TearDown() override
    {
        UDEV_DeleteEventList(&working_);
        UDEV_ReleaseEventList();
        UseRealClock();
    }
    UdevListHead working_;
    FakeDriver driver_;
};

// The reference: the walk exactly as the linear rule reads, with the
// module's own UDEV_FindUdevEvent, retry check and dispatch.
void ReferenceWalk(UdevListHead *list)
{
    UdevListHead *next = nullptr;
    for (UdevListHead *pos = list->next; pos != list; pos = next) {
        next = pos->next;
        UdevEventNode *node = UDEV_NodeOf(pos);
        if (UDEV_FindUdevEvent(list, node)) {
            UDEV_DeleteEventNode(node);
        } else if (!UDEV_CheckEventRetry(node)) {
            if (UDEV_DispatchEventNode(node)) {
                UDEV_DeleteEventNode(node);
            } else {
                UDEV_MarkEventRetry(node);
            }
        }
    }
}

std::vector<std::string> Survivors(UdevListHead *list)
{
    std::vector<std::string> out;
    for (UdevEventNode *node : NodesOf(list)) {
        out.push_back(std::string(node->action) + node->devInfo + "@" + std::to_string(node->retryTime));
    }
    return out;
}

TEST_F(HandleTest, IndexedWalkMatchesTheLinearRuleOnRandomLists)
{
    std::mt19937 rng(20240501);
    const char *actions[] = {"add", "remove", "change", "move"};
    // Short numbers, and numbers too long for std::string's inline buffer:
    // the index keys its own copies and looks up the node's text as it is.
    const char *devNums[] = {"8:0", "8:16", "259:0", "259:1", "65535:1048575", "4294967295:4294967295123456"};
    const int64_t ages[] = {0, 119, 120, 400, -50};
    const int statuses[] = {1024, 1030, 1052, 1055, 1056, 1061, -1};
    for (int round = 0; round < 500; ++round) {
        size_t count = 1 + rng() % 30;
        std::vector<int> replies(count);
        for (int &reply : replies) {
            reply = statuses[rng() % 7];
        }
        UdevListHead reference;
        UDEV_ListInit(&reference);
        for (size_t i = 0; i < count; ++i) {
            const char *action = actions[rng() % (rng() % 8 == 0 ? 4 : 3)];
            const char *devNum = devNums[rng() % (1 + round % 6)];
            bool retry = rng() % 3 == 0;
            int64_t retryTime = g_now.load() - ages[rng() % 5];
            for (UdevListHead *list : {&reference, &working_}) {
                UdevEventNode *node = MakeNode(action, devNum, std::to_string(i));
                node->isRetry = retry ? 1 : 0;
                node->retryTime = retry ? retryTime : 0;
                UDEV_ListAddTail(&node->list, list);
            }
        }
        driver_.ClearCalls();
        driver_.Script(replies);
        ReferenceWalk(&reference);
        std::vector<DriverCall> linear = driver_.Calls();
        driver_.ClearCalls();
        driver_.Script(replies);
        UDEV_HandleEventList(&working_);

        ASSERT_EQ(driver_.Calls(), linear) << "round " << round << ": " << Describe(driver_.Calls()) << "\nlinear "
                                           << Describe(linear);
        ASSERT_EQ(Survivors(&working_), Survivors(&reference)) << "round " << round;
        UDEV_DeleteEventList(&reference);
        UDEV_DeleteEventList(&working_);
    }
}

// The driver's major comes from /proc/devices (a fake one) and is kept once
// found: the rows without it come first.
TEST_F(HandleTest, AddOfTheDriversOwnDiskArmsTheLvmRequestBeforeEnrichment)
{
    const struct {
        unsigned major;
        const char *action, *vlunMajor;
        bool retry, armed;
    } cases[] = {{252, "add", "", false, false},       {8, "add", "252", false, false},
                 {252, "remove", "252", false, false}, {252, "change", "252", false, false},
                 {252, "add", "252", true, false},     {252, "add", "252", false, true}};
    FakeProcDevices proc;
    Testbed bed;
    unsigned disk = 0;
    for (const auto &c : cases) {
        UDEV_ClearActivateLvmRequest();
        proc.Set(*c.vlunMajor == '\0' ? "" : std::string(c.vlunMajor) + " quillmesh\n");
        BlockDevice qmnv = bed.AddBlock({.name = "qmnv" + std::to_string(disk), .major = c.major, .minor = disk});
        ++disk;
        UdevDevicePtr device = Event(bed, qmnv.syspath, c.action);
        ASSERT_TRUE(device);
        UdevEventNode *node = UDEV_AllocEventNode();
        node->udevDev = device.release();
        node->isRetry = c.retry ? 1 : 0;
        node->retryTime = g_now.load();
        UDEV_ListAddTail(&node->list, &working_);
        UDEV_HandleEventList(&working_);
        for (unsigned tick = 0; tick < UDEV_LVM_DUE_TICKS; ++tick) {
            UDEV_ActivateLvmTick();
        }
        EXPECT_EQ(UDEV_ActivateLvmDue(), c.armed) << c.major << " " << c.action << " retry " << c.retry;
        // "qmnv*" is neither SCSI nor NVMe: enrichment drops new nodes.
        EXPECT_EQ(NodesOf(&working_).size(), c.retry ? 1u : 0u);
        UDEV_DeleteEventList(&working_);
    }
    UDEV_ClearActivateLvmRequest();
}

class HandleThreadTest : public HandleTest {
protected:
    void SetUp() override
    {
        HandleTest::SetUp();
        ASSERT_EQ(UDEV_CreateHandleThread(), UDEV_RET_OK);
    }
    void TearDown() override
    {
        UDEV_DestoryHandleThread();
        EXPECT_FALSE(UDEV_WorkerMayStillRun()) << "the thread did not reach its end";
        EXPECT_TRUE(UDEV_IsStop());
        HandleTest::TearDown();  // locks the event-list mutex once more
    }
};

TEST_F(HandleThreadTest, DestroyWaitsOutADispatchInProgress)
{
    driver_.HoldNext();
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:0", "held"));
    ASSERT_TRUE(driver_.WaitHeld());
    std::thread destroyer(UDEV_DestoryHandleThread);
    ASSERT_TRUE(WaitUntil([] { return UDEV_IsStop(); }));  // cancel is pending now
    driver_.Release();
    destroyer.join();
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Add("8:0", "held")}));
}

TEST_F(HandleThreadTest, DestroyAfterTheThreadEndedReturns)
{
    LogCapture log;
    UDEV_SetStop();
    UDEV_AddEventList(nullptr);
    ASSERT_TRUE(WaitUntil([&] {
        UDEV_AddEventNode(nullptr);
        return log.Has("udev handle thread run failed.\n");
    }));
}

TEST_F(HandleThreadTest, WakeUpWithNothingQueuedStillRetries)
{
    driver_.Script({1030});
    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("remove", "8:0"));
    // Wake-ups only from now on; the clock moves on with each, so the retry
    // is due whenever the thread marked the node.
    ASSERT_TRUE(WaitUntil([&] {
        SetClock(g_now.fetch_add(121) + 121);
        UDEV_AddEventNode(nullptr);
        return driver_.CallCount() == 2;
    }));
    EXPECT_EQ(driver_.Calls(), (std::vector<DriverCall>{Remove("8:0"), Remove("8:0")}));
}

}  // namespace
