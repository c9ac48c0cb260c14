// The daemon's start-up and end, end to end: the real binary against the
// emulated driver, with its notifications, pid file and trace log observed.
#include <csignal>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lab_support.h"

namespace qmlab::test {
namespace {

std::vector<std::string> NotifyTexts(Lab &lab, int pid = 0)
{
    EXPECT_TRUE(lab.sandbox().Notify().Sync());
    return Texts(lab.sandbox().Notifications(), pid);
}

// --- Failure paths first. -------------------------------------------------

TEST(LifecycleStart, FailsWithShutdownNotificationWhenStartIsRefused)
{
    Lab lab;
    lab.driver().SetDefault(DriverOp::Start, DriverReply::Fail(EIO));
    Daemon &d = lab.Start();
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon kept running";
    EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
    // Nothing after the refused start: no configuration, no thread, no scan.
    std::vector<DriverOp> ops;
    for (const auto &r : lab.driver().Requests()) {
        if (r.op != DriverOp::Close) {
            ops.push_back(r.op);
        }
    }
    EXPECT_EQ(ops, (std::vector<DriverOp>{DriverOp::Open, DriverOp::Start}));
    EXPECT_TRUE(lab.WaitTrace("Failed to trigger ioctl.", 10s));
}

TEST(LifecycleStart, FailsBeforeThePidFileWhenTheDeviceIsMissing)
{
    struct Case {
        const char *name;
        bool giveDriver;  // false: no socket at all; true: the emulator says ENOENT
    };
    for (const Case c : {Case{"no driver socket", false}, Case{"device absent", true}}) {
        SCOPED_TRACE(c.name);
        Lab lab;
        lab.driver().SetPresent(false);
        DaemonOptions opts;
        opts.driver = c.giveDriver;
        Daemon &d = lab.Start(opts);
        auto status = d.WaitExit(60s);
        ASSERT_TRUE(status.has_value());
        EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
        struct stat st {};
        EXPECT_NE(::stat(kPidFilePath, &st), 0) << "the pid file was touched";
        EXPECT_EQ(lab.driver().Count(DriverOp::Start), 0u);
        EXPECT_TRUE(lab.WaitTrace("Failed to open /dev/misc_qmnv.", 10s));
    }
}

TEST(LifecycleStart, MoreThanThreeArgumentsExitWithoutNotification)
{
    Lab lab;
    DaemonOptions opts;
    opts.args = {"a", "b", "c", "d"};
    Daemon &d = lab.Start(opts);
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
    EXPECT_TRUE(NotifyTexts(lab).empty());
    EXPECT_TRUE(lab.driver().Requests().empty()) << "the device was opened";
    EXPECT_TRUE(lab.TraceLog().empty()) << "the record is dropped: the trace path is not set yet";
}

TEST(LifecycleStart, SecondInstanceIsRefusedAndLeavesThePidFileAlone)
{
    Lab lab;
    Daemon &first = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << first.Stderr();
    auto before = ReadFile(kPidFilePath);
    ASSERT_TRUE(before.has_value());

    Daemon &second = lab.Start();
    auto status = second.WaitExit(60s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->Describe(), "exit 1") << second.Stderr();
    EXPECT_EQ(NotifyTexts(lab, second.Pid()), std::vector<std::string>{"STATUS=shutdown"});
    EXPECT_EQ(ReadFile(kPidFilePath), before);
    EXPECT_TRUE(first.Running());
    EXPECT_EQ(NotifyTexts(lab, first.Pid()), std::vector<std::string>{"READY=1"});
}

TEST(LifecycleStop, TerminationSignalEndsTheDaemonWithoutOrderlyShutdown)
{
    Lab lab;
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ExitStatus status = d.Stop();
    EXPECT_TRUE(status.signaled) << status.Describe();
    EXPECT_EQ(status.signal, SIGTERM);
    EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"READY=1"}) << "no handler, so no STATUS=shutdown";
}

// --- A start that works. --------------------------------------------------

TEST(LifecycleStart, StartIsTheFirstRequestTheDriverReceives)
{
    Lab lab;
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.driver().WaitCount(DriverOp::Start, 1, 60s)) << d.Stderr();
    auto all = lab.driver().Requests();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0].op, DriverOp::Open);
    EXPECT_EQ(all[0].pid, d.Pid());
    EXPECT_EQ(all[1].op, DriverOp::Start);
    EXPECT_TRUE(all[1].argNull) << "START carries no record";
    EXPECT_EQ(lab.driver().Count(DriverOp::Start), 1u);
}

TEST(LifecycleStart, ReadyFollowsStartAndTheScan)
{
    Lab lab;
    Daemon &d = lab.Start();
    auto ready = lab.WaitNotify("READY=1", 60s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    EXPECT_EQ(ready->pid, d.Pid());
    auto starts = lab.driver().Requests(DriverOp::Start);
    auto gets = lab.driver().Requests(DriverOp::Get);
    ASSERT_EQ(starts.size(), 1u);
    ASSERT_GE(gets.size(), 1u) << "the scan asks the driver for its devices";
    EXPECT_LT(starts[0].stamp.seq, gets[0].stamp.seq);
    EXPECT_LT(gets.back().stamp.seq, ready->stamp.seq);
    EXPECT_TRUE(lab.WaitTrace("qmudev start successfully", 10s));
}

TEST(LifecycleStart, PidFileHoldsThePidAndOneNulByteWithMode0644)
{
    Lab lab;
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    auto content = ReadFile(kPidFilePath);
    ASSERT_TRUE(content.has_value());
    std::string expected = std::to_string(d.Pid());
    expected.push_back('\0');
    EXPECT_EQ(*content, expected);
    struct stat st {};
    ASSERT_EQ(::stat(kPidFilePath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(LifecycleTrace, RecordsParseBackStartingAtSequenceOne)
{
    Lab lab;
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(lab.WaitTrace("qmudev start successfully", 10s));
    auto records = lab.TraceLog();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0].sequence, 1);
    for (size_t i = 0; i < records.size(); ++i) {
        const TraceRecord &r = records[i];
        SCOPED_TRACE(r.raw);
        if (i > 0) {
            EXPECT_GT(r.sequence, records[i - 1].sequence);
        }
        EXPECT_EQ(r.magic, 0x5342u);
        EXPECT_EQ(r.module, 22u);
        EXPECT_EQ(r.zero, 0u);
        EXPECT_EQ(static_cast<long>(r.keyLine), r.line);
        EXPECT_EQ(r.moduleName, "UDEV");
        EXPECT_TRUE(r.level == "INFO" || r.level == "WARN" || r.level == "ERROR") << r.level;
        EXPECT_EQ(r.time.size(), 19u);
        EXPECT_FALSE(r.function.empty());
    }
}

}  // namespace
}  // namespace qmlab::test
