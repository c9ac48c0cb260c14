// The daemon under injected faults, end to end: a driver that is missing,
// refuses, fails or answers with hostile records; sysfs writes that fail and
// devices that vanish under the daemon's feet; an lvm that fails or hangs; a
// trace-log directory that is missing or read-only. Whatever happens, the
// daemon neither crashes nor hangs: it ends with status 1 and "STATUS=shutdown"
// when it cannot start, and otherwise goes on serving the driver.
#include <algorithm>
#include <ctime>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

constexpr const char *kEndOfScan = "8:240";  // see timeout_test.cpp

// A failed start: status 1, "STATUS=shutdown" as the only notification, no
// crash, in bounded time.
void ExpectFailedStart(Lab &lab, Daemon &d)
{
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not end";
    EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
}

// Seconds since the epoch of a trace record's time stamp (local time, as
// the daemon's clock gave it).
long RecordSeconds(const TraceRecord &r)
{
    std::tm tm{};
    if (::strptime(r.time.c_str(), "%Y-%m-%d %H:%M:%S", &tm) == nullptr) {
        return -1;
    }
    tm.tm_isdst = -1;
    return static_cast<long>(std::mktime(&tm));
}

const TraceRecord *FirstRecord(const std::vector<TraceRecord> &records, const std::string &text,
                               const std::string &also)
{
    for (const auto &r : records) {
        if (r.message.find(text) != std::string::npos && r.message.find(also) != std::string::npos) {
            return &r;
        }
    }
    return nullptr;
}

std::vector<std::string> Sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// --- The driver's device. ---------------------------------------------------

TEST(FaultsDriverOpen, DeviceThatCannotBeOpenedStopsTheStartBeforeThePidFile)
{
    struct Row {
        const char *name;
        bool present;
        int openError;
    };
    for (const Row &row : {Row{"missing", false, 0}, Row{"permission denied", true, EACCES},
                           Row{"busy", true, EBUSY}}) {
        SCOPED_TRACE(row.name);
        Lab lab;
        lab.driver().SetPresent(row.present);
        lab.driver().SetOpenError(row.openError);
        Daemon &d = lab.Start();
        ExpectFailedStart(lab, d);
        struct stat st {};
        EXPECT_NE(::stat(kPidFilePath, &st), 0) << "the pid file was made";
        EXPECT_EQ(lab.driver().Count(DriverOp::Start), 0u);
        EXPECT_TRUE(lab.WaitTrace("Failed to open /dev/misc_qmnv.", 10s));
    }
}

TEST(FaultsDriverStart, RefusedStartStopsTheDaemonBeforeTheScan)
{
    struct Row {
        DriverReply reply;
        const char *record;
    };
    for (const Row &row : {Row{DriverReply::Fail(EIO), "misc ioctl start fail with ret=-1."},
                           Row{DriverReply::Fail(EINVAL, -22), "misc ioctl start fail with ret=-22."}}) {
        SCOPED_TRACE(row.record);
        Lab lab;
        lab.testbed().AddFcDisk();
        lab.driver().SetDefault(DriverOp::Start, row.reply);
        Daemon &d = lab.Start();
        ExpectFailedStart(lab, d);
        EXPECT_TRUE(lab.WaitTrace(row.record, 10s));
        EXPECT_TRUE(lab.WaitTrace("Failed to trigger ioctl.", 10s));
        EXPECT_EQ(lab.driver().Count(DriverOp::Get), 0u);
        EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u);
    }
}

// --- The scan's GET. -----------------------------------------------------------

TEST(FaultsDriverGet, EveryIoctlFailingAfterStartEndsTheDaemon)
{
    Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n"}});
    lab.testbed().AddFcDisk();
    lab.testbed().AddIscsiDisk();
    for (DriverOp op : {DriverOp::Get, DriverOp::Add, DriverOp::Remove, DriverOp::Change}) {
        lab.driver().SetDefault(op, DriverReply::Fail(EIO));
    }
    Daemon &d = lab.Start();
    ExpectFailedStart(lab, d);
    EXPECT_EQ(lab.driver().Count(DriverOp::Get), 1u);
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u) << "the scan's batch is dropped whole";
    // The handle thread's own end may or may not be logged, as the shutdown's
    // cancellation or its wake-up wins.
    auto errors = TraceErrors(lab.TraceLog());
    std::erase(errors, std::string("udev handle thread run failed.\n"));
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "get device numbers fail with ret=-1.\n",
                          "ioctl inquiry failed.\n",
                          "get devices from kernel failed.\n",
                          "Update physical device failed.\n",
                          "synchronization physical device failed.\n",
                      }));
}

