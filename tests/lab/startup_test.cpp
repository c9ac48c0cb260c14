// Start-up end to end: every way it fails, the first requests to the driver,
// the pid file and the trace file, the start-up scan's batch against udev's
// disks and the driver's list (however long the list grows, whatever vanishes
// during the scan), and events that come while the scan runs.
#include <csignal>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// START, GET and the events, in the order the driver received them.
std::vector<std::string> Conversation(const Requests &all)
{
    std::vector<std::string> out;
    for (const auto &r : all) {
        if (r.op == DriverOp::Start || r.op == DriverOp::Get) {
            out.push_back(DriverOpName(r.op));
        } else if (r.op == DriverOp::Add || r.op == DriverOp::Remove || r.op == DriverOp::Change) {
            out.push_back(Req(r.op, r.DevNum()));
        }
    }
    return out;
}

std::string PidFileText(int pid)
{
    std::string text = std::to_string(pid);
    text.push_back('\0');
    return text;
}

// --- Failed starts. ----------------------------------------------------------------

DriverReply GetReply(uint32_t dataLen, std::optional<uint32_t> needLen = std::nullopt)
{
    DriverReply r = needLen ? DriverReply::BufferShort(*needLen) : DriverReply::Status(1024);
    if (!needLen) {
        r.data = "8:16";
        r.dataLen = dataLen;
    }
    return r;
}

