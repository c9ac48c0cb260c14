// The event pipeline end to end: live udev events through the monitor and
// handle threads of the real daemon to the emulated driver. What is dropped,
// what each action carries, which events of one batch supersede which, how a
// refused request is retried (under accelerated time), LVM activation of the
// product's own disks, and the daemon's orderly end when a worker thread ends.
#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// --- What never reaches the driver. ----------------------------------------

TEST(PipelineFilter, PartitionLoopAndDmEventsReachNoRequest)
{
    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice disk = tb.AddLocalDisk();
    BlockDevice part = tb.AddPartition(disk, 1);
    BlockDevice loop = tb.AddLoop(0);
    BlockDevice dm = tb.AddDm(0);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, disk.DevNum()));
    // The start-up scan has its own word for the partition.
    size_t partRecords = RecordsWith(lab.TraceLog(), part.name).size();

    for (const BlockDevice *dev : {&part, &loop, &dm}) {
        for (const char *action : {"add", "change", "remove"}) {
            SCOPED_TRACE(dev->name + " " + action);
            ASSERT_TRUE(live.Send(*dev, action));
        }
    }
    // The handle thread takes events in order: once the disk's change is
    // through, everything sent before it has been handled.
    ASSERT_TRUE(live.Send(disk, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, disk.DevNum()));

    auto after = After(lab.driver().Requests(),
                       [&](const DriverRequest &r) { return r.op == DriverOp::Add && r.DevNum() == disk.DevNum(); });
    EXPECT_EQ(Seen(after), std::vector<std::string>{Req(DriverOp::Change, disk.DevNum())});
    // Loop and dm events reached the daemon and were dropped by name; the
    // monitor's filter keeps partitions out before that.
    auto trace = lab.TraceLog();
    EXPECT_GE(RecordsWith(trace, "get the device name{loop0} of udev device is not support.").size(), 3u);
    EXPECT_GE(RecordsWith(trace, "get the device name{dm-0} of udev device is not support.").size(), 3u);
    EXPECT_EQ(RecordsWith(trace, part.name).size(), partRecords);
}

// --- What each action carries. ---------------------------------------------

TEST(PipelineDispatch, HotDisksReachTheDriverWithTheirTexts)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();

    Testbed &tb = lab.testbed();
    BlockDevice fc = tb.AddFcDisk();
    BlockDevice iscsi = tb.AddIscsiDisk();
    BlockDevice local = tb.AddLocalDisk();
    BlockDevice nvme = tb.AddNvmeNamespace(tb.AddNvmeController({.instance = 0}), {.nsIndex = 1});
    const std::vector<std::pair<BlockDevice, std::string>> cases = {
        {fc, ScsiInfo(fc)},
        {iscsi, ScsiInfo(iscsi)},
        {local, ScsiInfo(local)},
        {nvme, nvme.DevNum() + " nvme QMESH NVDISK " + nvme.hctl},
    };
    for (const auto &[disk, info] : cases) {
        SCOPED_TRACE(disk.name);
        const std::string num = disk.DevNum();
        ASSERT_TRUE(live.Send(disk, "add"));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, num));
        ASSERT_TRUE(live.Send(disk, "change"));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, num));
        ASSERT_TRUE(live.SendRemove(disk));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, num));

        std::vector<std::string> texts;
        for (const auto &r : lab.driver().Requests()) {
            if (r.DevNum() == num && (r.op == DriverOp::Add || r.op == DriverOp::Change || r.op == DriverOp::Remove)) {
                texts.push_back(std::string(DriverOpName(r.op)) + " [" + r.text + "]");
            }
        }
        EXPECT_EQ(texts, (std::vector<std::string>{"ADD [" + info + "]", "CHANGE [" + num + "]",
                                                   "REMOVE [" + num + "]"}));
    }
}

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

    auto afterBlocker = [&](const Requests &all) {
        return Seen(After(all, [&](const DriverRequest &r) {
            return r.op == DriverOp::Change && r.DevNum() == blocker.DevNum();
        }));
    };
    ASSERT_TRUE(live.WaitRequests([&](const Requests &all) { return afterBlocker(all).size() >= expected.size(); },
                                  30s));
    // A last event after the batch: anything else of the batch would come
    // before its request.
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum(), 2));
    expected.push_back(Req(DriverOp::Change, blocker.DevNum()));
    EXPECT_EQ(afterBlocker(lab.driver().Requests()), expected);
}

// --- Refused requests: kept, and sent again two minutes later. -------------

