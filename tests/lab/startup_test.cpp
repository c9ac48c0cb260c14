// Start-up end to end: every way it fails, then a start that works: the
// first requests to the driver, the pid file, the start-up scan's batch
// against udev's disks and the driver's list (however long the list grows),
// the configuration read after START, and events that come during the scan.
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

DriverReply GetReply(uint32_t dataLen)
{
    DriverReply r = DriverReply::List("8:16");
    r.dataLen = dataLen;
    return r;
}

// Exit 1 in bounded time (below the destroyers' own 30 s wait: a thread that
// would not stop shows as a hang), "STATUS=shutdown" as the only notification,
// nothing left behind, no request after the failing one, and the failure's
// records in order.
TEST(StartFailure, EndsWithShutdownStatusAndNothingLeftBehind)
{
    const std::vector<std::string> getChain = {"ioctl inquiry failed.", "get devices from kernel failed.",
                                               "Update physical device failed.",
                                               "synchronization physical device failed."};
    struct Row {
        const char *name;
        std::function<void(DriverEmulator &)> script;
        std::vector<std::string> conversation;
        std::vector<std::string> records;  // in this order; a failed GET adds getChain
        SandboxOptions sandbox = {};
    };
    auto failGet = [](DriverReply reply) {
        return [reply](DriverEmulator &drv) { drv.SetDefault(DriverOp::Get, reply); };
    };
    const std::vector<Row> rows = {
        {"device absent", [](DriverEmulator &drv) { drv.SetPresent(false); }, {}, {"Failed to open /dev/misc_qmnv."}},
        {"open refused", [](DriverEmulator &drv) { drv.SetOpenError(EACCES); }, {}, {"Failed to open /dev/misc_qmnv."}},
        {"START fails", [](DriverEmulator &drv) { drv.SetDefault(DriverOp::Start, DriverReply::Fail(EIO)); },
         {"START"}, {"misc ioctl start fail with ret=-1.", "Failed to trigger ioctl."}},
        {"START returns -22", [](DriverEmulator &drv) { drv.SetDefault(DriverOp::Start, DriverReply::Fail(EINVAL, -22)); },
         {"START"}, {"misc ioctl start fail with ret=-22.", "Failed to trigger ioctl."}},
        {"vendor list missing", [](DriverEmulator &) {}, {"START"}, {"open file failed."}, {.vendorConfig = std::nullopt}},
        {"GET ioctl fails", failGet(DriverReply::Fail(EIO)), {"START", "GET"}, {"get device numbers fail with ret=-1."}},
        {"GET refused", failGet(DriverReply::Status(1030)), {"START", "GET"}, {"alloc devnums fail with ret{1030}."}},
        // The first GET offers 1024 bytes of data; a longer text cannot have
        // come back in them, and a driver's wish is bounded at 16 MiB.
        {"dataLen past the data area", failGet(GetReply(1026)), {"START", "GET"},
         {"alloc devnums: reply dataLen{1026} exceeds its data area{1024}."}},
        {"dataLen near 4 GiB", failGet(GetReply(0xfffffff0u)), {"START", "GET"},
         {"alloc devnums: reply dataLen{4294967280} exceeds its data area{1024}."}},
        {"needLen past 16 MiB", failGet(DriverReply::BufferShort(16u * 1024u * 1024u + 1u)), {"START", "GET"},
         {"get device numbers: driver asks for len{16777217}, above the limit{16777216}."}},
        {"needLen near 4 GiB", failGet(DriverReply::BufferShort(0xffffffffu)), {"START", "GET"},
         {"get device numbers: driver asks for len{4294967295}, above the limit{16777216}."}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = row.sandbox});
        lab.testbed().AddLocalDisk();
        row.script(lab.driver());
        Daemon &d = lab.Start();
        auto status = d.WaitExit(25s);
        ASSERT_TRUE(status.has_value()) << "the daemon hangs";
        EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
        ExpectNothingLeftBehind(lab);
        EXPECT_EQ(Seen(lab.driver().Requests(), true), row.conversation);
        struct stat st {};
        EXPECT_EQ(::stat(kPidFilePath, &st) == 0, !row.conversation.empty()) << "the pid file comes before START";
        std::vector<std::string> records = row.records;
        if (row.conversation.size() == 2) {
            records.insert(records.end(), getChain.begin(), getChain.end());
        }
        auto trace = lab.TraceLog();
        std::vector<long> order;
        for (const auto &text : records) {
            order.push_back(IndexOf(trace, text));
            EXPECT_GE(order.back(), 0) << "no record \"" << text << "\"";
        }
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
        EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a thread did not stop when asked";
    }
}

