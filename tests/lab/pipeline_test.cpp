// The event pipeline end to end: live udev events through the monitor and
// handle threads of the real daemon to the emulated driver. How a refused
// request is retried (under accelerated time), LVM activation of the
// product's own disks, what one walk drops and which events of it supersede
// which, and the daemon's orderly end when a worker thread ends.
#include <cerrno>
#include <set>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// The daemon runs twenty times faster; a marker disk's "change" every 300 ms
// of the lab (some 6 s of the daemon) shows each walk of the handle thread.
// A refused request must come again at the first walk at least 120 s of the
// daemon after the refusal, and not at any walk before; a refused ADD that
// its device's REMOVE follows gives way to it and never comes again. The
// ADDs are refused by the start-up scan, the rest live.
TEST(PipelineRetry, RefusedRequestIsSentAgainAtTheFirstWalkTwoMinutesLater)
{
    const std::pair<char, DriverReply> rows[] = {{'A', DriverReply::Status(1030)}, {'A', DriverReply::Fail(EIO)},
                                                 {'R', DriverReply::Status(1030)}, {'C', DriverReply::Status(1030)}};
    Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n"}});
    Live live(lab);
    Testbed &tb = lab.testbed();
    DriverEmulator &drv = lab.driver();
    BlockDevice marker = tb.AddLocalDisk({.target = 0});
    BlockDevice dropped = tb.AddLocalDisk({.target = 9});
    drv.QueueFor(DriverOp::Add, dropped.DevNum(), DriverReply::Status(1030));
    std::vector<BlockDevice> disks;
    for (const auto &[action, reply] : rows) {
        disks.push_back(tb.AddLocalDisk({.target = static_cast<int>(disks.size() + 1)}));
        if (action == 'A') {
            drv.QueueFor(DriverOp::Add, disks.back().DevNum(), reply);
        }
    }
    Daemon &d = live.Start({.timeSpeed = 20});
    ASSERT_TRUE(WaitAnswered(drv, DriverOp::Add, "", disks.size() + 2)) << d.Stderr();
    ASSERT_TRUE(live.SendRemove(dropped));
    for (size_t i = 0; i < std::size(rows); ++i) {
        if (rows[i].first != 'A') {
            drv.QueueFor(OpOf(rows[i].first), disks[i].DevNum(), rows[i].second);
            ASSERT_TRUE(rows[i].first == 'R' ? live.SendRemove(disks[i]) : live.Send(disks[i], "change"));
        }
    }
    // Every request answered twice, and walks well past the dropped ADD's
    // two minutes.
    const std::string walkRecord = DriverRecord(marker.DevNum(), "change", 1024);
    ASSERT_TRUE(Eventually(
        [&] {
            live.Send(marker, "change");
            auto all = drv.Requests();
            for (size_t i = 0; i < std::size(rows); ++i) {
                if (CountAnswered(all, OpOf(rows[i].first), disks[i].DevNum()) < 2) {
                    return false;
                }
            }
            auto trace = lab.TraceLog();
            long refused = IndexOf(trace, DriverRecord(ScsiInfo(dropped), "add", 1030));
            return refused >= 0 && RecordTime(trace.back()) - RecordTime(trace[refused]) > 125;
        },
        60s, 300ms))
        << d.Stderr();

    ASSERT_TRUE(tb.WaitAttributeWrites(disks.size() + 1, 10s)) << "a time-out of an accepted disk is missing";
    auto trace = lab.TraceLog();
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto &[letter, reply] = rows[i];
        const std::string action = ActionName(letter);
        const std::string num = disks[i].DevNum();
        const std::string text = letter == 'A' ? ScsiInfo(disks[i]) : num;
        SCOPED_TRACE(action + " answered " + std::to_string(reply.ret < 0 ? reply.ret : reply.status));
        Requests sent = RequestsFor(drv, OpOf(letter), num);
        ASSERT_EQ(sent.size(), 2u) << "refused once, accepted once, nothing more";
        EXPECT_EQ(RecordsWith(trace, "add retry udev event " + action + "(" + num + ").").size(), 1u);
        long refused = IndexOf(trace, reply.ret < 0 ? action + "{" + text + "}  fail with ret{-1}."
                                                    : DriverRecord(text, action, reply.status));
        long again = IndexOf(trace, DriverRecord(text, action, 1024));
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
        if (letter == 'A') {
            auto writes = tb.AttributeWrites();
            auto w = std::find_if(writes.begin(), writes.end(),
                                  [&](auto &x) { return x.syspath == disks[i].scsiDevice; });
            ASSERT_NE(w, writes.end());
            EXPECT_GT(w->stamp.seq, sent[1].stamp.seq) << "time-outs written before the ADD was accepted";
        }
    }
    EXPECT_EQ(RequestsFor(drv, DriverOp::Add, dropped.DevNum()).size(), 1u) << "the ADD did not give way to its REMOVE";
    EXPECT_FALSE(RecordsWith(trace, "find same udev event " + dropped.DevNum() + ".").empty());
}

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
    auto reached = [&] { return live.Nudge(), RecordTime(lab.TraceLog().back()) >= t; };
    return Eventually(reached, 60s, 20ms);
}

