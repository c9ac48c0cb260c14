// The event pipeline end to end: live udev events through the monitor and
// handle threads of the real daemon to the emulated driver. What is
// dropped, what each action carries, which events of one batch supersede
// which, how a refused request is retried (under accelerated time), LVM
// activation of the product's own disks, and the daemon's orderly end when
// a worker thread ends.
#include <cerrno>

#include <gtest/gtest.h>

#include "flow_support.h"

namespace qmlab::flow {
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
    // Every thread stopped when asked: no destroyer waited out its time.
    EXPECT_TRUE(RecordsWith(trace, "wait stop timeout").empty());
    // The driver's device was closed on the way out.
    EXPECT_EQ(lab.driver().OpenCount(), 0);
    EXPECT_EQ(lab.driver().Count(DriverOp::Close), 1u);
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
    ASSERT_TRUE(live.WaitRequests(
        [&](const Requests &all) { return CountAnswered(all, DriverOp::Add, disks.back().DevNum()) == 1; }, 30s));

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
        return After(all, [&](const DriverRequest &r) {
            return r.op == DriverOp::Change && r.DevNum() == blocker.DevNum();
        });
    };
    ASSERT_TRUE(live.WaitRequests([&](const Requests &all) { return Seen(afterBlocker(all)).size() >= expected.size(); },
                                  30s));
    // A last event after the batch: anything else of the batch would come
    // before its request.
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum(), 2));
    auto seen = Seen(afterBlocker(lab.driver().Requests()));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), Req(DriverOp::Change, blocker.DevNum()));
    seen.pop_back();
    EXPECT_EQ(seen, expected);
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].name);
        std::vector<std::string> mine;
        std::copy_if(seen.begin(), seen.end(), std::back_inserter(mine), [&](const std::string &s) {
            return s.substr(s.find(' ') + 1) == disks[i].DevNum();
        });
        std::vector<std::string> want;
        for (DriverOp op : cases[i].expected) {
            want.push_back(Req(op, disks[i].DevNum()));
        }
        EXPECT_EQ(mine, want);
    }
}

// --- What each action carries. ---------------------------------------------

TEST(PipelineDispatch, HotDisksReachTheDriverWithTheirTexts)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();

    Testbed &tb = lab.testbed();
    NvmeController ctrl = tb.AddNvmeController({.instance = 0});
    struct Case {
        const char *name;
        BlockDevice disk;
        std::string info;  // the ADD's device information
    };
    BlockDevice fc = tb.AddFcDisk();
    BlockDevice iscsi = tb.AddIscsiDisk();
    BlockDevice nvme = tb.AddNvmeNamespace(ctrl, {.nsIndex = 1});
    const std::vector<Case> cases = {
        {"FC disk", fc, ScsiInfo(fc)},
        {"iSCSI disk", iscsi, ScsiInfo(iscsi)},
        {"NVMe namespace", nvme, nvme.DevNum() + " nvme QMESH NVDISK " + nvme.hctl},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string num = c.disk.DevNum();
        ASSERT_TRUE(live.Send(c.disk, "add"));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, num));
        ASSERT_TRUE(live.Send(c.disk, "change"));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, num));
        ASSERT_TRUE(live.SendRemove(c.disk));
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, num));

        std::vector<std::string> texts;
        for (const auto &r : lab.driver().Requests()) {
            if (r.DevNum() == num && (r.op == DriverOp::Add || r.op == DriverOp::Change || r.op == DriverOp::Remove)) {
                texts.push_back(std::string(DriverOpName(r.op)) + " [" + r.text + "]");
            }
        }
        EXPECT_EQ(texts, (std::vector<std::string>{"ADD [" + c.info + "]", "CHANGE [" + num + "]",
                                                   "REMOVE [" + num + "]"}));
    }
}

// --- Refused requests: kept, and sent again two minutes later. -------------

struct RetryCase {
    const char *name;
    DriverOp op;
    const char *action;  // the daemon's word for it
};

// Names the case in test listings (instead of its bytes).
void PrintTo(const RetryCase &c, std::ostream *out)
{
    *out << c.name;
}

class PipelineRetry : public testing::TestWithParam<RetryCase> {};

