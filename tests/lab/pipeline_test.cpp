// The event pipeline end to end: live udev events through the monitor and
// handle threads of the real daemon to the emulated driver. Which events of
// one batch supersede which, how a refused request is retried (under
// accelerated time), LVM activation of the product's own disks, and the
// daemon's orderly end when a worker thread ends, after events of every kind
// (what is dropped included), with nothing leaked.
#include <cerrno>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// --- Supersession within one batch. ----------------------------------------

TEST(PipelineSupersession, OnlyTheLastAddOrRemoveOfABatchReachesTheDriver)
{
    struct Case {
        const char *name;
        std::vector<const char *> actions;  // sent in this order, in one batch
        std::vector<DriverOp> expected;     // what reaches the driver for the disk
    };
    const std::vector<Case> cases = {
        {"add, remove, add: the last add", {"add", "remove", "add"}, {DriverOp::Add}},
        {"remove, add, remove: the last remove", {"remove", "add", "remove"}, {DriverOp::Remove}},
        {"add then remove: only the remove", {"add", "remove"}, {DriverOp::Remove}},
        {"two changes: both", {"change", "change"}, {DriverOp::Change, DriverOp::Change}},
        {"change then add: only the add", {"change", "add"}, {DriverOp::Add}},
        {"change then remove: only the remove", {"change", "remove"}, {DriverOp::Remove}},
        // The add is sent and freed before the change's turn comes: the
        // change no longer stands with an add and goes out too.
        {"add then change: both", {"add", "change"}, {DriverOp::Add, DriverOp::Change}},
        {"remove then change: both", {"remove", "change"}, {DriverOp::Remove, DriverOp::Change}},
    };

    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice blocker = tb.AddLocalDisk();
    std::vector<BlockDevice> disks;
    for (size_t i = 0; i < cases.size(); ++i) {
        disks.push_back(tb.AddLocalDisk({.target = static_cast<int>(i + 1)}));
    }
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, disks.back().DevNum()));

    // The handle thread blocks in the driver on the blocker's change; the
    // events of every case pile up on the event list meanwhile.
    lab.driver().Hold(DriverOp::Change);
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s));
    std::vector<std::string> expected;
    for (size_t i = 0; i < cases.size(); ++i) {
        for (const char *action : cases[i].actions) {
            ASSERT_TRUE(live.Send(disks[i], action)) << cases[i].name;
        }
        for (DriverOp op : cases[i].expected) {
            expected.push_back(Req(op, disks[i].DevNum()));
        }
    }
    lab.driver().Release();
    // A last event after the batch: anything else of the batch would come
    // before its request.
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum()));
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum(), 2));
    expected.push_back(Req(DriverOp::Change, blocker.DevNum()));
    EXPECT_EQ(Seen(After(lab.driver().Requests(),
                         [&](const DriverRequest &r) {
                             return r.op == DriverOp::Change && r.DevNum() == blocker.DevNum();
                         })),
              expected);
}

// --- Refused requests: kept, and sent again two minutes later. -------------

