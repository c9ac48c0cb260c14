// LVM activation: the five-tick debounce, the bounded retry whose counter a
// success does not reset, and the thread's end. The activation command is
// replaced by harmless shell commands.
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
    static void Ticks()
    {
        for (unsigned tick = 0; tick < UDEV_LVM_DUE_TICKS; ++tick) {
            UDEV_ActivateLvmTick();
        }
    }
    // Main-loop turns, each followed by one check of the LVM thread;
    // returns how many times the command ran.
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

TEST_F(LvmTest, FailingCommandRunsSixTimesThenGivesUpOnce)
{
    qmtest::TraceCapture trace;
    int retryCount = 0;
    UDEV_RequestActivateLvm();
    EXPECT_EQ(Turns(100, &retryCount), 6);
    EXPECT_EQ(retryCount, 0);
    EXPECT_EQ(qmtest::CountOf(trace.Text(), "the maximum number of retries has been reached.\n"), 1u);
    EXPECT_EQ(qmtest::CountOf(trace.Text(), "run command{exit 3} failed.\n"), 6u);
    UDEV_SetLvmCommandForTest(kSucceeds);
    UDEV_RequestActivateLvm();
    EXPECT_EQ(Turns(100, &retryCount), 1) << "a success is not retried";
}

TEST_F(LvmTest, RetryCounterSurvivesASuccess)
{
    // Two failures, a success, a new request failing four times: the sixth
    // failure since the last reset gives up.
    const struct {
        const char *command;
        bool newRequest;
        int retryAfter;
        bool rearmed;
    } steps[] = {{kFails, true, 1, true},  {kFails, false, 2, true}, {kSucceeds, false, 2, false},
                 {kFails, true, 3, true},  {kFails, false, 4, true}, {kFails, false, 5, true},
                 {kFails, false, 0, false}};
    int retryCount = 0;
    int step = 0;
    for (const auto &s : steps) {
        UDEV_SetLvmCommandForTest(s.command);
        if (s.newRequest) {
            UDEV_RequestActivateLvm();
        }
        Ticks();
        EXPECT_TRUE(UDEV_ActivateLvmCheck(&retryCount)) << "step " << step;
        EXPECT_EQ(retryCount, s.retryAfter) << "step " << step;
        Ticks();
        EXPECT_EQ(UDEV_ActivateLvmDue(), s.rearmed) << "step " << step++;
    }
}

TEST_F(LvmTest, DueFiveTicksAfterTheLastRequest)
{
    const struct {
        const char *script;  // r: request, t: tick, c: clear
        bool due;
    } cases[] = {{"tttttt", false}, {"rtttt", false},      {"rttttt", true},      {"tttrtt", false},
                 {"rttttrtttt", false}, {"rttrttttt", true}, {"rtttttc", false}, {"rtttttttt", true}};
    for (const auto &c : cases) {
        UDEV_ClearActivateLvmRequest();
        for (const char *op = c.script; *op != '\0'; ++op) {
            *op == 'r' ? UDEV_RequestActivateLvm() : *op == 't' ? UDEV_ActivateLvmTick()
                                                                 : UDEV_ClearActivateLvmRequest();
        }
        int retryCount = 0;
        EXPECT_EQ(UDEV_ActivateLvmCheck(&retryCount), c.due) << c.script;
    }
}

class LvmThreadTest : public LvmTest {
protected:
    void TearDown() override
    {
        UDEV_DestoryActivateLvm();
        // The destroyer does not wait; the test waits for the end it caused.
        EXPECT_TRUE(qmtest::WaitUntil([] { return UDEV_GetActivateLvmState() == UDEV_THREAD_STOP; }));
        EXPECT_TRUE(UDEV_IsStop());
        LvmTest::TearDown();
    }
    void StartWith(const std::string &command)
    {
        command_ = command;
        UDEV_SetLvmCommandForTest(command_.c_str());
        ASSERT_EQ(UDEV_CreateActivateLvm(), UDEV_RET_OK);
        UDEV_RequestActivateLvm();
        Ticks();
    }
    qmtest::TempDir dir_;
    std::string command_;
};

TEST_F(LvmThreadTest, RunsTheCommandOnceWhenDue)
{
    StartWith("echo run >> " + dir_.File("runs"));
    ASSERT_TRUE(qmtest::WaitUntil([&] { return qmtest::ReadFile(dir_.File("runs")) == "run\n"; }));
}

TEST_F(LvmThreadTest, DestroyCancelsALongCommand)
{
    StartWith("touch " + dir_.File("started") + "; exec sleep 600");
    ASSERT_TRUE(qmtest::WaitUntil([&] { return access(dir_.File("started").c_str(), F_OK) == 0; }));
}

}  // namespace