TEST(FaultsDriverGet, FailedOrHostileReplyIsAFailedGetNotACrash)
{
    auto withLengths = [](uint32_t status, std::string data, std::optional<uint32_t> dataLen,
                          std::optional<uint32_t> needLen) {
        DriverReply r;
        r.status = status;
        r.data = std::move(data);
        r.dataLen = dataLen;
        r.needLen = needLen;
        return r;
    };
    struct Row {
        const char *name;
        DriverReply reply;
        const char *record;
    };
    const std::vector<Row> rows = {
        {"ioctl fails", DriverReply::Fail(EIO), "get device numbers fail with ret=-1."},
        {"driver status 1030", DriverReply::Status(1030), "alloc devnums fail with ret{1030}."},
        // The first GET offers 1024 bytes of data; a longer text cannot have
        // come back in them.
        {"dataLen past the data area", withLengths(1024, "8:16", 1026, std::nullopt),
         "alloc devnums: reply dataLen{1026} exceeds its data area{1024}."},
        {"dataLen near 4 GiB", withLengths(1024, "8:16", 0xfffffff0u, std::nullopt),
         "alloc devnums: reply dataLen{4294967280} exceeds its data area{1024}."},
        {"needLen past 16 MiB", DriverReply::BufferShort(16u * 1024u * 1024u + 1u),
         "get device numbers: driver asks for len{16777217}, above the limit{16777216}."},
        {"needLen near 4 GiB", DriverReply::BufferShort(0xffffffffu),
         "get device numbers: driver asks for len{4294967295}, above the limit{16777216}."},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab;
        lab.testbed().AddFcDisk();
        lab.driver().SetDefault(DriverOp::Get, row.reply);
        Daemon &d = lab.Start();
        ExpectFailedStart(lab, d);
        auto trace = lab.TraceLog();
        EXPECT_TRUE(TraceContains(trace, row.record)) << "no record \"" << row.record << "\"";
        EXPECT_TRUE(TraceContains(trace, "synchronization physical device failed."));
        EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u);
        EXPECT_EQ(lab.driver().Count(DriverOp::Remove), 0u);
    }
}

