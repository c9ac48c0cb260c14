// Start-up end to end: every way it fails, then a start that works: the
// first requests to the driver, the configuration read after START, the
// start-up scan's batch against udev's disks and the driver's list (however
// long the list grows) ahead of events that come during the scan, the pid
// file, and a second instance.
#include <csignal>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

std::string PidFileText(int pid)
{
    return std::to_string(pid) + '\0';
}

// Exit 1 in bounded time (below the destroyers' own 30 s wait: a thread that
// would not stop shows as a hang), "STATUS=shutdown" as the only notification,
// nothing left behind, no request after the failing one, the pid file only
// once the device is open, and the failure's record.
TEST(StartFailure, EndsWithShutdownStatusAndNothingLeftBehind)
{
    struct Row {
        const char *name;
        std::function<void(DriverEmulator &)> script;
        std::vector<std::string> conversation;
        const char *record;
        SandboxOptions sandbox = {};
    };
    auto failGet = [](DriverReply reply) {
        return [reply](DriverEmulator &drv) { drv.SetDefault(DriverOp::Get, reply); };
    };
    const std::vector<Row> rows = {
        {"device absent", [](DriverEmulator &drv) { drv.SetPresent(false); }, {}, "Failed to open /dev/misc_qmnv."},
        {"open refused", [](DriverEmulator &drv) { drv.SetOpenError(EACCES); }, {}, "Failed to open /dev/misc_qmnv."},
        {"START fails", [](DriverEmulator &drv) { drv.SetDefault(DriverOp::Start, DriverReply::Fail(EINVAL, -22)); },
         {"START"}, "misc ioctl start fail with ret=-22."},
        {"vendor list missing", [](DriverEmulator &) {}, {"START"}, "open file failed.", {.vendorConfig = {}}},
        {"GET ioctl fails", failGet(DriverReply::Fail(EIO)), {"START", "GET"}, "get device numbers fail with ret=-1."},
        {"GET refused", failGet(DriverReply::Status(1030)), {"START", "GET"}, "alloc devnums fail with ret{1030}."},
        // The first GET offers 1024 bytes of data: a longer text cannot have
        // come back in them. A driver's wish is bounded at 16 MiB.
        {"dataLen past the data area",
         failGet([] { auto r = DriverReply::List("8:16"); r.dataLen = 1026; return r; }()), {"START", "GET"},
         "alloc devnums: reply dataLen{1026} exceeds its data area{1024}."},
        {"needLen near 4 GiB", failGet(DriverReply::BufferShort(0xffffffffu)), {"START", "GET"},
         "get device numbers: driver asks for len{4294967295}, above the limit{16777216}."},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = row.sandbox});
        lab.testbed().AddLocalDisk();
        row.script(lab.driver());
        Daemon &d = lab.Start();
        EXPECT_EQ(ExitOf(d, 25s), "exit 1") << d.Stderr();
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
        ExpectNothingLeftBehind(lab);
        EXPECT_EQ(Seen(lab.driver().Requests(), true), row.conversation);
        struct stat st {};
        EXPECT_EQ(::stat(kPidFilePath, &st) == 0, !row.conversation.empty());
        auto trace = lab.TraceLog();
        EXPECT_GE(IndexOf(trace, row.record), 0) << "no record \"" << row.record << "\"";
        EXPECT_EQ(IndexOf(trace, "synchronization physical device failed.") >= 0, row.conversation.size() == 2);
        EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a thread did not stop when asked";
    }
}

