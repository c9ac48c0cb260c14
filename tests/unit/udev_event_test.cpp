// Event records and the event list, and the handle thread's rules for one
// node: what counts as a done dispatch, the retry wait, the linear
// supersession rule; and a cancellation inside the handle thread's wait. The scan batch's place in the queue is proven end
// to end (lab ScanBatch).
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/pipeline_support.h"
#include "support/udev_support.h"
#include "udev_event.h"
#include "udev_handle.h"
#include "udev_protocol.h"
#include "udev_thread.h"

namespace {

using namespace qmtest;

constexpr int64_t kNow = 1'700'000'000;

class EventListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(UDEV_InitEventList());
        SetClock(kNow);
        UDEV_ListInit(&taken_);
    }
    void TearDown() override
    {
        UDEV_DeleteEventList(&taken_);
        UDEV_ReleaseEventList();  // would hang on a mutex left locked
        UseRealClock();
    }
    std::vector<std::string> Taken()
    {
        std::vector<std::string> devNums;
        for (UdevEventNode *node : NodesOf(&taken_)) {
            devNums.emplace_back(node->devNum);
        }
        return devNums;
    }
    UdevListHead taken_;
    FakeDriver driver_;
};

TEST_F(EventListTest, DispatchIsDoneForTheActionsSuccessSet)
{
    const struct {
        const char *action;
        int status;  // the driver's reply; -1: the ioctl itself fails
        bool done;
        bool finish;  // the SCSI time-outs were looked for
    } cases[] = {
        {"add", 1030, false, false},    {"add", 1055, false, false},    {"add", 1056, false, false},
        {"add", -1, false, false},      {"add", 1024, true, true},      {"add", 1061, true, true},
        {"add", 1052, true, false},     {"remove", 1052, false, false}, {"remove", 1061, false, false},
        {"remove", 1024, true, false},  {"remove", 1055, true, false},  {"remove", 1056, true, false},
        {"change", 1052, false, false}, {"change", 1061, false, false}, {"change", -1, false, false},
        {"change", 1024, true, false},  {"change", 1055, true, false},  {"change", 1056, true, false},
        {"move", 1030, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.action) + " " + std::to_string(c.status));
        driver_.ClearCalls();
        driver_.Script({c.status});
        UdevEventNode *node = MakeNode(c.action, "8:32", "t");
        // A SCSI disk: its finishing step looks up the device whose
        // time-out it sets, and without the protocol layer's context says
        // that it found none.
        node->protocol = UDEV_PROTOCOL_SCSI;
        LogCapture log;
        EXPECT_EQ(UDEV_DispatchEventNode(node), c.done);
        EXPECT_EQ(log.Contains("get udev device fail."), c.finish);
        std::string action = c.action;
        std::vector<DriverCall> expected = {action == "add"      ? Add("8:32", "t")
                                            : action == "remove" ? Remove("8:32")
                                                                 : Change("8:32")};
        EXPECT_EQ(driver_.Calls(), action == "move" ? std::vector<DriverCall>{} : expected);
        UDEV_DeleteEventNode(node);
    }
}

TEST_F(EventListTest, RetryWaitIs120SecondsOnAnUnsignedDifference)
{
    const struct {
        uint8_t isRetry;
        int64_t retryTime;
        bool waiting;
    } cases[] = {{1, kNow + 30, false} /* clock stepped back */, {0, kNow, false}, {1, kNow, true},
                 {1, kNow - 119, true}, {1, kNow - 120, false}};
    UdevEventNode *node = MakeNode("add", "8:0");
    for (const auto &c : cases) {
        node->isRetry = c.isRetry;
        node->retryTime = c.retryTime;
        EXPECT_EQ(UDEV_CheckEventRetry(node), c.waiting) << "retry " << int(c.isRetry) << " at now" << c.retryTime - kNow;
    }
    UDEV_MarkEventRetry(node);
    EXPECT_EQ(node->retryTime, kNow);
    UDEV_DeleteEventNode(node);
}

TEST_F(EventListTest, OnlyAnotherAddOrRemoveOfTheSameNumberSupersedes)
{
    const struct {
        std::vector<std::pair<const char *, const char *>> list;
        size_t candidate;
        bool superseded;
    } cases[] = {{{{"add", "8:0"}}, 0, false},
                 {{{"change", "8:0"}, {"add", "8:0"}}, 0, true},
                 {{{"change", "8:0"}, {"add", "8:0"}}, 1, false},
                 {{{"change", "8:0"}, {"change", "8:0"}}, 0, false},
                 {{{"remove", "8:0"}, {"add", "8:0"}}, 1, true},
                 {{{"add", "8:1"}, {"add", "8:10"}, {"add", "18:1"}}, 0, false}};
    for (const auto &c : cases) {
        UdevListHead list;
        UDEV_ListInit(&list);
        for (const auto &[action, devNum] : c.list) {
            UDEV_ListAddTail(&MakeNode(action, devNum)->list, &list);
        }
        EXPECT_EQ(UDEV_FindUdevEvent(&list, NodesOf(&list)[c.candidate]), c.superseded) << c.list.size();
        UDEV_DeleteEventList(&list);
    }
}

char TaskState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() ? text[paren + 2] : '?';
}

std::atomic<pid_t> g_waiterTid{0};
void *Waiter(void *working)
{
    UDEV_DisableCancel();
    g_waiterTid.store(static_cast<pid_t>(syscall(SYS_gettid)));
    (void)UDEV_WaitAndTakeEvents(static_cast<UdevListHead *>(working));
    return working;
}

TEST_F(EventListTest, CancellationInsideTheWaitLeavesTheListUsable)
{
    g_waiterTid.store(0);
    pthread_t waiter;
    ASSERT_EQ(pthread_create(&waiter, nullptr, Waiter, &taken_), 0);
    // Best effort to cancel while it sleeps; an earlier cancel is pending
    // and acted on by the wait all the same.
    (void)WaitUntil([] { return g_waiterTid.load() != 0 && TaskState(g_waiterTid.load()) == 'S'; });
    ASSERT_EQ(pthread_cancel(waiter), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(waiter, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);

    UDEV_AddEventList(nullptr);
    UDEV_AddEventNode(MakeNode("add", "8:0"));
    ASSERT_TRUE(TakeQueued(&taken_));
    EXPECT_EQ(Taken(), (std::vector<std::string>{"8:0"}));
}

}  // namespace