TEST(FaultsDriverGet, GrowingNeedLenIsFollowedToTheFinalList)
{
    Lab lab;
    std::vector<std::string> held;
    for (int minor = 0; minor < 200; ++minor) {
        held.push_back("259:" + std::to_string(1000 + minor));
    }
    std::string list;
    for (const auto &n : held) {
        list += (list.empty() ? "" : " ") + n;
    }
    ASSERT_GT(list.size(), 1500u);
    lab.driver().SetDeviceList(held);
    // Two replies that ask for less than the list needs, then the driver's
    // own answer: 1038 with the full length, then the list.
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

// --- Events the driver refuses. ------------------------------------------------

TEST(FaultsDriverEvent, RefusedEventsAreSentAgainAfterTwoMinutesUntilTaken)
{
    struct Row {
        const char *name;
        DriverOp op;
        DriverReply first;
        const char *firstRecord;  // logged before the node is marked for retry
    };
    Lab lab;
    Testbed &tb = lab.testbed();
    BlockDevice ioctlFails = tb.AddFcDisk({.port = 7, .lun = 3});
    BlockDevice refused = tb.AddIscsiDisk();
    BlockDevice notAnAddCode = tb.AddLocalDisk();
    const std::vector<std::pair<std::string, Row>> rows = {
        {ioctlFails.DevNum(), {"ADD ioctl fails", DriverOp::Add, DriverReply::Fail(EIO), "fail with ret{-1}."}},
        {refused.DevNum(), {"ADD refused", DriverOp::Add, DriverReply::Status(1030), "with ret{1030}."}},
        // 1055 ends a remove or a change, not an add.
        {notAnAddCode.DevNum(), {"ADD answered 1055", DriverOp::Add, DriverReply::Status(1055), "with ret{1055}."}},
        // 1052 ends an add, not a remove.
        {kEndOfScan, {"REMOVE answered 1052", DriverOp::Remove, DriverReply::Status(1052), "with ret{1052}."}},
    };
    for (const auto &[devNum, row] : rows) {
        lab.driver().QueueFor(row.op, devNum, row.first);
    }
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(lab.driver().WaitFor(
        [](const std::vector<DriverRequest> &all) {
            return std::count_if(all.begin(), all.end(), [](const DriverRequest &r) {
                       return (r.op == DriverOp::Add || r.op == DriverOp::Remove) && r.answered;
                   }) >= 8;
        },
        90s))
        << d.Stderr();

    auto trace = lab.TraceLog();
    for (const auto &[devNum, row] : rows) {
        SCOPED_TRACE(row.name);
        std::vector<DriverRequest> sent;
        for (const auto &r : lab.driver().Requests(row.op)) {
            if (r.DevNum() == devNum) {
                sent.push_back(r);
            }
        }
        ASSERT_EQ(sent.size(), 2u) << "refused once, then taken, then never again";
        EXPECT_EQ(sent[1].status, 1024u);
        std::string action = row.op == DriverOp::Add ? "add" : "remove";
        EXPECT_TRUE(TraceContains(trace, "add retry udev event " + action + "(" + devNum + ")."));
        // Not before two minutes of the daemon's own clock. An ADD's records
        // carry its text, which starts with the device number and a blank.
        std::string key = "{" + devNum + (row.op == DriverOp::Add ? " " : "}");
        std::string takenText = "action{" + action + "} with ret{1024}.";
        // The daemon logs the answer after the driver has given it.
        EXPECT_TRUE(Eventually([&] {
            trace = lab.TraceLog();
            return FirstRecord(trace, key, takenText) != nullptr;
        }));
        const TraceRecord *failed = FirstRecord(trace, key, row.firstRecord);
        const TraceRecord *taken = FirstRecord(trace, key, takenText);
        ASSERT_NE(failed, nullptr);
        ASSERT_NE(taken, nullptr);
        EXPECT_GE(RecordSeconds(*taken) - RecordSeconds(*failed), 120) << failed->raw << taken->raw;
    }
}

// --- sysfs. ---------------------------------------------------------------------

TEST(FaultsSysfs, FailedOrVanishedTimeoutTargetsAreLoggedAndTheDaemonGoesOn)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nrecovery_tmo = 20\n"
                                          "scsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    BlockDevice iscsi = tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1});
    BlockDevice local = tb.AddLocalDisk({.host = 0, .target = 2});
    tb.FailAttributeWrites(iscsi.transport, "recovery_tmo");
    tb.FailAttributeWrites(local.scsiDevice, "timeout");
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Remove, kEndOfScan, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());

    EXPECT_EQ(WritesTo(tb, iscsi.transport), std::vector<std::string>{});
    EXPECT_EQ(WritesTo(tb, iscsi.scsiDevice), std::vector<std::string>{"timeout=60"});
    EXPECT_EQ(WritesTo(tb, local.scsiDevice), std::vector<std::string>{});
    // EROFS is 30. The two disks come in the scan's order, whichever it is.
    EXPECT_EQ(Sorted(TraceErrors(lab.TraceLog())),
              Sorted({
                  "set udev device's attr{recovery_tmo} val{120 to 20} fail. error{30}\n",
                  "dev{" + iscsi.DevNum() + "} set session{session5} recovery_tmo fail.\n",
                  "set udev device's attr{timeout} val{30 to 60} fail. error{30}\n",
                  "device{" + local.DevNum() + ",0:0:2:0} set timeout fail.\n",
              }));

    // A port that vanishes while the driver still holds the disk's ADD.
    lab.driver().Hold(DriverOp::Add);
    BlockDevice fc = tb.AddFcDisk({.port = 7, .lun = 3});
    ASSERT_EQ(tb.Emit(fc.syspath, "add"), 1u);
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s)) << d.Stderr();
    tb.Remove(fc.transport);
    lab.driver().Release();
    ASSERT_TRUE(tb.WaitAttributeWrites(2, 30s)) << "the device's own time-out still follows";
    EXPECT_EQ(WritesTo(tb, fc.scsiDevice), std::vector<std::string>{"timeout=60"});
    EXPECT_TRUE(lab.WaitTrace("device{" + fc.DevNum() + "} port{rport-2:0-7} get udev device fail.", 10s));

    // Every event counted as done: nothing is sent again, and the next disk
    // is served with its time-outs.
    BlockDevice next = tb.AddFcDisk({.port = 8, .target = 2, .lun = 0, .devLossTmo = "60"});
    ASSERT_EQ(tb.Emit(next.syspath, "add"), 1u);
    ASSERT_TRUE(tb.WaitAttributeWrites(5, 30s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    EXPECT_EQ(tb.AttributeWrites().size(), 5u);
    EXPECT_EQ(WritesTo(tb, next.transport), (std::vector<std::string>{"dev_loss_tmo=30", "fast_io_fail_tmo=5"}));
    for (const BlockDevice *disk : {&iscsi, &local, &fc, &next}) {
        EXPECT_EQ(CountAdds(lab.driver(), disk->DevNum()), 1u) << disk->name;
    }
    EXPECT_FALSE(TraceContains(lab.TraceLog(), "add retry udev event"));
    EXPECT_TRUE(d.Running());
}

TEST(FaultsScan, DeviceRemovedBetweenEnumerationAndLookupIsSkipped)
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

    EXPECT_EQ(CountAdds(lab.driver(), first.DevNum()), 1u);
    EXPECT_EQ(CountAdds(lab.driver(), gone.DevNum()), 0u);
    EXPECT_EQ(CountAdds(lab.driver(), last.DevNum()), 1u);
    auto trace = lab.TraceLog();
    EXPECT_TRUE(TraceContains(trace, "get device failed devPath:" + gone.syspath + "."));
    EXPECT_TRUE(TraceContains(trace, "get device and devPath{" + gone.syspath + "} fail."));

    BlockDevice hot = tb.AddIscsiDisk();
    ASSERT_EQ(tb.Emit(hot.syspath, "add"), 1u);
    EXPECT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, hot.DevNum(), 30s)) << d.Stderr();
}

