// LVM activation: the five-tick debounce, the bounded retry with its
// counter that a success does not reset, and the thread's start and end.
// The activation command is replaced by harmless shell commands.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <unistd.h>

#include "support/pipeline_support.h"
#include "support/trace_capture.h"
#include "udev_log.h"
#include "udev_lvm.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

constexpr const char *kFails = "exit 3";
constexpr const char *kSucceeds = "exit 0";

class LvmTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UDEV_ResetFlagsForTest();
        UDEV_ClearActivateLvmRequest();
        UDEV_SetLvmCommandForTest(kFails);
    }
    void TearDown() override
    {
        UDEV_ClearActivateLvmRequest();
        UDEV_SetLvmCommandForTest(nullptr);
        UDEV_ResetFlagsForTest();
    }

    static void Ticks(unsigned count)
    {
        for (unsigned i = 0; i < count; ++i) {
            UDEV_ActivateLvmTick();
        }
    }

    // `turns` main-loop turns, each followed by one check of the LVM
    // thread; returns how many times the command ran.
    static int Turns(int turns, int *retryCount)
    {
        int runs = 0;
        for (int turn = 0; turn < turns; ++turn) {
            UDEV_ActivateLvmTick();
            runs += UDEV_ActivateLvmCheck(retryCount) ? 1 : 0;
        }
        return runs;
    }
};

// ---- failure paths: the bounded retry ----

TEST_F(LvmTest, FailingCommandRunsSixTimesThenGivesUpOnce)
{
    qmtest::TraceCapture trace;
    int retryCount = 0;
    UDEV_RequestActivateLvm();
    EXPECT_EQ(Turns(100, &retryCount), 6);
    EXPECT_EQ(retryCount, 0);
    EXPECT_FALSE(UDEV_ActivateLvmDue());
    EXPECT_EQ(qmtest::CountOf(trace.Text(), "the maximum number of retries has been reached.\n"), 1u);
    EXPECT_EQ(qmtest::CountOf(trace.Text(), "run command{exit 3} failed.\n"), 6u);
}

struct RetryStep {
    const char *command;
    bool newRequest;     // the handle thread arms a new request first
    int retryAfter;      // the thread's counter after the run
    bool rearmedAfter;   // a request stands after the run
};

TEST_F(LvmTest, RetryCounterSurvivesASuccess)
{
    // Two failures, a success, then a new request failing four times: the
    // sixth failure since the last reset gives up.
    const std::vector<RetryStep> steps = {
        {kFails, true, 1, true},      {kFails, false, 2, true},  {kSucceeds, false, 2, false},
        {kFails, true, 3, true},      {kFails, false, 4, true},  {kFails, false, 5, true},
        {kFails, false, 0, false},
    };
    int retryCount = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        const RetryStep &step = steps[i];
        UDEV_SetLvmCommandForTest(step.command);
        if (step.newRequest) {
            UDEV_RequestActivateLvm();
        }
        Ticks(UDEV_LVM_DUE_TICKS);
        ASSERT_TRUE(UDEV_ActivateLvmCheck(&retryCount)) << "step " << i;
        EXPECT_EQ(retryCount, step.retryAfter) << "step " << i;
        Ticks(UDEV_LVM_DUE_TICKS);
        EXPECT_EQ(UDEV_ActivateLvmDue(), step.rearmedAfter) << "step " << i;
    }
}

TEST_F(LvmTest, SuccessfulCommandRunsOnce)
{
    UDEV_SetLvmCommandForTest(kSucceeds);
    int retryCount = 0;
    UDEV_RequestActivateLvm();
    EXPECT_EQ(Turns(100, &retryCount), 1);
    EXPECT_EQ(retryCount, 0);
}

// ---- the debounce ----

struct DebounceCase {
    const char *name;
    std::vector<char> script;  // 'r' request, 't' tick, 'c' clear
    bool due;
};

class LvmDebounceTest : public LvmTest, public ::testing::WithParamInterface<DebounceCase> {};