// The daemon runs twenty times faster; a marker disk's "change" every 300 ms
// of the lab (some 6 s of the daemon) shows each walk of the handle thread.
// A refused request must come again at the first walk at least 120 s of the
// daemon after the refusal, and not at any walk before; a refused ADD that
// its device's REMOVE follows gives way to it and never comes again. The
// ADDs are refused by the start-up scan, the rest live.
TEST(PipelineRetry, RefusedRequestIsSentAgainAtTheFirstWalkTwoMinutesLater)
{
    struct Row {
        const char *name;
        DriverOp op;
        DriverReply first;
        const char *action;
    };
    const Row rows[] = {
        {"ADD refused", DriverOp::Add, DriverReply::Status(1030), "add"},
        {"ADD ioctl fails", DriverOp::Add, DriverReply::Fail(EIO), "add"},
        {"ADD answered 1055, which ends a remove or change", DriverOp::Add, DriverReply::Status(1055), "add"},
        {"REMOVE refused", DriverOp::Remove, DriverReply::Status(1030), "remove"},
        {"REMOVE answered 1052, which ends an add", DriverOp::Remove, DriverReply::Status(1052), "remove"},
        {"CHANGE refused", DriverOp::Change, DriverReply::Status(1030), "change"},
    };
    Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n"}});
    Live live(lab);
    Testbed &tb = lab.testbed();
    DriverEmulator &drv = lab.driver();
    BlockDevice marker = tb.AddLocalDisk({.target = 0});
    std::vector<BlockDevice> disks;
    for (size_t i = 0; i < std::size(rows); ++i) {
        disks.push_back(tb.AddLocalDisk({.target = static_cast<int>(i + 1)}));
        if (rows[i].op == DriverOp::Add) {
            drv.QueueFor(DriverOp::Add, disks[i].DevNum(), rows[i].first);
        }
    }
    BlockDevice dropped = tb.AddLocalDisk({.target = 9});
    drv.QueueFor(DriverOp::Add, dropped.DevNum(), DriverReply::Status(1030));
    Daemon &d = live.Start({.timeSpeed = 20});
    ASSERT_TRUE(WaitAnswered(drv, DriverOp::Add, "", disks.size() + 2)) << d.Stderr();

    ASSERT_TRUE(live.SendRemove(dropped));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, dropped.DevNum()));
    for (size_t i = 0; i < std::size(rows); ++i) {
        if (rows[i].op != DriverOp::Add) {
            drv.QueueFor(rows[i].op, disks[i].DevNum(), rows[i].first);
            ASSERT_TRUE(rows[i].op == DriverOp::Remove ? live.SendRemove(disks[i]) : live.Send(disks[i], "change"));
            ASSERT_TRUE(live.WaitAnswered(rows[i].op, disks[i].DevNum())) << rows[i].name;
        }
    }
    const std::string walkRecord = DriverRecord(marker.DevNum(), "change", 1024);
    const std::string droppedRefusal = DriverRecord(ScsiInfo(dropped), "add", 1030);
    ASSERT_TRUE(Eventually(
        [&] {
            live.Send(marker, "change");
            auto all = drv.Requests();
            for (size_t i = 0; i < std::size(rows); ++i) {
                if (CountAnswered(all, rows[i].op, disks[i].DevNum()) < 2) {
                    return false;
                }
            }
            // And walks well past the dropped ADD's two minutes.
            auto trace = lab.TraceLog();
            auto walks = RecordsWith(trace, walkRecord);
            long refused = IndexOf(trace, droppedRefusal);
            return refused >= 0 && !walks.empty() && RecordTime(walks.back()) - RecordTime(trace[refused]) > 125;
        },
        60s, 300ms))
        << d.Stderr();

    ASSERT_TRUE(tb.WaitAttributeWrites(disks.size() + 1, 10s));
    ASSERT_TRUE(tb.SyncAttributeWrites());
    auto trace = lab.TraceLog();
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE(row.name);
        const std::string num = disks[i].DevNum();
        const std::string text = row.op == DriverOp::Add ? ScsiInfo(disks[i]) : num;
        Requests sent = RequestsFor(drv, row.op, num);
        ASSERT_EQ(sent.size(), 2u) << "refused once, accepted once, nothing more";
        EXPECT_EQ(sent[1].status, 1024u);
        EXPECT_EQ(RecordsWith(trace, "add retry udev event " + std::string(row.action) + "(" + num + ").").size(), 1u);

        long refused = IndexOf(trace, row.first.ret < 0 ? std::string(row.action) + "{" + text + "}  fail with ret{-1}."
                                                        : DriverRecord(text, row.action, row.first.status));
        long again = IndexOf(trace, DriverRecord(text, row.action, 1024));
        ASSERT_GE(refused, 0);
        ASSERT_GT(again, refused);
        long tRefused = RecordTime(trace[refused]);
        EXPECT_GE(RecordTime(trace[again]) - tRefused, 120) << "sent again before two minutes";
        size_t walksBetween = 0;
        for (long k = refused + 1; k < again; ++k) {
            if (trace[k].message.find(walkRecord) != std::string::npos) {
                ++walksBetween;
                // Seconds are whole: a walk less than 120 s after the refusal
                // shows at most 120 s later.
                EXPECT_LE(RecordTime(trace[k]) - tRefused, 120) << "a later walk did not send it: " << trace[k].raw;
            }
        }
        EXPECT_GE(walksBetween, 3u) << "the handle thread walked its list while the request waited";
        if (row.op == DriverOp::Add) {
            auto writes = tb.AttributeWrites();
            auto w = std::find_if(writes.begin(), writes.end(),
                                  [&](const AttributeWrite &x) { return x.syspath == disks[i].scsiDevice; });
            ASSERT_NE(w, writes.end());
            EXPECT_GT(w->stamp.seq, sent[1].stamp.seq) << "time-outs written before the ADD was accepted";
        }
    }
    Requests mine;
    for (const auto &r : drv.Requests()) {
        if (r.DevNum() == dropped.DevNum()) {
            mine.push_back(r);
        }
    }
    EXPECT_EQ(Seen(mine), (std::vector<std::string>{Req(DriverOp::Add, dropped.DevNum()),
                                                    Req(DriverOp::Remove, dropped.DevNum())}))
        << "the refused ADD did not give way to its REMOVE";
    EXPECT_FALSE(RecordsWith(trace, "find same udev event " + dropped.DevNum() + ".").empty());
}