// The record of a request's first answer: a status, or a failed ioctl.
std::string AnswerRecord(const std::string &text, const std::string &action, const DriverReply &reply)
{
    return reply.ret < 0 ? action + "{" + text + "}  fail with ret{" + std::to_string(reply.ret) + "}."
                         : DriverRecord(text, action, reply.status);
}

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
    };
    const Row rows[] = {
        {"ADD refused", DriverOp::Add, DriverReply::Status(1030)},
        {"ADD ioctl fails", DriverOp::Add, DriverReply::Fail(EIO)},
        {"ADD answered 1055, which ends a remove or change", DriverOp::Add, DriverReply::Status(1055)},
        {"REMOVE refused", DriverOp::Remove, DriverReply::Status(1030)},
        {"REMOVE answered 1052, which ends an add", DriverOp::Remove, DriverReply::Status(1052)},
        {"CHANGE refused", DriverOp::Change, DriverReply::Status(1030)},
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
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(WaitAnswered(drv, DriverOp::Add, disks.size() + 2, 30s));

    ASSERT_TRUE(live.SendRemove(dropped));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, dropped.DevNum()));
    for (size_t i = 0; i < std::size(rows); ++i) {
        if (rows[i].op == DriverOp::Add) {
            continue;
        }
        drv.QueueFor(rows[i].op, disks[i].DevNum(), rows[i].first);
        ASSERT_TRUE(rows[i].op == DriverOp::Remove ? live.SendRemove(disks[i]) : live.Send(disks[i], "change"));
        ASSERT_TRUE(live.WaitAnswered(rows[i].op, disks[i].DevNum())) << rows[i].name;
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
            return refused >= 0 && !walks.empty() &&
                   RecordTime(walks.back()).value_or(0) - RecordTime(trace[refused]).value_or(0) > 125;
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
        const std::string action = row.op == DriverOp::Add ? "add" : row.op == DriverOp::Remove ? "remove" : "change";
        const std::string text = row.op == DriverOp::Add ? ScsiInfo(disks[i]) : num;
        Requests sent = RequestsFor(drv, row.op, num);
        ASSERT_EQ(sent.size(), 2u) << "refused once, accepted once, nothing more";
        EXPECT_EQ(sent[1].status, 1024u);
        EXPECT_EQ(RecordsWith(trace, "add retry udev event " + action + "(" + num + ").").size(), 1u);

        long refused = IndexOf(trace, AnswerRecord(text, action, row.first));
        long again = IndexOf(trace, DriverRecord(text, action, 1024));
        ASSERT_GE(refused, 0);
        ASSERT_GT(again, refused);
        long tRefused = RecordTime(trace[refused]).value_or(0);
        EXPECT_GE(RecordTime(trace[again]).value_or(0) - tRefused, 120) << "sent again before two minutes";
        size_t walksBetween = 0;
        for (long k = refused + 1; k < again; ++k) {
            if (trace[k].message.find(walkRecord) != std::string::npos) {
                ++walksBetween;
                // Seconds are whole: a walk less than 120 s after the refusal
                // shows at most 120 s later.
                EXPECT_LE(RecordTime(trace[k]).value_or(0) - tRefused, 120)
                    << "a walk after the two minutes did not send it again: " << trace[k].raw;
            }
        }
        EXPECT_GE(walksBetween, 3u) << "the handle thread walked its list while the request waited";
        if (row.op == DriverOp::Add) {
            auto writes = tb.AttributeWrites();
            auto w = std::find_if(writes.begin(), writes.end(),
                                  [&](const AttributeWrite &x) { return x.syspath == disks[i].scsiDevice; });
            ASSERT_NE(w, writes.end());
            EXPECT_EQ(w->value, "60");
            EXPECT_GT(w->stamp.seq, sent[1].stamp.seq) << "time-outs written before the ADD was accepted";
        }
    }
    EXPECT_EQ(Seen(RequestsFor(drv, DriverOp::Add, dropped.DevNum())), std::vector<std::string>{Req(DriverOp::Add, dropped.DevNum())})
        << "the dropped ADD came again";
    EXPECT_EQ(RequestsFor(drv, DriverOp::Remove, dropped.DevNum()).size(), 1u);
    EXPECT_FALSE(RecordsWith(trace, "find same udev event " + dropped.DevNum() + ".").empty());
    EXPECT_TRUE(WritesTo(tb, dropped.scsiDevice).empty());
}

// --- LVM activation of the product's own disks. ----------------------------

// A disk on the driver's own block major (252, "quillmesh" in the sandbox's
// /proc/devices). The daemon asks for LVM activation and then drops the
// event: the name is neither "sd" nor "nvme".
BlockDevice AddVirtualDisk(Testbed &tb, unsigned minor)
{
    return tb.AddBlock({.name = "qmvd" + std::to_string(minor), .major = 252, .minor = minor});
}

constexpr const char *kLvmFailed =
    "run command{/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null} failed.";
constexpr const char *kLvmGaveUp = "the maximum number of retries has been reached.";