TEST_P(LvmDebounceTest, DueFiveTicksAfterTheLastRequest)
{
    for (char op : GetParam().script) {
        if (op == 'r') {
            UDEV_RequestActivateLvm();
        } else if (op == 't') {
            UDEV_ActivateLvmTick();
        } else {
            UDEV_ClearActivateLvmRequest();
        }
    }
    EXPECT_EQ(UDEV_ActivateLvmDue(), GetParam().due);
    int retryCount = 0;
    EXPECT_EQ(UDEV_ActivateLvmCheck(&retryCount), GetParam().due) << "the command runs exactly when due";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LvmDebounceTest,
    ::testing::Values(DebounceCase{"no_request", {'t', 't', 't', 't', 't', 't'}, false},
                      DebounceCase{"four_ticks", {'r', 't', 't', 't', 't'}, false},
                      DebounceCase{"five_ticks", {'r', 't', 't', 't', 't', 't'}, true},
                      DebounceCase{"ticks_before_request_do_not_count", {'t', 't', 't', 'r', 't', 't'}, false},
                      DebounceCase{"new_request_restarts", {'r', 't', 't', 't', 't', 'r', 't', 't', 't', 't'}, false},
                      DebounceCase{"due_after_last_of_burst", {'r', 't', 't', 'r', 't', 't', 't', 't', 't'}, true},
                      DebounceCase{"cleared", {'r', 't', 't', 't', 't', 't', 'c'}, false},
                      DebounceCase{"stays_due", {'r', 't', 't', 't', 't', 't', 't', 't', 't'}, true}),
    [](const ::testing::TestParamInfo<DebounceCase> &info) { return std::string(info.param.name); });

// ---- the thread ----

class LvmThreadTest : public LvmTest {
protected:
    void TearDown() override
    {
        UDEV_DestoryActivateLvm();
        // No wait in the destroyer; the test waits for the end it caused.
        EXPECT_TRUE(qmtest::WaitUntil([] { return UDEV_GetActivateLvmState() == UDEV_THREAD_STOP; }));
        EXPECT_TRUE(UDEV_IsStop());
        LvmTest::TearDown();
    }
    qmtest::TempDir dir_;
};

TEST_F(LvmThreadTest, RunsTheCommandWhenDueAndEndsOnDestroy)
{
    std::string runs = dir_.File("runs");
    std::string command = "echo run >> " + runs;
    UDEV_SetLvmCommandForTest(command.c_str());
    ASSERT_EQ(UDEV_CreateActivateLvm(), UDEV_RET_OK);
    EXPECT_EQ(UDEV_GetActivateLvmState(), UDEV_THREAD_RUNNING);

    UDEV_RequestActivateLvm();
    Ticks(UDEV_LVM_DUE_TICKS);
    ASSERT_TRUE(qmtest::WaitUntil([&] { return qmtest::ReadFile(runs) == "run\n"; }));
    EXPECT_FALSE(UDEV_ActivateLvmDue());
}

TEST_F(LvmThreadTest, DestroyCancelsALongCommand)
{
    std::string started = dir_.File("started");
    std::string command = "touch " + started + "; exec sleep 600";
    UDEV_SetLvmCommandForTest(command.c_str());
    ASSERT_EQ(UDEV_CreateActivateLvm(), UDEV_RET_OK);
    UDEV_RequestActivateLvm();
    Ticks(UDEV_LVM_DUE_TICKS);
    ASSERT_TRUE(qmtest::WaitUntil([&] { return access(started.c_str(), F_OK) == 0; }));
    // TearDown destroys it while it waits in system().
}

TEST_F(LvmThreadTest, StopFlagEndsTheThread)
{
    ASSERT_EQ(UDEV_CreateActivateLvm(), UDEV_RET_OK);
    UDEV_SetStop();
    ASSERT_TRUE(qmtest::WaitUntil([] { return UDEV_GetActivateLvmState() == UDEV_THREAD_STOP; }));
}

}  // namespace