// --- LVM activation of the product's own disks. ----------------------------

// A disk on the driver's own block major (252, "quillmesh" in the sandbox's
// /proc/devices). The daemon asks for LVM activation and then drops the
// event (the name is neither "sd" nor "nvme"), with a record of its own time.
BlockDevice AddVirtualDisk(Testbed &tb, unsigned minor)
{
    return tb.AddBlock({.name = "qmvd" + std::to_string(minor), .major = 252, .minor = minor});
}

constexpr const char *kVirtualDiskRecord = "get the device name{qmvd";
constexpr const char *kLvmFailed =
    "run command{/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null} failed.";
constexpr const char *kLvmGaveUp = "the maximum number of retries has been reached.";

// Until the daemon's clock, as its latest trace record shows it, reaches `t`;
// each nudge (a dropped event) makes a fresh record.
bool WaitDaemonTime(Lab &lab, Live &live, long t)
{
    return Eventually(
        [&] {
            live.Nudge();
            auto trace = lab.TraceLog();
            return !trace.empty() && RecordTime(trace.back()) >= t;
        },
        60s, 20ms);
}

// Twenty times faster, so every time below is the daemon's own (trace record
// times). Four adds two seconds apart, then the plan's runs. Each run comes
// five main-loop turns after the latest request (an add, or a failed run
// before it): at least 3 s in whole-second stamps of records made a moment
// after the request. After the last run, ten more seconds bring no other.
TEST(PipelineLvm, RunsFiveSecondsAfterTheLastAddRetriesFiveTimesAndAHangBlocksNothing)
{
    struct Row {
        const char *name;
        std::vector<LvmStep> plan;
        size_t runs, failures;
    };
    const Row rows[] = {
        {"always fails", {{0, 1}}, 6, 6},
        {"fails twice, then works", {{0, 1}, {0, 1}, {0, 0}}, 3, 2},
        {"hangs", {{3600, 0}}, 1, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = {.lvmPlan = row.plan}});
        Live live(lab);
        Daemon &d = live.Start({.timeSpeed = 20});
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        for (unsigned i = 0; i < 4; ++i) {
            ASSERT_TRUE(live.Send(AddVirtualDisk(lab.testbed(), i), "add"));
            std::string record = kVirtualDiskRecord + std::to_string(i) + "}";
            ASSERT_TRUE(lab.WaitTrace(record, 30s)) << d.Stderr();
            ASSERT_TRUE(WaitDaemonTime(lab, live, RecordTime(RecordsWith(lab.TraceLog(), record).at(0)) + 2));
        }
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(row.runs, 60s)) << d.Stderr();
        if (row.failures == 6) {
            ASSERT_TRUE(lab.WaitTrace(kLvmGaveUp, 30s)) << d.Stderr();
        }
        BlockDevice disk = lab.testbed().AddFcDisk();
        ASSERT_TRUE(live.Send(disk, "add"));
        EXPECT_TRUE(live.WaitAnswered(DriverOp::Add, disk.DevNum())) << d.Stderr();
        EXPECT_TRUE(lab.testbed().WaitAttributeWrites(2, 30s)) << "its time-outs follow";
        auto trace = lab.TraceLog();
        ASSERT_TRUE(WaitDaemonTime(lab, live, RecordTime(trace.back()) + 10));
        EXPECT_EQ(lab.sandbox().LvmRuns().size(), row.runs);

        trace = lab.TraceLog();
        long requested = 0;
        long lastFailure = -1;
        size_t failures = 0;
        for (size_t k = 0; k < trace.size(); ++k) {
            bool failed = trace[k].message.find(kLvmFailed) != std::string::npos;
            if (failed) {
                EXPECT_GE(RecordTime(trace[k]) - requested, 3) << "ran too early: " << trace[k].raw;
                ++failures;
                lastFailure = static_cast<long>(k);
            }
            if (failed || trace[k].message.find(kVirtualDiskRecord) != std::string::npos) {
                requested = RecordTime(trace[k]);
            }
        }
        EXPECT_EQ(failures, row.failures);
        auto gaveUp = RecordsWith(trace, kLvmGaveUp);
        ASSERT_EQ(gaveUp.size(), row.failures == 6 ? 1u : 0u);
        if (!gaveUp.empty()) {
            EXPECT_EQ(gaveUp[0].level, "ERROR");
            EXPECT_GT(IndexOf(trace, kLvmGaveUp), lastFailure);
        }
        for (const auto &run : lab.sandbox().LvmRuns()) {
            EXPECT_EQ(run.args, "pvscan --cache --activate ay");
        }
        EXPECT_TRUE(d.Running());
    }
}

