// The orderly stop against a slow or stuck driver: a stop that comes in the
// middle of a long walk ends it after the request in flight, and a handle
// thread stuck in an ioctl keeps everything it may still use until the
// process ends.
#include <cerrno>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

constexpr const char *kHandleTimeout = "destory qmudev handle thread wait stop timeout.";
constexpr const char *kLeftInPlace = "left to the end of the process.";

// Brings the monitor thread down: its next poll fails (not EINTR), and a
// harmless event makes it come back to poll. Returns the lab's stamp just
// before, so that what the daemon did after the failure can be told apart.
Stamp FailMonitor(Daemon &d, Live &live)
{
    d.FailNextPoll(EIO);
    Stamp before = StampNow();
    live.Nudge();
    return before;
}

size_t CountAfter(const Requests &all, DriverOp op, const Stamp &from)
{
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const DriverRequest &r) {
        return r.op == op && r.stamp.seq > from.seq;
    }));
}

TEST(StopDuringWalk, SlowDriverEndsTheWalkAfterTheRequestInFlight)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    lab.driver().SetDelay(DriverOp::Add, 1s);

    std::vector<BlockDevice> disks;
    for (int i = 0; i < 40; ++i) {
        disks.push_back(lab.testbed().AddFcDisk({.lun = i}));
    }
    for (const auto &disk : disks) {
        ASSERT_NE(lab.testbed().Emit(disk.syspath, "add"), 0);
    }
    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, "", 3)) << "the walk through the burst has begun";

    Stamp failed = FailMonitor(d, live);
    auto status = d.WaitExit(15s);
    ASSERT_TRUE(status.has_value()) << "the daemon walked on after the stop";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();

    // The driver sees the close a moment after the process has ended.
    ASSERT_TRUE(lab.driver().WaitFor([](const Requests &all) { return CountAnswered(all, DriverOp::Close) == 1; }, 10s));
    Requests all = lab.driver().Requests();
    EXPECT_LE(CountAfter(all, DriverOp::Add, failed), 1u) << "at most the ADD in flight completes";
    EXPECT_LT(lab.driver().Count(DriverOp::Add), disks.size());
    EXPECT_TRUE(After(all, [](const DriverRequest &r) { return r.op == DriverOp::Close; }).empty())
        << "a request after the misc device was closed";
    auto trace = lab.TraceLog();
    EXPECT_GE(IndexOf(trace, "poll func run failed."), 0);
    EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a destroyer waited out its time";
    EXPECT_EQ(IndexOf(trace, kLeftInPlace), -1);
    EXPECT_EQ(NotifyTexts(lab).back(), "STATUS=shutdown");
}

TEST(StopDuringWalk, DriverThatNeverAnswersKeepsSharedStateUntilTheProcessEnds)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    lab.driver().Hold(DriverOp::Add);
    BlockDevice disk = lab.testbed().AddFcDisk();
    ASSERT_TRUE(live.Send(disk, "add"));
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s)) << "the handle thread is stuck in its ioctl";

    (void)FailMonitor(d, live);
    auto status = d.WaitExit(90s);
    ASSERT_TRUE(status.has_value()) << "the shutdown did not end";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();

    auto trace = lab.TraceLog();
    long timedOut = IndexOf(trace, kHandleTimeout);
    long leftInPlace = IndexOf(trace, kLeftInPlace);
    ASSERT_GE(timedOut, 0);
    EXPECT_GT(leftInPlace, timedOut);
    EXPECT_EQ(RecordsWith(trace, kLeftInPlace).size(), 1u);
    EXPECT_EQ(trace[leftInPlace].level, "ERROR");

    EXPECT_EQ(NotifyTexts(lab).back(), "STATUS=shutdown");
    EXPECT_TRUE(LabProcesses(lab).empty());
}

}  // namespace
}  // namespace qmlab::test