// Exit 1 in bounded time (below the destroyers' own 30 s wait: a thread that
// would not stop shows as a hang), "STATUS=shutdown" as the only notification,
// nothing left running, the device closed, no request after the failing one,
// and the failure's records in order.
TEST(StartFailure, EndsWithShutdownStatusAndNothingLeftBehind)
{
    const std::vector<const char *> getChain = {"ioctl inquiry failed.", "get devices from kernel failed.",
                                                "Update physical device failed.",
                                                "synchronization physical device failed."};
    struct Row {
        const char *name;
        std::function<void(DriverEmulator &)> script;
        std::vector<std::string> conversation;
        std::vector<std::string> records;  // in this order
        bool giveDriver = true;
        SandboxOptions sandbox = {};
    };
    auto failGet = [](DriverReply reply) {
        return [reply](DriverEmulator &drv) { drv.SetDefault(DriverOp::Get, reply); };
    };
    const std::vector<Row> rows = {
        {"no driver socket", [](DriverEmulator &) {}, {}, {"Failed to open /dev/misc_qmnv."}, false},
        {"device absent", [](DriverEmulator &drv) { drv.SetPresent(false); }, {}, {"Failed to open /dev/misc_qmnv."}},
        {"open refused", [](DriverEmulator &drv) { drv.SetOpenError(EACCES); }, {}, {"Failed to open /dev/misc_qmnv."}},
        {"START fails", [](DriverEmulator &drv) { drv.SetDefault(DriverOp::Start, DriverReply::Fail(EIO)); },
         {"START"}, {"misc ioctl start fail with ret=-1.", "Failed to trigger ioctl."}},
        {"START returns -22", [](DriverEmulator &drv) { drv.SetDefault(DriverOp::Start, DriverReply::Fail(EINVAL, -22)); },
         {"START"}, {"misc ioctl start fail with ret=-22.", "Failed to trigger ioctl."}},
        {"vendor list missing", [](DriverEmulator &) {}, {"START"}, {"open file failed."}, true,
         {.vendorConfig = std::nullopt}},
        {"every ioctl after START fails",
         [](DriverEmulator &drv) {
             for (DriverOp op : {DriverOp::Get, DriverOp::Add, DriverOp::Remove, DriverOp::Change}) {
                 drv.SetDefault(op, DriverReply::Fail(EIO));
             }
         },
         {"START", "GET"}, {"get device numbers fail with ret=-1."}},
        {"GET refused", failGet(DriverReply::Status(1030)), {"START", "GET"}, {"alloc devnums fail with ret{1030}."}},
        // The first GET offers 1024 bytes of data; a longer text cannot have
        // come back in them, and a driver's wish is bounded at 16 MiB.
        {"dataLen past the data area", failGet(GetReply(1026)), {"START", "GET"},
         {"alloc devnums: reply dataLen{1026} exceeds its data area{1024}."}},
        {"dataLen near 4 GiB", failGet(GetReply(0xfffffff0u)), {"START", "GET"},
         {"alloc devnums: reply dataLen{4294967280} exceeds its data area{1024}."}},
        {"needLen past 16 MiB", failGet(GetReply(0, 16u * 1024u * 1024u + 1u)), {"START", "GET"},
         {"get device numbers: driver asks for len{16777217}, above the limit{16777216}."}},
        {"needLen near 4 GiB", failGet(GetReply(0, 0xffffffffu)), {"START", "GET"},
         {"get device numbers: driver asks for len{4294967295}, above the limit{16777216}."}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = row.sandbox});
        lab.testbed().AddLocalDisk();
        row.script(lab.driver());
        DaemonOptions opts;
        opts.driver = row.giveDriver;
        Daemon &d = lab.Start(opts);
        auto status = d.WaitExit(25s);
        ASSERT_TRUE(status.has_value()) << "the daemon hangs";
        EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
        EXPECT_TRUE(LabProcesses(lab).empty()) << "something the daemon started is still running";
        EXPECT_EQ(Conversation(lab.driver().Requests()), row.conversation);
        EXPECT_EQ(lab.driver().OpenCount(), 0) << "the device was not closed";
        if (row.conversation.empty()) {
            struct stat st {};
            EXPECT_NE(::stat(kPidFilePath, &st), 0) << "the pid file was made";
        }
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

// --- A start that works. -------------------------------------------------------------

// udev has 8:0 and 8:16, the driver holds 8:16 and 8:32 (two blanks between
// the numbers count as one).
TEST(Startup, StartThenTheScansBatchThenReadyWithPidFileAndTrace)
{
    Lab lab;
    BlockDevice sda = lab.testbed().AddLocalDisk({.target = 0});
    BlockDevice sdb = lab.testbed().AddLocalDisk({.target = 1});
    ASSERT_EQ(sda.DevNum() + " " + sdb.DevNum(), "8:0 8:16");
    lab.driver().SetDeviceListText("8:16  8:32");
    Daemon &d = lab.Start();
    auto ready = lab.WaitNotify("READY=1", 60s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    EXPECT_EQ(ready->pid, d.Pid());
    ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Remove, "8:32", 30s));

    auto all = lab.driver().Requests();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0].op, DriverOp::Open);
    EXPECT_EQ(all[0].pid, d.Pid());
    EXPECT_TRUE(all[1].op == DriverOp::Start && all[1].argNull) << "START, without a record, comes first";
    EXPECT_EQ(Conversation(all), (std::vector<std::string>{"START", "GET", "ADD 8:0", "ADD 8:16", "REMOVE 8:32"}));
    for (const auto &r : all) {
        if (r.op != DriverOp::Open) {
            EXPECT_LT(r.stamp.seq, ready->stamp.seq) << DriverOpName(r.op) << " " << r.text << " after READY=1";
        }
    }
    EXPECT_EQ(RequestsFor(lab.driver(), DriverOp::Remove).at(0).text, "8:32");

    // The pid file: the pid's digits and one NUL, mode 0644.
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid()));
    struct stat st {};
    ASSERT_EQ(::stat(kPidFilePath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // Every trace record parses back, numbered from 1.
    ASSERT_TRUE(lab.WaitTrace("qmudev start successfully", 10s));
    auto records = lab.TraceLog();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0].sequence, 1);
    for (size_t i = 0; i < records.size(); ++i) {
        const TraceRecord &r = records[i];
        SCOPED_TRACE(r.raw);
        EXPECT_TRUE(i == 0 || r.sequence > records[i - 1].sequence);
        EXPECT_EQ(r.magic, 0x5342u);
        EXPECT_EQ(r.module, 22u);
        EXPECT_EQ(r.zero, 0u);
        EXPECT_EQ(static_cast<long>(r.keyLine), r.line);
        EXPECT_EQ(r.moduleName, "UDEV");
        EXPECT_TRUE(r.level == "INFO" || r.level == "WARN" || r.level == "ERROR") << r.level;
        EXPECT_EQ(r.time.size(), 19u);
        EXPECT_FALSE(r.function.empty());
    }

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