// Held at START and again at GET. The configuration is read after START (the
// files written while it is held are the ones used) and only once. udev has
// 8:0 and 8:16; the driver holds 8:16, 8:224 (two blanks between them count as
// one) and 200 more numbers; its first two answers ask for less than the list
// needs, then it answers as a driver does: 1038 with the full length, then
// the list. Events that come while the scan waits for the list are handled
// after its batch; readiness comes after the scan. The trace file cannot be
// written: only the records are lost.
TEST(Startup, ScanBatchThenLiveEventsThenReadyAndASecondInstanceIsRefused)
{
    Lab lab({.sandbox = {.vendorConfig = std::nullopt, .timeoutConfig = std::nullopt, .logDir = LogDir::ReadOnly}});
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice sda = tb.AddLocalDisk({.target = 0});
    BlockDevice sdb = tb.AddLocalDisk({.target = 1});
    ASSERT_EQ(sda.DevNum() + " " + sdb.DevNum(), "8:0 8:16");
    std::string list = "8:16  8:224";
    std::vector<std::string> expected = {"START", "GET", "GET", "GET", "GET", "ADD 8:0", "ADD 8:16", "REMOVE 8:224"};
    for (int minor = 1000; minor < 1200; ++minor) {
        list += " 259:" + std::to_string(minor);
        expected.push_back("REMOVE 259:" + std::to_string(minor));
    }
    lab.driver().SetDeviceListText(list);
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1100));
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1400));
    lab.driver().Hold(DriverOp::Start);
    lab.driver().Hold(DriverOp::Get);
    Daemon &d = live.Start();

    ASSERT_TRUE(lab.driver().WaitHeld(1, 60s)) << d.Stderr();
    lab.sandbox().SetVendorConfig(std::string(kDefaultVendorConfig));
    lab.sandbox().SetTimeoutConfig("scsi_timeout = 7\n");
    lab.driver().Release(DriverOp::Start);
    ASSERT_TRUE(lab.driver().WaitCount(DriverOp::Get, 1, 60s)) << d.Stderr();
    lab.sandbox().SetTimeoutConfig("scsi_timeout = 9\n");  // too late
    // udev's disks are enumerated by now; these two are new to the scan.
    BlockDevice sdc = tb.AddLocalDisk({.target = 2});
    BlockDevice sdd = tb.AddLocalDisk({.target = 3});
    ASSERT_TRUE(live.Send(sdc, "add"));
    ASSERT_TRUE(live.Send(sdd, "add"));
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u) << "live events handled before the scan's";
    EXPECT_TRUE(NotifyTexts(lab).empty()) << "ready before the scan";
    lab.driver().Release(DriverOp::Get);
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, sdd.DevNum())) << d.Stderr();

    auto all = lab.driver().Requests();
    EXPECT_TRUE(all.at(0).op == DriverOp::Open && all[0].pid == d.Pid());
    EXPECT_TRUE(all.at(1).op == DriverOp::Start && all[1].argNull) << "START, without a record, comes first";
    expected.insert(expected.end(), {Req(DriverOp::Add, sdc.DevNum()), Req(DriverOp::Add, sdd.DevNum())});
    EXPECT_EQ(Seen(all, true), expected);
    std::vector<uint32_t> offered;
    for (const auto &g : lab.driver().Requests(DriverOp::Get)) {
        offered.push_back(g.bufLen);
    }
    EXPECT_EQ(offered, (std::vector<uint32_t>{1024, 1101, 1401, static_cast<uint32_t>(list.size() + 1)}));
    auto ready = lab.WaitNotify("READY=1", 30s);
    ASSERT_TRUE(ready.has_value());
    EXPECT_EQ(ready->pid, d.Pid());
    ASSERT_TRUE(tb.WaitAttributeWrites(4, 30s));
    for (const BlockDevice *disk : {&sda, &sdb, &sdc, &sdd}) {
        EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), "7") << disk->name;
    }

    // The pid file: the pid's digits and one NUL, mode 0644.
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid()));
    struct stat st {};
    ASSERT_EQ(::stat(kPidFilePath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_FALSE(ReadFile(kTraceLogPath).has_value()) << "a trace file appeared";

    // A second instance is refused and leaves the pid file alone.
    Daemon &second = lab.Start();
    EXPECT_EQ(ExitOf(second, 60s), "exit 1") << second.Stderr();
    EXPECT_EQ(NotifyTexts(lab, second.Pid()), std::vector<std::string>{"STATUS=shutdown"});
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid()));
    EXPECT_TRUE(d.Running());

    // SIGTERM has no handler: the process just ends, without "STATUS=shutdown".
    ExitStatus stopped = d.Stop();
    EXPECT_TRUE(stopped.signaled && stopped.signal == SIGTERM) << stopped.Describe();
    EXPECT_EQ(NotifyTexts(lab, d.Pid()), std::vector<std::string>{"READY=1"});
}

}  // namespace
}  // namespace qmlab::test