bool RunFails(const std::vector<LvmStep> &plan, size_t run)
{
    return (run < plan.size() ? plan[run] : plan.back()).exitCode != 0;
}

// Five times faster, so every time below is the daemon's own (trace record
// times). Not more: a record is made a moment after the request it stands
// for, and under a sanitizer that moment, sped up, eats the debounce margin.
// Four adds two seconds apart, then the plan's runs. Each run comes five
// main-loop turns after the latest request (an add, or a failed run) the
// daemon made before the run began: at least 3 s in whole-second stamps.
// Which requests came before a run is read from the trace as the lvm stub
// found it when it started; what the lab had sent by then is no guide, since
// under load a run may begin before the daemon takes an add sent earlier.
// A change and a remove of the driver's disk ask for nothing; a success does
// not reset the failure count, so a later request gives up at its fourth
// failure. After the last run, ten more seconds bring no other.
TEST(PipelineLvm, RunsFiveSecondsAfterTheLastAddRetriesFiveTimesAndAHangBlocksNothing)
{
    struct Row {
        const char *name;
        std::vector<LvmStep> plan;
        size_t runs, later, failures;  // runs of the first request and of a later one; failed runs
    };
    const Row rows[] = {
        {"always fails", {{0, 1}}, 6, 0, 6},
        {"fails twice, works, then fails", {{0, 1}, {0, 1}, {0, 0}, {0, 1}}, 3, 4, 6},
        {"hangs", {{3600, 0}}, 1, 0, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = {.lvmPlan = row.plan}});
        Live live(lab);
        Daemon &d = live.Start({.timeSpeed = 5});
        ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
        std::vector<BlockDevice> virtualDisks;
        for (unsigned i = 0; i < 4; ++i) {
            virtualDisks.push_back(AddVirtualDisk(lab.testbed(), i));
            ASSERT_TRUE(live.Send(virtualDisks.back(), "add"));
            std::string record = kVirtualDiskRecord + std::to_string(i) + "}";
            ASSERT_TRUE(live.WaitTrace(record)) << d.Stderr();
            ASSERT_TRUE(WaitDaemonTime(lab, live, RecordTime(RecordsWith(lab.TraceLog(), record).at(0)) + 2));
        }
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(row.runs, 60s)) << d.Stderr();
        ASSERT_TRUE(live.Send(virtualDisks[0], "change"));
        ASSERT_TRUE(live.SendRemove(virtualDisks[0]));
        if (row.later > 0) {
            ASSERT_TRUE(live.Send(AddVirtualDisk(lab.testbed(), 4), "add"));
            ASSERT_TRUE(live.WaitTrace(kVirtualDiskRecord + std::string("4}"))) << d.Stderr();
            ASSERT_TRUE(lab.sandbox().WaitLvmRuns(row.runs + row.later, 60s)) << d.Stderr();
        }
        BlockDevice disk = lab.testbed().AddFcDisk();
        ASSERT_TRUE(live.Send(disk, "add"));
        EXPECT_TRUE(live.WaitAnswered(DriverOp::Add, disk.DevNum())) << "the handle thread is blocked";
        ASSERT_TRUE(WaitDaemonTime(lab, live, RecordTime(lab.TraceLog().back()) + 10));
        const std::vector<LvmRun> runs = lab.sandbox().LvmRuns();
        EXPECT_EQ(runs.size(), row.runs + row.later);

        auto trace = lab.TraceLog();
        std::vector<const TraceRecord *> requests;  // each disk's first record, and each failure's
        std::set<std::string> disksSeen;
        size_t run = 0;  // the run the next failure record stands for
        size_t failures = 0;
        for (const auto &r : trace) {
            size_t name = r.message.find(kVirtualDiskRecord);
            if (name != std::string::npos) {
                std::string disk = r.message.substr(name, r.message.find('}', name) - name);
                if (disksSeen.insert(disk).second) {
                    requests.push_back(&r);
                }
            }
            if (r.message.find(kLvmFailed) == std::string::npos) {
                continue;
            }
            while (run < runs.size() && !RunFails(row.plan, run)) {
                ++run;
            }
            ASSERT_LT(run, runs.size()) << "a failure without a failed run: " << r.raw;
            const TraceRecord *latest = nullptr;
            for (const TraceRecord *q : requests) {
                if (q->sequence <= runs[run].traceSequence) {
                    latest = q;
                }
            }
            ASSERT_NE(latest, nullptr) << "run " << run + 1 << " before any request";
            EXPECT_GE(RecordTime(r) - RecordTime(*latest), 3) << "ran too early: " << r.raw << "\nafter " << latest->raw;
            requests.push_back(&r);  // a failed run asks again
            ++run;
            ++failures;
        }
        EXPECT_EQ(failures, row.failures);
        EXPECT_EQ(RecordsWith(trace, kLvmGaveUp).size(), row.failures == 6 ? 1u : 0u);
        EXPECT_EQ(runs.at(0).args, "pvscan --cache --activate ay");
        EXPECT_TRUE(d.Running());
    }
}

