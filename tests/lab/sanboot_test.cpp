// Start-up with SAN-boot arguments, end to end: the arguments that are
// refused, the system log that replaces the trace file, the WWN filter
// that leaves every disk but the boot disk alone, and readiness that waits
// for the boot partition's /dev/disk/by-uuid link.
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

const std::string kBootWwn = "0x6000d31000a1b2c3d4e5f60718293a4b";

// The daemon's system-log messages, one after the other.
std::string SyslogOf(Lab &lab, int pid)
{
    EXPECT_TRUE(lab.sandbox().Syslog().Sync());
    std::string out;
    for (const auto &r : lab.sandbox().SyslogRecords()) {
        if (r.pid == pid) {
            EXPECT_EQ(r.ident, "qmudev") << r.raw;
            out += r.message;
        }
    }
    return out;
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
        {"upper-case partition name", {kBootWwn, "Sda1"}, "get boot lun part name failed"},
        {"four arguments", {kBootWwn, "sda1", "x"}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Lab lab;
        Daemon &d = lab.Start({.args = c.args});
        EXPECT_EQ(ExitOf(d, 30s), "exit 1") << d.Stderr();
        EXPECT_TRUE(NotifyTexts(lab).empty()) << "refused arguments are not told to the service manager";
        EXPECT_TRUE(lab.driver().Requests().empty()) << "the driver's device was opened";
        EXPECT_TRUE(lab.TraceLog().empty());
        EXPECT_EQ(SyslogOf(lab, d.Pid()), c.record != nullptr ? std::string(c.record) + "\n" : "");
    }
}

// --- Accepted arguments: the WWN filter, the system log and readiness. -------

// With the boot disk's WWN alone the daemon is ready at its first turn; with
// a partition name too, once a /dev/disk/by-uuid link ends in that name. At
// five times its speed it looks every 200 ms of the lab: the window below
// spans some fifteen looks. A link to a name that only begins like the
// partition's is there from the start and does not count.
TEST(SanbootStart, OnlyTheBootDiskIsTakenOverAndReadinessWaitsForItsPartition)
{
    for (bool withPartition : {false, true}) {
        SCOPED_TRACE(withPartition ? "WWN and partition" : "WWN only");
        Lab lab;
        Live live(lab);
        Testbed &tb = lab.testbed();
        BlockDevice boot = tb.AddFcDisk({.lun = 1, .id = {.wwn = kBootWwn}});
        BlockDevice other = tb.AddFcDisk({.lun = 2});
        BlockDevice noWwn = tb.AddLocalDisk({.id = {.wwn = ""}});
        BlockDevice nvme = tb.AddNvmeNamespace(tb.AddNvmeController());  // "eui." WWN: never the boot disk's form
        lab.sandbox().AddByUuidLink("0b6c1f3e-near-miss", boot.name + "10");
        auto args = withPartition ? std::vector<std::string>{kBootWwn, boot.name + "1"} : std::vector{kBootWwn};
        Daemon &d = live.Start({.args = args, .timeSpeed = 5});
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, noWwn.DevNum(), 1, 60s)) << d.Stderr();
        if (withPartition) {
            EXPECT_FALSE(lab.WaitNotify("READY=1", 3s)) << "ready before the boot partition shows";
            lab.sandbox().AddByUuidLink("9a1d2c4b-boot", boot.name + "1");
        }
        Stamp linked = StampNow();
        auto ready = lab.WaitNotify("READY=1", 30s);
        ASSERT_TRUE(ready.has_value()) << d.Stderr();
        EXPECT_TRUE(!withPartition || ready->stamp.seq > linked.seq);

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
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"READY=1"});
        const std::string log = SyslogOf(lab, d.Pid());
        auto has = [&log](const std::string &text) { return log.find(text) != std::string::npos; };
        for (const BlockDevice *dropped : {&other, &hot, &nvme}) {
            EXPECT_TRUE(has("specific the device of wwn{" + kBootWwn + "} to take over, but current wwn {" +
                            (dropped == &nvme ? dropped->wwn.substr(3) : dropped->wwn) + "} to filter."))
                << dropped->name;
        }
        EXPECT_EQ(has("qmudev start successfully"), !withPartition);
        EXPECT_EQ(has("has already found root dir{" + boot.name + "1}."), withPartition);
        EXPECT_TRUE(has(DriverRecord(ScsiInfo(boot), "add", 1024)));
        EXPECT_TRUE(lab.TraceLog().empty());
    }
}

}  // namespace
}  // namespace qmlab::test
