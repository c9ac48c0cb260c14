// Start-up with SAN-boot arguments, end to end: the arguments that are
// refused, the system log that replaces the trace file, the WWN filter
// that leaves every disk but the boot disk alone, and readiness that waits
// for the boot partition's /dev/disk/by-uuid link.
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

const std::string kBootWwn = "0x6000d31000a1b2c3d4e5f60718293a4b";

std::vector<std::string> SyslogMessages(Lab &lab, int pid)
{
    EXPECT_TRUE(lab.sandbox().Syslog().Sync());
    std::vector<std::string> out;
    for (const auto &r : lab.sandbox().SyslogRecords()) {
        if (r.pid == pid) {
            EXPECT_EQ(r.ident, "qmudev") << r.raw;
            out.push_back(r.message);
        }
    }
    return out;
}

bool Contains(const std::vector<std::string> &messages, const std::string &text)
{
    return std::any_of(messages.begin(), messages.end(),
                       [&](const std::string &m) { return m.find(text) != std::string::npos; });
}

// --- Failure paths first. -------------------------------------------------

TEST(SanbootArguments, RefusedArgumentsExitOneWithoutNotification)
{
    struct Case {
        const char *name;
        std::vector<std::string> args;
        const char *record;  // in the system log; nullptr: no record anywhere
    };
    const std::string hex31 = kBootWwn.substr(2, 31);
    const Case cases[] = {
        {"WWN of 33 characters", {"0x" + hex31}, "get the boot lun wwn failed"},
        {"WWN of 34 characters, one not hexadecimal", {"0x" + hex31 + "g"}, "get the boot lun wwn failed"},
        {"upper-case partition name", {kBootWwn, "Sda1"}, "get boot lun part name failed"},
        {"partition name of 32 characters", {kBootWwn, std::string(32, 'a')},
         "get the input parameter partition disk name aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa failed."},
        {"four arguments", {kBootWwn, "sda1", "x"}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Lab lab;
        DaemonOptions opts;
        opts.args = c.args;
        Daemon &d = lab.Start(opts);
        auto status = d.WaitExit(30s);
        ASSERT_TRUE(status.has_value()) << "the daemon kept running";
        EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
        EXPECT_TRUE(NotifyTexts(lab).empty()) << "refused arguments are not told to the service manager";
        EXPECT_TRUE(lab.driver().Requests().empty()) << "the driver's device was opened";
        EXPECT_TRUE(lab.TraceLog().empty());
        auto messages = SyslogMessages(lab, d.Pid());
        if (c.record == nullptr) {
            EXPECT_TRUE(messages.empty());
        } else {
            EXPECT_EQ(messages, std::vector<std::string>{std::string(c.record) + "\n"});
        }
    }
}

// --- The WWN filter and the system log. -------------------------------------

TEST(SanbootFilter, OnlyTheBootDiskAndDisksWithoutWwnAreTakenOver)
{
    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice boot = tb.AddFcDisk({.lun = 1, .id = {.wwn = kBootWwn}});
    BlockDevice other = tb.AddFcDisk({.lun = 2});
    BlockDevice noWwn = tb.AddLocalDisk({.id = {.wwn = ""}});
    NvmeController ctrl = tb.AddNvmeController();
    BlockDevice nvme = tb.AddNvmeNamespace(ctrl);  // "eui." WWN: never the boot disk's form
    DaemonOptions opts;
    opts.args = {kBootWwn};
    Daemon &d = live.Start(opts);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, noWwn.DevNum()));

    // Live: another disk's add is dropped; its change and remove are not
    // filtered by WWN.
    BlockDevice hot = tb.AddFcDisk({.lun = 3});
    ASSERT_TRUE(live.Send(hot, "add"));
    ASSERT_TRUE(live.Send(other, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, other.DevNum()));
    ASSERT_TRUE(live.SendRemove(other));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, other.DevNum()));

    auto seen = Seen(lab.driver().Requests());
    std::sort(seen.begin(), seen.end() - 2);  // the scan's adds come in udev's order
    EXPECT_EQ(seen, (std::vector<std::string>{Req(DriverOp::Add, boot.DevNum()), Req(DriverOp::Add, noWwn.DevNum()),
                                              Req(DriverOp::Change, other.DevNum()),
                                              Req(DriverOp::Remove, other.DevNum())}));

    // Every record goes to the system log, none to the trace file.
    auto messages = SyslogMessages(lab, d.Pid());
    for (const BlockDevice *dropped : {&other, &hot, &nvme}) {
        EXPECT_TRUE(Contains(messages, "specific the device of wwn{" + kBootWwn + "} to take over, but current wwn {" +
                                           (dropped == &nvme ? dropped->wwn.substr(3) : dropped->wwn) +
                                           "} to filter."))
            << dropped->name;
    }
    EXPECT_TRUE(Contains(messages, "qmudev start successfully"));
    EXPECT_TRUE(Contains(messages, DriverRecord(ScsiInfo(boot), "add", 1024)));
    EXPECT_TRUE(lab.TraceLog().empty());
}

// --- Readiness. ---------------------------------------------------------------

// At five times its speed the daemon looks for the link every 200 ms of the
// lab: the window below spans some fifteen looks. A link to a name that only
// begins like the partition's is there from the start and does not count.
TEST(SanbootReadiness, ReadyWaitsForTheBootPartitionsLink)
{
    Lab lab;
    BlockDevice boot = lab.testbed().AddFcDisk({.id = {.wwn = kBootWwn}});
    lab.sandbox().AddByUuidLink("0b6c1f3e-near-miss", boot.name + "10");
    DaemonOptions opts;
    opts.args = {kBootWwn, boot.name + "1"};
    opts.timeSpeed = 5;
    Daemon &d = lab.Start(opts);
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, boot.DevNum(), 1, 60s)) << d.Stderr();
    EXPECT_FALSE(lab.WaitNotify("READY=1", 3s)) << "ready before the boot partition shows";
    ASSERT_TRUE(d.Running()) << d.Stderr();

    lab.sandbox().AddByUuidLink("9a1d2c4b-boot", boot.name + "1");
    auto linked = StampNow();
    auto ready = lab.WaitNotify("READY=1", 30s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    EXPECT_GT(ready->stamp.seq, linked.seq);
    EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"READY=1"});
    auto messages = SyslogMessages(lab, d.Pid());
    EXPECT_TRUE(Contains(messages, "has already found root dir{" + boot.name + "1}."));
    EXPECT_FALSE(Contains(messages, "qmudev start successfully"));
}

}  // namespace
}  // namespace qmlab::test
