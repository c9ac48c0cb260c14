// LVM activation: the five-tick debounce and the bounded retry whose
// counter a success does not reset. The command is a harmless shell one;
// runs, give-up and the thread cancelled in a hanging command are proven
// end to end (lab PipelineLvm).
#include <gtest/gtest.h>

#include "udev_lvm.h"

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

}  // namespace
