// qmudevadm test against the daemon on one testbed with every kind of disk
// the lab builds, in SAN-boot mode: for every disk the tool's verdict and
// driver text are those of the ADD the emulated driver receives (or of its
// absence), the time-out writes it plans are the ones the daemon makes, and
// the tool itself writes nothing: no sysfs attribute, no trace or system-log
// record, no pid file, no request to the driver. And qmudevadm status.
#include <map>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

const std::string kBootWwn = "0x6001405a1b2c3d4e5f60718293a4b5c6";

struct Verdict {
    std::string verdict;
    std::string reason;
    std::string driverText;  // "" when not taken over
};

// The tool's JSON puts each disk on a line of its own, its fields in a fixed
// order: enough for a pattern, with the lab's texts free of quotes.
std::map<std::string, Verdict> Verdicts(const std::string &json, std::set<std::string> *writes)
{
    static const std::regex disk(
        R"re("devnum":"([^"]*)".*"verdict":"([^"]*)","reason":"([^"]*)","driver_text":(null|"([^"]*)"))re");
    static const std::regex write(R"re("object":"([^"]*)","attribute":"([^"]*)","current":[^,]*,"new":"([^"]*)","write":true)re");
    std::map<std::string, Verdict> out;
    std::istringstream lines(json);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, disk)) {
            out[m[1]] = {m[2], m[3], m[5]};
        }
        for (auto it = std::sregex_iterator(line.begin(), line.end(), write); it != std::sregex_iterator(); ++it) {
            writes->insert((*it)[1].str() + "/" + (*it)[2].str() + "=" + (*it)[3].str());
        }
    }
    return out;
}

TEST(AdmTest, DryRunGivesTheDaemonsVerdictsTextsAndWritesAndTouchesNothing)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 20\nscsi_timeout = 45\n"}});
    Testbed &tb = lab.testbed();
    NvmeController ctrl = tb.AddNvmeController({.instance = 0});
    const std::pair<BlockDevice, const char *> disks[] = {
        {tb.AddFcDisk({.port = 7, .id = {.wwn = kBootWwn}}), "vendor and product on the vendor list"},
        {tb.AddFcDisk({.port = 8, .target = 2}), "filtered by the SAN-boot WWN"},
        {tb.AddIscsiDisk({.id = {.wwn = ""}}), "vendor and product on the vendor list"},
        {tb.AddLocalDisk({.target = 3, .id = {.wwn = ""}}), "vendor and product on the vendor list"},
        {tb.AddLocalDisk({.target = 4, .id = {.vendor = "OTHER", .wwn = ""}}), "unsupported vendor or product"},
        {tb.AddBlock({"sdz", 65, 160}), "no SCSI parent"},
        {tb.AddNvmeNamespace(ctrl, {.nsIndex = 1, .wwn = ""}), "vendor and product on the vendor list"},
        {tb.AddNvmeNamespace(ctrl, {.nsIndex = 2}), "filtered by the SAN-boot WWN"},
        {tb.AddNvmePathDevice(ctrl, 1, {.nsIndex = 3, .wwn = ""}), "hidden NVMe path"},
        {tb.AddNvmeSubsystemNamespace(tb.AddNvmeSubsystem(1), tb.AddNvmeController({.instance = 1}),
                                      {.nsIndex = 1, .wwn = ""}),
         "NVMe namespace under an nvme-subsystem"},
        {tb.AddLoop(0), "neither a SCSI (sd) nor an NVMe (nvme) disk"},
    };
    tb.AddPartition(disks[3].first, 1);  // not a whole disk: neither the scan's nor the tool's
    lab.driver().SetDeviceList({kEndOfScan});

    Daemon &tool = lab.Start({.args = {"test", "--json", "--sanboot-wwn", kBootWwn}, .binary = QMUDEVADM_PATH});
    std::optional<ExitStatus> status = tool.WaitExit(120s);
    ASSERT_TRUE(status && status->exited && status->code == 0) << tool.Stderr();
    std::set<std::string> planned;
    std::map<std::string, Verdict> verdicts = Verdicts(tool.Stdout(), &planned);
    ASSERT_TRUE(tb.SyncAttributeWrites());
    EXPECT_TRUE(tb.AttributeWrites().empty());
    EXPECT_FALSE(ReadFile(kTraceLogPath)) << "the tool wrote a trace record";
    EXPECT_FALSE(ReadFile(kPidFilePath));
    EXPECT_TRUE(lab.driver().Requests().empty());
    ASSERT_TRUE(lab.sandbox().Syslog().Sync());
    EXPECT_TRUE(lab.sandbox().Syslog().Messages().empty());

    Daemon &d = lab.Start({.args = {kBootWwn}});
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, kEndOfScan, 1, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    std::map<std::string, std::string> adds;
    for (const DriverRequest &r : lab.driver().Requests(DriverOp::Add)) {
        EXPECT_TRUE(adds.emplace(r.DevNum(), r.text).second) << "two ADDs for " << r.DevNum();
    }
    EXPECT_EQ(verdicts.size(), std::size(disks));
    for (const auto &[disk, reason] : disks) {
        SCOPED_TRACE(disk.name);
        const Verdict &v = verdicts[disk.DevNum()];
        EXPECT_EQ(v.reason, reason);
        EXPECT_EQ(v.verdict, adds.count(disk.DevNum()) != 0 ? "taken over" : "not taken over");
        EXPECT_EQ(v.driverText, adds.count(disk.DevNum()) != 0 ? adds[disk.DevNum()] : "");
    }
    std::set<std::string> written;
    for (const AttributeWrite &w : tb.AttributeWrites()) {
        written.insert(w.syspath + "/" + w.name + "=" + w.value);
    }
    EXPECT_EQ(planned, written);
    EXPECT_EQ(planned.size(), 6u) << "FC loss and fast-fail, iSCSI recovery, three SCSI device time-outs";
}