// The handle thread blocks in the driver on a change of the blocker disk
// while events of every kind pile up: those it drops (a partition, loop and
// dm devices, an action it does not handle, a foreign vendor) and those of
// one disk per supersession case. Of several add/remove events of one device
// in a walk only the last reaches the driver, with the changes behind it.
//
// Then the monitor thread ends on a failed poll (the lab's fault switch): the
// daemon stops in order and main returns 0, with one node still waiting for a
// retry on the handle thread's working list. In the ASan build LeakSanitizer
// runs at that exit (its thread log shows that it ran at all); the lab makes
// every sanitizer report a failure.
TEST(PipelineWalk, OneBatchOfEveryKindThenTheMonitorsEndStopsTheDaemonInOrder)
{
    // Per disk, the events of the batch in order ('A' add, 'R' remove, 'C'
    // change) and what of them reaches the driver. An add that is sent and
    // freed before a change's turn comes no longer stands with it: both go.
    const std::pair<std::string, std::string> cases[] = {{"ARA", "A"}, {"RAR", "R"}, {"AR", "R"},  {"CC", "CC"},
                                                         {"CA", "A"},   {"CR", "R"},   {"AC", "AC"}, {"RC", "RC"}};
    Lab lab;
    Testbed &tb = lab.testbed();
    BlockDevice blocker = tb.AddLocalDisk();
    std::vector<BlockDevice> disks;
    for (size_t i = 0; i < std::size(cases); ++i) {
        disks.push_back(tb.AddLocalDisk({.target = static_cast<int>(i + 1)}));
    }
    BlockDevice refused = tb.AddLocalDisk({.target = 10});
    BlockDevice foreign = tb.AddLocalDisk({.target = 11, .id = {.vendor = "OTHER", .model = "DISK"}});
    BlockDevice fc = tb.AddFcDisk();
    const BlockDevice dropped[] = {tb.AddPartition(fc, 1), tb.AddLoop(0), tb.AddDm(0)};
    lab.driver().SetFor(DriverOp::Add, refused.DevNum(), DriverReply::Status(1030));
    lab.driver().SetDeviceList({kEndOfScan});
    Live live(lab);
    Daemon &d = live.Start({.env = {{"LSAN_OPTIONS", "log_threads=1"}}});
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Remove, kEndOfScan)) << d.Stderr();
    ASSERT_TRUE(lab.WaitTrace("add retry udev event add(" + refused.DevNum() + ")", 10s));

    lab.driver().Hold(DriverOp::Change);
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s));
    for (const BlockDevice &dev : dropped) {
        for (const char *action : {"add", "change", "remove"}) {
            ASSERT_TRUE(live.Send(dev, action)) << dev.name << " " << action;
        }
    }
    ASSERT_TRUE(live.Send(fc, "move"));
    ASSERT_TRUE(live.Send(foreign, "add"));
    std::vector<std::string> expected;
    for (size_t i = 0; i < std::size(cases); ++i) {
        for (char action : cases[i].first) {
            ASSERT_TRUE(live.Send(disks[i], ActionName(action))) << cases[i].first;
        }
        for (char action : cases[i].second) {
            expected.push_back(Req(OpOf(action), disks[i].DevNum()));
        }
    }
    lab.driver().Release();
    // A last event after the batch: anything of the batch would come before it.
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum()));
    ASSERT_TRUE(live.Send(blocker, "change"));
    ASSERT_TRUE(live.WaitAnswered(DriverOp::Change, blocker.DevNum(), 2));
    expected.push_back(Req(DriverOp::Change, blocker.DevNum()));
    auto blocked = [&](const DriverRequest &r) { return r.op == DriverOp::Change && r.DevNum() == blocker.DevNum(); };
    EXPECT_EQ(Seen(After(lab.driver().Requests(), blocked)), expected);

    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    live.Nudge();
    EXPECT_EQ(ExitOf(d, 60s), "exit 0") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), (std::vector<std::string>{"READY=1", "STATUS=shutdown"}));
    ExpectNothingLeftBehind(lab);
    EXPECT_EQ(lab.driver().Count(DriverOp::Close), 1u);
    auto trace = lab.TraceLog();
    long pollFailed = IndexOf(trace, "poll func run failed.");
    long monitorFailed = IndexOf(trace, "udev event monitor failed.");
    ASSERT_GE(pollFailed, 0);
    EXPECT_LT(pollFailed, monitorFailed);
    EXPECT_LT(monitorFailed, IndexOf(trace, "udev event monitor thread stop running."));
    EXPECT_EQ(IndexOf(trace, "wait stop timeout"), -1) << "a destroyer waited out its time";
    if (ReadFile(DaemonBinaryPath()).value_or("").find("__asan_init") != std::string::npos) {
        EXPECT_NE(d.Stderr().find("Processing thread"), std::string::npos) << "no sign that LeakSanitizer ran";
    }
}

}  // namespace
}  // namespace qmlab::test