// The disk is refused once; a second disk's "change" every 300 ms of the
// lab (some 6 s of the daemon at 20 times its speed) shows each walk of the
// handle thread. The refused request must come again at the first walk at
// least 120 s of the daemon after the refusal, and not at any walk before.
TEST_P(PipelineRetry, RefusedRequestIsSentAgainAtTheFirstWalkTwoMinutesLater)
{
    const RetryCase c = GetParam();
    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice marker = tb.AddLocalDisk();
    std::optional<BlockDevice> present;
    if (c.op != DriverOp::Add) {
        present = tb.AddFcDisk();
    }
    DaemonOptions opts;
    opts.timeSpeed = 20;
    Daemon &d = live.Start(opts);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    BlockDevice disk = present ? *present : tb.AddFcDisk();
    const std::string num = disk.DevNum();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, marker.DevNum()));
    if (present) {
        ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, num));
    }
    size_t writesBefore = tb.AttributeWrites().size();

    lab.driver().QueueFor(c.op, num, DriverReply::Status(1030));
    if (c.op == DriverOp::Remove) {
        ASSERT_TRUE(live.SendRemove(disk));
    } else {
        ASSERT_TRUE(live.Send(disk, c.action));
    }
    ASSERT_TRUE(live.WaitAnswered(c.op, num));
    ASSERT_TRUE(Eventually(
        [&] {
            live.Send(marker, "change");
            return CountAnswered(lab.driver().Requests(), c.op, num) >= 2;
        },
        60s, 300ms))
        << d.Stderr();

    auto reqs = lab.driver().Requests(c.op);
    std::vector<uint32_t> statuses;
    for (const auto &r : reqs) {
        if (r.DevNum() == num) {
            statuses.push_back(r.status);
        }
    }
    EXPECT_EQ(statuses, (std::vector<uint32_t>{1030u, 1024u})) << "refused once, accepted once, nothing more";

    // The daemon's clock, from the records of the requests it sent (each
    // written once the driver's answer is in).
    std::string text = c.op == DriverOp::Add ? ScsiInfo(disk) : num;
    ASSERT_TRUE(lab.WaitTrace(DriverRecord(text, c.action, 1024), 10s));
    auto trace = lab.TraceLog();
    long refused = IndexOf(trace, DriverRecord(text, c.action, 1030));
    long again = IndexOf(trace, DriverRecord(text, c.action, 1024));
    ASSERT_GE(refused, 0);
    ASSERT_GT(again, refused);
    long tRefused = RecordTime(trace[refused]).value_or(0);
    long tAgain = RecordTime(trace[again]).value_or(0);
    EXPECT_GE(tAgain - tRefused, 120) << "sent again before its two minutes were over";
    size_t walksBetween = 0;
    for (long i = refused + 1; i < again; ++i) {
        if (trace[i].message.find(DriverRecord(marker.DevNum(), "change", 1024)) != std::string::npos) {
            ++walksBetween;
            // Seconds are whole: a walk less than 120 s after the refusal
            // shows at most 120 s later.
            EXPECT_LE(RecordTime(trace[i]).value_or(0) - tRefused, 120)
                << "a walk after the two minutes did not send it again: " << trace[i].raw;
        }
    }
    EXPECT_GE(walksBetween, 3u) << "the handle thread walked its list while the request waited";
    EXPECT_EQ(RecordsWith(trace, "add retry udev event " + std::string(c.action) + "(" + num + ").").size(), 1u);
    if (c.op == DriverOp::Add) {
        EXPECT_TRUE(tb.WaitAttributeWrites(writesBefore + 2, 10s)) << "time-outs follow the accepted add";
    }
}

INSTANTIATE_TEST_SUITE_P(Actions, PipelineRetry,
                         testing::Values(RetryCase{"Add", DriverOp::Add, "add"},
                                         RetryCase{"Remove", DriverOp::Remove, "remove"},
                                         RetryCase{"Change", DriverOp::Change, "change"}),
                         [](const testing::TestParamInfo<RetryCase> &info) { return std::string(info.param.name); });

TEST(PipelineRetryDrop, RefusedAddGivesWayToALaterRemove)
{
    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice marker = tb.AddLocalDisk();
    DaemonOptions opts;
    opts.timeSpeed = 20;
    Daemon &d = live.Start(opts);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, marker.DevNum()));

    BlockDevice disk = tb.AddFcDisk();
    const std::string num = disk.DevNum();
    lab.driver().QueueFor(DriverOp::Add, num, DriverReply::Status(1030));
    ASSERT_TRUE(live.Send(disk, "add"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, num));
    ASSERT_TRUE(live.SendRemove(disk));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, num));

    // Walks go on until the daemon's clock is well past the add's two
    // minutes: the dropped add must not come back.
    auto trace = lab.TraceLog();
    long refused = IndexOf(trace, DriverRecord(ScsiInfo(disk), "add", 1030));
    ASSERT_GE(refused, 0);
    long tRefused = RecordTime(trace[refused]).value_or(0);
    ASSERT_TRUE(Eventually(
        [&] {
            live.Nudge();
            if (!live.Send(marker, "change")) {
                return false;
            }
            auto now = lab.TraceLog();
            auto walks = RecordsWith(now, DriverRecord(marker.DevNum(), "change", 1024));
            return !walks.empty() && RecordTime(walks.back()).value_or(0) - tRefused > 125;
        },
        60s, 300ms))
        << d.Stderr();

    EXPECT_EQ(Seen(lab.driver().Requests(), {DriverOp::Add, DriverOp::Remove}),
              (std::vector<std::string>{Req(DriverOp::Add, marker.DevNum()), Req(DriverOp::Add, num),
                                        Req(DriverOp::Remove, num)}));
    EXPECT_FALSE(RecordsWith(lab.TraceLog(), "find same udev event " + num + ".").empty());
}