// Held at START and again at GET: the pid file comes before START; the
// configuration is read after START (the files written while it is held are
// the ones used) and only once; events that come while the scan waits for the
// driver's list are handled after the scan's batch; readiness after the scan.
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
    EXPECT_EQ(ReadFile(kPidFilePath), PidFileText(d.Pid())) << "the pid file comes before START";
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
    EXPECT_EQ(Conversation(lab.driver().Requests()),
              (std::vector<std::string>{"START", "GET", Req(DriverOp::Add, sda.DevNum()),
                                        Req(DriverOp::Add, sdb.DevNum()), Req(DriverOp::Remove, kEndOfScan),
                                        Req(DriverOp::Add, sdc.DevNum()), Req(DriverOp::Add, sdd.DevNum())}));
    auto ready = lab.WaitNotify("READY=1", 30s);
    ASSERT_TRUE(ready.has_value());
    EXPECT_GT(ready->stamp.seq, RequestsFor(lab.driver(), DriverOp::Get).at(0).stamp.seq);
    ASSERT_TRUE(tb.WaitAttributeWrites(4, 30s));
    for (const BlockDevice *disk : {&sda, &sdb, &sdc, &sdd}) {
        EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), "7") << disk->name;
    }
}

// Two replies ask for less than the list needs, then the driver's own
// answer: 1038 with the full length, then the list.
TEST(Startup, GrowingNeedLenIsFollowedToTheFinalList)
{
    Lab lab;
    std::vector<std::string> held;
    std::string list;
    for (int minor = 0; minor < 200; ++minor) {
        held.push_back("259:" + std::to_string(1000 + minor));
        list += (list.empty() ? "" : " ") + held.back();
    }
    lab.driver().SetDeviceList(held);
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1100));
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(1400));
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();

    std::vector<uint32_t> offered;
    for (const auto &g : lab.driver().Requests(DriverOp::Get)) {
        offered.push_back(g.bufLen);
    }
    EXPECT_EQ(offered, (std::vector<uint32_t>{1024, 1101, 1401, static_cast<uint32_t>(list.size() + 1)}));
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, held.size(), 60s));
    std::vector<std::string> removed;
    for (const auto &r : lab.driver().Requests(DriverOp::Remove)) {
        removed.push_back(r.text);
    }
    EXPECT_EQ(removed, held) << "every number of the final list, in its order";
}

TEST(Startup, DeviceRemovedBetweenEnumerationAndLookupIsSkipped)
{
    Lab lab;
    Testbed &tb = lab.testbed();
    BlockDevice first = tb.AddFcDisk({.port = 7, .target = 1, .lun = 3});
    BlockDevice gone = tb.AddFcDisk({.port = 7, .target = 1, .lun = 4});
    BlockDevice last = tb.AddFcDisk({.port = 7, .target = 1, .lun = 5});
    // The scan reads the first disk's vendor only after it has enumerated
    // every disk: that is when the second one goes.
    tb.OnFirstOpen(first.scsiDevice, "vendor", [&tb, &gone] { tb.Remove(gone.syspath); });
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(tb.WaitFirstOpen(10s));
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, 2, 30s)) << d.Stderr();
    EXPECT_EQ(Seen(lab.driver().Requests()),
              (std::vector<std::string>{Req(DriverOp::Add, first.DevNum()), Req(DriverOp::Add, last.DevNum())}));
    auto trace = lab.TraceLog();
    EXPECT_GE(IndexOf(trace, "get device failed devPath:" + gone.syspath + "."), 0);
    EXPECT_GE(IndexOf(trace, "get device and devPath{" + gone.syspath + "} fail."), 0);

    BlockDevice hot = tb.AddIscsiDisk();
    ASSERT_EQ(tb.Emit(hot.syspath, "add"), 1u);
    EXPECT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, hot.DevNum(), 30s)) << d.Stderr();
}

TEST(Startup, MissingOrReadOnlyLogDirectoryLosesTheRecordsOnly)
{
    for (LogDir dir : {LogDir::Missing, LogDir::ReadOnly}) {
        SCOPED_TRACE(dir == LogDir::Missing ? "missing" : "read-only");
        Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n", .logDir = dir}});
        BlockDevice disk = lab.testbed().AddLocalDisk();
        Daemon &d = lab.Start({.timeSpeed = 20});
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, disk.DevNum(), 30s)) << d.Stderr();
        ASSERT_TRUE(lab.testbed().WaitAttributeWrites(1, 30s));
        BlockDevice hot = lab.testbed().AddIscsiDisk();
        ASSERT_EQ(lab.testbed().Emit(hot.syspath, "add"), 1u);
        EXPECT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, hot.DevNum(), 30s)) << d.Stderr();
        EXPECT_FALSE(ReadFile(kTraceLogPath).has_value()) << "a trace file appeared";
        EXPECT_TRUE(d.Running());
    }
}

}  // namespace
}  // namespace qmlab::test