// --- lvm. ---------------------------------------------------------------------------

TEST(FaultsLvm, DaemonServesEventsWhetherLvmSucceedsFailsOrHangs)
{
    struct Row {
        const char *name;
        LvmStep step;
        size_t runs;  // runs to wait for before the next disk comes
        bool givesUp;
    };
    // Accelerated twenty times: lvm's five-second debounce is a quarter of a
    // second, a hang of an hour is three minutes, far beyond the test.
    for (const Row &row : {Row{"succeeds", {0, 0}, 1, false}, Row{"fails", {0, 1}, 6, true},
                           Row{"hangs", {3600, 0}, 1, false}}) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = {.lvmPlan = {row.step}}});
        Daemon &d = lab.Start({.timeSpeed = 20});
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        BlockDevice vdisk = lab.testbed().AddBlock({.name = "qmnv0", .major = 252, .minor = 0});
        ASSERT_EQ(lab.testbed().Emit(vdisk.syspath, "add"), 1u);
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(row.runs, 60s)) << d.Stderr();
        if (row.givesUp) {
            EXPECT_TRUE(lab.WaitTrace("the maximum number of retries has been reached.", 30s));
        }
        BlockDevice disk = lab.testbed().AddFcDisk();
        ASSERT_EQ(lab.testbed().Emit(disk.syspath, "add"), 1u);
        EXPECT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, disk.DevNum(), 30s)) << d.Stderr();
        EXPECT_TRUE(lab.testbed().WaitAttributeWrites(2, 30s)) << "its time-outs follow";
        EXPECT_EQ(lab.sandbox().LvmRuns().size(), row.runs);
        EXPECT_EQ(lab.sandbox().LvmRuns().front().args, "pvscan --cache --activate ay");
        EXPECT_TRUE(d.Running());
    }
}

// --- The trace log. ------------------------------------------------------------------

TEST(FaultsTraceLog, MissingOrReadOnlyDirectoryLosesTheRecordsOnly)
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
