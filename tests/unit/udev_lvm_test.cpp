// LVM activation: the five-tick debounce, the bounded retry whose counter a
// success does not reset, and the thread cancelled in a long command. The
// command is a harmless shell one; runs and give-up are proven end to end
// (lab PipelineLvm).
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include <unistd.h>

#include "support/pipeline_support.h"
#include "support/trace_capture.h"
#include "udev_lvm.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

constexpr const char *kFails = "exit 3";
constexpr const char *kSucceeds = "exit 0";

class LvmTest : public ::testing::Test {
protected:
    void SetUp() override { UDEV_ClearActivateLvmRequest(); }
    void TearDown() override { UDEV_ClearActivateLvmRequest(); }
    static void Ticks()
    {
        for (unsigned tick = 0; tick < UDEV_LVM_DUE_TICKS; ++tick) {
            UDEV_ActivateLvmTick();
        }
    }
};

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
        if (s.newRequest) {
            UDEV_RequestActivateLvm();
        }
        Ticks();
        EXPECT_TRUE(UDEV_ActivateLvmCheckWith(&retryCount, s.command)) << "step " << step;
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
        EXPECT_EQ(UDEV_ActivateLvmCheckWith(&retryCount, kFails), c.due) << c.script;
    }
}

// Cancelled inside system(), the thread takes the command down with it.
TEST_F(LvmTest, DestroyEndsTheThreadInALongCommand)
{
    qmtest::TempDir dir;
    const std::string pidFile = dir.File("pid");
    const std::string command = "echo $$ > " + pidFile + ".part && mv " + pidFile + ".part " + pidFile +
                                " && exec sleep 600";
    ASSERT_EQ(UDEV_CreateActivateLvmWith(command.c_str()), UDEV_RET_OK);
    UDEV_RequestActivateLvm();
    Ticks();
    pid_t pid = 0;
    ASSERT_TRUE(qmtest::WaitUntil([&] {
        pid = static_cast<pid_t>(std::atol(qmtest::ReadFile(pidFile).c_str()));
        return pid > 0;
    }));
    UDEV_DestoryActivateLvm();
    EXPECT_TRUE(UDEV_IsStop());
    bool ended = qmtest::WaitUntil([&] { return ::kill(pid, 0) != 0; });
    EXPECT_TRUE(ended) << "the command outlived the thread's cancellation";
    if (!ended) {
        (void)::kill(pid, SIGKILL);
    }
}

}  // namespace