// qmudevadm status before, while and after a daemon runs: who holds the pid
// file, and the last ERROR and WARN records of the trace file, as they
// stand there, in order.
TEST(AdmStatus, NamesTheDaemonHoldingThePidFileAndItsLastProblems)
{
    Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 0\nspeed = 1\n"}});
    for (int target : {1, 2, 3}) {
        lab.testbed().AddLocalDisk({.target = target, .id = {.vendor = "OTHER"}});
    }
    lab.driver().SetDeviceList({kEndOfScan});
    auto status = [&lab](std::vector<std::string> args) {
        args.insert(args.begin(), "status");
        Daemon &tool = lab.Start({.args = args, .binary = QMUDEVADM_PATH});
        std::optional<ExitStatus> end = tool.WaitExit(30s);
        return std::pair{end && end->exited ? end->code : -1, tool.Stdout()};
    };
    const std::string header = std::string(kTraceLogPath) + ": ";
    EXPECT_EQ(status({}), std::pair(3, "qmudev: not running (no /run/qmudev.pid)\n" + header + "no trace file\n"));

    Daemon &d = lab.Start({});
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, kEndOfScan, 1, 60s)) << d.Stderr();
    std::vector<std::string> problems;
    for (const TraceRecord &r : lab.TraceLog()) {
        if (r.level == "ERROR" || r.level == "WARN") {
            problems.push_back(r.raw);
        }
    }
    ASSERT_GE(problems.size(), 3u) << "the scenario needs more ERROR and WARN records";
    std::string lastTwo = problems[problems.size() - 2] + problems.back();
    EXPECT_EQ(status({"--lines", "2"}), std::pair(0, "qmudev: running (pid " + std::to_string(d.Pid()) +
                                                         " holds /run/qmudev.pid)\n" + header +
                                                         "last ERROR and WARN records:\n" + lastTwo));

    d.Stop();
    auto [code, out] = status({"--lines", "0"});
    EXPECT_EQ(code, 3);
    EXPECT_EQ(out, "qmudev: not running (no process holds /run/qmudev.pid; pid " + std::to_string(d.Pid()) +
                       " was the last)\n" + header + "no ERROR or WARN record\n");
    EXPECT_EQ(status({"--lines", "x"}).first, 64);
}

}  // namespace
}  // namespace qmlab::test