// Real time: the five-second settling is counted in the main loop's
// one-second turns, and these bounds are about that count. The bursts' pace
// is the scenario itself, not a wait for something.
TEST(PipelineLvm, BurstOfAddsRunsLvmOnceFiveSecondsAfterTheLast)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    unsigned minor = 0;
    for (unsigned burst : {1u, 4u}) {
        SCOPED_TRACE(std::to_string(burst) + " adds two seconds apart");
        size_t runs = lab.sandbox().LvmRuns().size();
        auto start = Clock::now();
        Clock::time_point last;
        for (unsigned i = 0; i < burst; ++i) {
            std::this_thread::sleep_until(start + i * 2s);
            EXPECT_EQ(lab.sandbox().LvmRuns().size(), runs) << "lvm ran inside the burst, before add " << i;
            last = Clock::now();
            ASSERT_TRUE(live.Send(AddVirtualDisk(lab.testbed(), minor++), "add"));
        }
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(runs + 1, 30s));
        EXPECT_GE(Clock::now() - last, 4s);
        EXPECT_LE(Clock::now() - last, 9s);
        // A run that worked is not repeated (another would come five seconds after it).
        EXPECT_FALSE(lab.sandbox().WaitLvmRuns(runs + 2, 7s)) << "lvm ran again";
    }
    for (const auto &run : lab.sandbox().LvmRuns()) {
        EXPECT_EQ(run.args, "pvscan --cache --activate ay");
    }
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u) << "a virtual disk itself is not added";
}

// Accelerated twenty times: the settling is a quarter of a second, a hang of
// an hour three minutes, far beyond the test. Only counts, order and lower
// bounds in the daemon's own clock are asserted.
TEST(PipelineLvm, FailingLvmGivesUpAfterSixRunsAndAHangingOneBlocksNothing)
{
    struct Row {
        const char *name;
        LvmStep step;
        size_t runs;
    };
    for (const Row &row : {Row{"fails", {0, 1}, 6}, Row{"hangs", {3600, 0}, 1}}) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = {.lvmPlan = {row.step}}});
        Live live(lab);
        Daemon &d = live.Start({.timeSpeed = 20});
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        ASSERT_TRUE(live.Send(AddVirtualDisk(lab.testbed(), 0), "add"));
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(row.runs, 60s)) << d.Stderr();
        if (row.runs > 1) {
            ASSERT_TRUE(lab.WaitTrace(kLvmGaveUp, 30s)) << d.Stderr();
            auto trace = lab.TraceLog();
            auto failures = RecordsWith(trace, kLvmFailed);
            EXPECT_EQ(failures.size(), 6u);
            for (size_t i = 1; i < failures.size(); ++i) {
                EXPECT_GE(RecordTime(failures[i]).value_or(0) - RecordTime(failures[i - 1]).value_or(0), 4)
                    << "each retry waits five turns of the main loop";
            }
            long gaveUp = IndexOf(trace, kLvmGaveUp);
            EXPECT_EQ(trace[gaveUp].level, "ERROR");
            EXPECT_GT(gaveUp, IndexOf(trace, kLvmFailed));
        }
        BlockDevice disk = lab.testbed().AddFcDisk();
        ASSERT_TRUE(live.Send(disk, "add"));
        EXPECT_TRUE(live.WaitAnswered(DriverOp::Add, disk.DevNum())) << d.Stderr();
        EXPECT_TRUE(lab.testbed().WaitAttributeWrites(2, 30s)) << "its time-outs follow";
        // Some two minutes of the daemon's time: no further run.
        EXPECT_FALSE(lab.sandbox().WaitLvmRuns(row.runs + 1, 6s));
        EXPECT_EQ(RecordsWith(lab.TraceLog(), kLvmGaveUp).size(), row.runs > 1 ? 1u : 0u);
        EXPECT_TRUE(d.Running());
    }
}

// --- The end of a worker thread. -------------------------------------------

TEST(PipelineWorkerEnd, FailedMonitorPollStopsTheDaemonInOrder)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(d.WaitMonitorIdle(30s));

    // The monitor sleeps in poll; an event wakes it, and its next poll fails.
    d.FailNextPoll(ENOMEM);
    live.Nudge();

    auto status = d.WaitExit(20s);
    ASSERT_TRUE(status.has_value()) << "the daemon kept running after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), (std::vector<std::string>{"READY=1", "STATUS=shutdown"}));
    EXPECT_TRUE(LabProcesses(lab).empty()) << "something the daemon started is still running";

    auto trace = lab.TraceLog();
    long pollFailed = IndexOf(trace, "poll func run failed.");
    long monitorFailed = IndexOf(trace, "udev event monitor failed.");
    long threadStopped = IndexOf(trace, "udev event monitor thread stop running.");
    ASSERT_GE(pollFailed, 0);
    EXPECT_LT(pollFailed, monitorFailed);
    EXPECT_LT(monitorFailed, threadStopped);
    EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a destroyer waited out its time";
    EXPECT_EQ(lab.driver().OpenCount(), 0);
    EXPECT_EQ(lab.driver().Count(DriverOp::Close), 1u);
}

}  // namespace
}  // namespace qmlab::test