// --- The end of a worker thread, after events of every kind. ---------------

// Whether the daemon that the lab runs carries AddressSanitizer.
bool DaemonUnderAsan()
{
    std::ifstream in(DaemonBinaryPath(), std::ios::binary);
    std::string binary((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return binary.find("__asan_init") != std::string::npos;
}

// The daemon stops in order only from inside: a worker thread that ends sets
// the stop flag, the main loop leaves, the threads are stopped, the lists and
// the configuration are released and main returns 0. Here the monitor thread
// ends on a failed poll (the lab's fault switch) after start-up and events of
// every kind, with one node still waiting for a retry on the handle thread's
// working list. In the ASan build LeakSanitizer runs at that exit (its thread
// log shows that it ran at all); the lab makes every sanitizer report a
// failure.
TEST(PipelineWorkerEnd, FailedMonitorPollStopsTheDaemonInOrderAfterEventsOfEveryKind)
{
    Lab lab;
    Testbed &tb = lab.testbed();
    BlockDevice fc = tb.AddFcDisk({.host = 2, .port = 7, .lun = 1});
    BlockDevice iscsi = tb.AddIscsiDisk({.session = 5, .lun = 1});
    BlockDevice nvme = tb.AddNvmeNamespace(tb.AddNvmeController({.instance = 0}), {.nsIndex = 1});
    BlockDevice refused = tb.AddLocalDisk();
    BlockDevice foreign = tb.AddLocalDisk({.target = 1, .id = {.vendor = "OTHER", .model = "DISK"}});
    BlockDevice part = tb.AddPartition(fc, 1);
    BlockDevice loop = tb.AddLoop(0);
    BlockDevice dm = tb.AddDm(0);
    lab.driver().SetFor(DriverOp::Add, refused.DevNum(), DriverReply::Status(1030));
    lab.driver().SetDeviceList({kEndOfScan});

    const bool asan = DaemonUnderAsan();
    DaemonOptions options;
    if (asan) {
        options.env = {{"LSAN_OPTIONS", "log_threads=1"}};
    }
    Live live(lab);
    Daemon &d = live.Start(options);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, kEndOfScan)) << d.Stderr();
    ASSERT_TRUE(lab.WaitTrace("add retry udev event add(" + refused.DevNum() + ")", 10s));

    // Events the daemon drops (a partition, loop and dm devices, an action it
    // does not handle, a foreign vendor), then three it hands on: once the
    // last is answered, everything before it has been handled.
    for (const BlockDevice *dev : {&part, &loop, &dm}) {
        for (const char *action : {"add", "change", "remove"}) {
            ASSERT_TRUE(live.Send(*dev, action)) << dev->name << " " << action;
        }
    }
    ASSERT_TRUE(live.Send(fc, "move"));
    ASSERT_TRUE(live.Send(foreign, "add"));
    BlockDevice hot = tb.AddFcDisk({.host = 2, .port = 7, .lun = 2});
    ASSERT_TRUE(live.Send(hot, "add"));
    ASSERT_TRUE(live.Send(nvme, "change"));
    ASSERT_TRUE(live.SendRemove(iscsi));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, iscsi.DevNum())) << d.Stderr();
    EXPECT_EQ(Seen(After(lab.driver().Requests(),
                         [](const DriverRequest &r) { return r.op == DriverOp::Remove && r.DevNum() == kEndOfScan; })),
              (std::vector<std::string>{Req(DriverOp::Add, hot.DevNum()), Req(DriverOp::Change, nvme.DevNum()),
                                        Req(DriverOp::Remove, iscsi.DevNum())}));

    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    live.Nudge();
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon kept running after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), (std::vector<std::string>{"READY=1", "STATUS=shutdown"}));
    ExpectNothingLeftBehind(lab);
    EXPECT_EQ(lab.driver().Count(DriverOp::Close), 1u);

    auto trace = lab.TraceLog();
    long pollFailed = IndexOf(trace, "poll func run failed.");
    ASSERT_GE(pollFailed, 0);
    EXPECT_LT(pollFailed, IndexOf(trace, "udev event monitor failed."));
    EXPECT_LT(IndexOf(trace, "udev event monitor failed."), IndexOf(trace, "udev event monitor thread stop running."));
    EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a destroyer waited out its time";
    if (asan) {
        EXPECT_NE(d.Stderr().find("Processing thread"), std::string::npos)
            << "no sign that LeakSanitizer looked at the daemon's exit:\n"
            << d.Stderr();
    }
}

}  // namespace
}  // namespace qmlab::test