// --- LVM activation of the product's own disks. ----------------------------

// A disk on the driver's own block major (252, "quillmesh" in the
// sandbox's /proc/devices). The daemon asks for LVM activation and then
// drops the event: the name is neither "sd" nor "nvme".
BlockDevice AddVirtualDisk(Testbed &tb, unsigned minor)
{
    return tb.AddBlock({.name = "qmvd" + std::to_string(minor), .major = 252, .minor = minor});
}

constexpr const char *kLvmFailed =
    "run command{/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null} failed.";

// Real time: the five-second settling is counted in the main loop's
// one-second turns, and these bounds are about that count.
TEST(PipelineLvm, OneVirtualDiskRunsLvmOnceAfterFiveSeconds)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    BlockDevice vdisk = AddVirtualDisk(lab.testbed(), 0);

    auto sent = Clock::now();
    ASSERT_TRUE(live.Send(vdisk, "add"));
    ASSERT_TRUE(lab.sandbox().WaitLvmRuns(1, 30s));
    auto ran = Clock::now();
    // Five turns of the main loop after the request: more than four seconds.
    EXPECT_GE(ran - sent, 4s);
    EXPECT_LE(ran - sent, 9s);
    auto runs = lab.sandbox().LvmRuns();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].args, "pvscan --cache --activate ay");
    // A run that worked is not repeated (another would come five seconds
    // after it).
    EXPECT_FALSE(lab.sandbox().WaitLvmRuns(2, 7s)) << "lvm ran again";
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u) << "the virtual disk itself is not added";
}

TEST(PipelineLvm, BurstOfVirtualDisksTwoSecondsApartRunsLvmOnceAfterTheLast)
{
    Lab lab;
    Live live(lab);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    std::vector<BlockDevice> vdisks;
    for (unsigned i = 0; i < 4; ++i) {
        vdisks.push_back(AddVirtualDisk(lab.testbed(), i));
    }

    // The burst's pace is the scenario itself, not a wait for something.
    auto start = Clock::now();
    Clock::time_point last;
    for (size_t i = 0; i < vdisks.size(); ++i) {
        std::this_thread::sleep_until(start + i * 2s);
        last = Clock::now();
        ASSERT_TRUE(live.Send(vdisks[i], "add"));
        EXPECT_TRUE(lab.sandbox().LvmRuns().empty()) << "lvm ran inside the burst, before disk " << i;
    }
    ASSERT_TRUE(lab.sandbox().WaitLvmRuns(1, 30s));
    EXPECT_GE(Clock::now() - last, 4s);
    EXPECT_FALSE(lab.sandbox().WaitLvmRuns(2, 7s)) << "one burst, one run";
}

// Accelerated time: only counts, order and lower bounds in the daemon's own
// clock are asserted, which faster time cannot make false.
TEST(PipelineLvm, FailingLvmRunsSixTimesThenGivesUp)
{
    Lab lab({.sandbox = {.lvmPlan = {LvmStep{.sleepSeconds = 0, .exitCode = 1}}}});
    Live live(lab);
    DaemonOptions opts;
    opts.timeSpeed = 10;
    Daemon &d = live.Start(opts);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    BlockDevice vdisk = AddVirtualDisk(lab.testbed(), 0);
    ASSERT_TRUE(live.Send(vdisk, "add"));

    ASSERT_TRUE(lab.WaitTrace("the maximum number of retries has been reached.", 60s)) << d.Stderr();
    auto trace = lab.TraceLog();
    auto failures = RecordsWith(trace, kLvmFailed);
    EXPECT_EQ(failures.size(), 6u);
    EXPECT_EQ(lab.sandbox().LvmRuns().size(), 6u);
    long gaveUp = IndexOf(trace, "the maximum number of retries has been reached.");
    EXPECT_EQ(trace[gaveUp].level, "ERROR");
    EXPECT_GT(gaveUp, IndexOf(trace, kLvmFailed));
    for (size_t i = 1; i < failures.size(); ++i) {
        EXPECT_GE(RecordTime(failures[i]).value_or(0) - RecordTime(failures[i - 1]).value_or(0), 4)
            << "each retry waits five turns of the main loop";
    }
    // About a minute of the daemon's time: no seventh run.
    EXPECT_FALSE(lab.sandbox().WaitLvmRuns(7, 6s));
    EXPECT_EQ(RecordsWith(lab.TraceLog(), "the maximum number of retries has been reached.").size(), 1u);
}

}  // namespace
}  // namespace qmlab::flow