// udev has 8:0 and 8:16; the driver holds 8:16, 8:32 (two blanks between
// them count as one) and 200 more numbers. Its first two answers ask for
// less than the list needs, then it answers as a driver does: 1038 with the
// full length, then the list.
TEST(Startup, TheScansBatchComesBeforeReadyThenASecondInstanceIsRefused)
{
    Lab lab;
    BlockDevice sda = lab.testbed().AddLocalDisk({.target = 0});
    BlockDevice sdb = lab.testbed().AddLocalDisk({.target = 1});
    ASSERT_EQ(sda.DevNum() + " " + sdb.DevNum(), "8:0 8:16");
    std::string list = "8:16  8:32";
    std::vector<std::string> expected = {"START", "GET", "GET", "GET", "GET", "ADD 8:0", "ADD 8:16", "REMOVE 8:32"};
    for (int minor = 1000; minor < 1200; ++minor) {
        list += " 259:" + std::to_string(minor);
        expected.push_back("REMOVE 259:" + std::to_string(minor));
    }
    lab.driver().SetDeviceListText(list);
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1100));
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1400));
    Daemon &d = lab.Start();
    auto ready = lab.WaitNotify("READY=1", 60s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    EXPECT_EQ(ready->pid, d.Pid());
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, "259:1199")) << d.Stderr();

    auto all = lab.driver().Requests();
    ASSERT_GE(all.size(), 2u);
    EXPECT_TRUE(all[0].op == DriverOp::Open && all[0].pid == d.Pid());
    EXPECT_TRUE(all[1].op == DriverOp::Start && all[1].argNull) << "START, without a record, comes first";
    EXPECT_EQ(Seen(all, true), expected);
    for (const auto &r : all) {
        if (r.op == DriverOp::Start || r.op == DriverOp::Get) {
            EXPECT_LT(r.stamp.seq, ready->stamp.seq) << DriverOpName(r.op) << " after READY=1";
        }
    }
    std::vector<uint32_t> offered;
    for (const auto &g : lab.driver().Requests(DriverOp::Get)) {
        offered.push_back(g.bufLen);
    }
    EXPECT_EQ(offered, (std::vector<uint32_t>{1024, 1101, 1401, static_cast<uint32_t>(list.size() + 1)}));

    // The pid file: the pid's digits and one NUL, mode 0644.
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid()));
    struct stat st {};
    ASSERT_EQ(::stat(kPidFilePath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // A second instance is refused and leaves the pid file alone.
    Daemon &second = lab.Start();
    auto status = second.WaitExit(60s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->Describe(), "exit 1") << second.Stderr();
    EXPECT_EQ(NotifyTexts(lab, second.Pid()), std::vector<std::string>{"STATUS=shutdown"});
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid()));
    EXPECT_TRUE(d.Running());

    // SIGTERM has no handler: the process just ends, without "STATUS=shutdown".
    ExitStatus stopped = d.Stop();
    EXPECT_TRUE(stopped.signaled && stopped.signal == SIGTERM) << stopped.Describe();
    EXPECT_EQ(NotifyTexts(lab, d.Pid()), std::vector<std::string>{"READY=1"});
}

// Held at START and again at GET: the configuration is read after START (the
// files written while it is held are the ones used) and only once; events
// that come while the scan waits for the driver's list are handled after the
// scan's batch; readiness after the scan.
TEST(Startup, ConfigurationAfterStartAndEventsDuringTheScanAfterItsBatch)
{
    Lab lab({.sandbox = {.vendorConfig = std::nullopt, .timeoutConfig = std::nullopt}});
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice sda = tb.AddLocalDisk({.target = 0});
    BlockDevice sdb = tb.AddLocalDisk({.target = 1});
    lab.driver().SetDeviceList({kEndOfScan});
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
    EXPECT_EQ(Seen(lab.driver().Requests(), true),
              (std::vector<std::string>{"START", "GET", Req(DriverOp::Add, sda.DevNum()),
                                        Req(DriverOp::Add, sdb.DevNum()), Req(DriverOp::Remove, kEndOfScan),
                                        Req(DriverOp::Add, sdc.DevNum()), Req(DriverOp::Add, sdd.DevNum())}));
    ASSERT_TRUE(lab.WaitNotify("READY=1", 30s));
    ASSERT_TRUE(tb.WaitAttributeWrites(4, 30s));
    for (const BlockDevice *disk : {&sda, &sdb, &sdc, &sdd}) {
        EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), "7") << disk->name;
    }
}

TEST(Startup, MissingOrReadOnlyLogDirectoryLosesTheRecordsOnly)
{
    for (LogDir dir : {LogDir::Missing, LogDir::ReadOnly}) {
        SCOPED_TRACE(dir == LogDir::Missing ? "missing" : "read-only");
        Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n", .logDir = dir}});
        BlockDevice disk = lab.testbed().AddLocalDisk();
        Daemon &d = lab.Start();
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        ASSERT_TRUE(lab.testbed().WaitAttributeWrites(1, 30s)) << "the disk was not served in full";
        BlockDevice hot = lab.testbed().AddIscsiDisk();
        ASSERT_EQ(lab.testbed().Emit(hot.syspath, "add"), 1u);
        EXPECT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, hot.DevNum())) << d.Stderr();
        EXPECT_FALSE(ReadFile(kTraceLogPath).has_value()) << "a trace file appeared";
        EXPECT_TRUE(d.Running());
    }
}

}  // namespace
}  // namespace qmlab::test
