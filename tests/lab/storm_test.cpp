// A storm of udev events through the real daemon. A thousand disks (FC,
// iSCSI, NVMe) are taken over by the start-up scan; then 10,000 add,
// change and remove events for them go out in a random order (seeded: the
// seed is printed, QMLAB_STORM_SEED repeats a run), some of them in batches
// known to be walked together. Afterwards every driver request is checked
// against what the handle thread's rules allow for every possible cut of
// the events into walks (storm_support.h: the rules, the accepted language
// and why it is exactly the rules), across devices too, and against the
// daemon's own record of what it dropped as superseded.
//
// Completion. The handle thread waits on the event list without a
// predicate: a wake-up given while it walks is lost, and what came with it
// waits for the next event or the next 120-second wake-up (main loop and
// the monitor's idle poll). That is the design, and the scenario relies on
// it rather than standing in for it: the daemon's clock runs 20 times
// faster (libfaketime), the 120 s wake-ups come every 6 s, and the test
// sends nothing after the storm that could hide a missing wake-up. The
// last event is a change of one more disk (the closer): walks send in list
// order, so once its request has arrived every event before it has been
// sent or dropped. Then the daemon stops in order (a failed poll ends its
// monitor thread) and the complete record is checked: a request sent after
// the closer would be caught there.
//
// The storm is 10,000 events in every build (ThreadSanitizer included:
// about a minute here); QMLAB_STORM_EVENTS sets another number.
//
// Under ASan the daemon's orderly end runs LeakSanitizer, but with
// libfaketime preloaded its symbolizer aborts the daemon ("The futex
// facility returned an unexpected error code.") instead of printing a leak
// report: a leak shows up here as an exit by SIGABRT. leak_test.cpp checks
// the orderly end without accelerated time, where reports come out whole.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qmlab/lab.h"
#include "storm_support.h"

namespace qmlab::storm {
namespace {

// --- The checker against the rules. ------------------------------------------

// Every sequence over add (A), remove (R), change (C) of up to `n` events.
std::vector<Actions> AllSequences(size_t n)
{
    std::vector<Actions> out = {""};
    std::vector<Actions> level = {""};
    for (size_t len = 1; len <= n; ++len) {
        std::vector<Actions> next;
        for (const auto &s : level) {
            for (char a : {'A', 'R', 'C'}) {
                next.push_back(s + a);
            }
        }
        out.insert(out.end(), next.begin(), next.end());
        level.swap(next);
    }
    return out;
}

// Random sequences of `n` events (the checker's own fixed seed).
std::vector<Actions> RandomSequences(size_t count, size_t n, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<Actions> out(count);
    for (auto &s : out) {
        for (size_t k = 0; k < n; ++k) {
            s.push_back("ARC"[std::uniform_int_distribution<int>(0, 2)(rng)]);
        }
    }
    return out;
}

// Every way of knowing that neighbouring events share a walk.
std::vector<Joined> AllJoined(size_t n)
{
    std::vector<Joined> out;
    size_t gaps = n > 0 ? n - 1 : 0;
    for (uint64_t mask = 0; mask < (uint64_t{1} << gaps); ++mask) {
        Joined joined(gaps);
        for (size_t i = 0; i < gaps; ++i) {
            joined[i] = ((mask >> i) & 1u) != 0;
        }
        out.push_back(joined);
    }
    return out;
}

std::string Show(const Actions &emitted, const Joined &joined)
{
    std::string out;
    for (size_t i = 0; i < emitted.size(); ++i) {
        out.push_back(emitted[i]);
        if (i + 1 < emitted.size()) {
            out += MayEndWalkAfter(joined, i) ? " " : "=";
        }
    }
    return out;
}

TEST(StormChecker, TheLanguageIsWhatSomeCutIntoWalksSends)
{
    for (const auto &emitted : AllSequences(5)) {
        for (const auto &joined : AllJoined(emitted.size())) {
            ASSERT_EQ(Language(emitted, joined), OutcomesOfAllWalks(emitted, joined))
                << "events " << Show(emitted, joined) << " ('=': same walk)";
        }
    }
    for (size_t n = 6; n <= 10; ++n) {
        for (const auto &emitted : RandomSequences(25, n, n)) {
            ASSERT_EQ(Language(emitted), OutcomesOfAllWalks(emitted)) << "events " << emitted;
        }
    }
}

// Every observation of up to one request more than there were events, for
// every sequence of up to five events (up to four with every way of knowing
// shared walks).
TEST(StormChecker, AcceptsTheLanguageAndNothingElse)
{
    const std::vector<Actions> observations = AllSequences(6);
    for (const auto &emitted : AllSequences(5)) {
        std::vector<Joined> knowledge = emitted.size() <= 4 ? AllJoined(emitted.size()) : std::vector<Joined>{{}};
        for (const auto &joined : knowledge) {
            std::set<Actions> words = Language(emitted, joined);
            for (const auto &observed : observations) {
                if (observed.size() > emitted.size() + 1) {
                    break;  // in order of length
                }
                ASSERT_EQ(Accepted(emitted, observed, joined), words.count(observed) == 1)
                    << "events " << Show(emitted, joined) << ", requests " << observed;
            }
        }
    }
    using Ev = std::pair<int, char>;
    EXPECT_TRUE(IsSubsequence<Ev>({{1, 'A'}, {2, 'A'}, {1, 'R'}}, {{2, 'A'}, {1, 'R'}}));
    EXPECT_FALSE(IsSubsequence<Ev>({{1, 'A'}, {2, 'A'}}, {{2, 'A'}, {1, 'A'}}));
}

// --- The storm. ----------------------------------------------------------------

constexpr size_t kDisks = 1000;
constexpr size_t kEvents = 10000;
constexpr size_t kRounds = 5;

struct Disk {
    BlockDevice dev;
    std::string info;  // the device information its ADD carries
};

// 40 % FC over four HBAs, 30 % iSCSI over sessions of up to 256 LUNs, 30 %
// NVMe namespaces over controllers of up to 256 namespaces; all of the lab's
// default (supported) vendor.
std::vector<Disk> BuildDisks(Testbed &tb, size_t n)
{
    std::vector<Disk> disks;
    size_t fc = n * 4 / 10;
    size_t iscsi = n * 3 / 10;
    for (size_t i = 0; i < fc; ++i) {
        BlockDevice d = tb.AddFcDisk({.host = static_cast<int>(2 + i % 4), .port = static_cast<int>(7 + (i / 4) / 256),
                                      .target = 1, .lun = static_cast<int>((i / 4) % 256)});
        disks.push_back({d, d.DevNum() + " scsi QMESH VDISK " + d.hctl});
    }
    for (size_t j = 0; j < iscsi; ++j) {
        int session = static_cast<int>(10 + j / 256);
        BlockDevice d = tb.AddIscsiDisk({.host = 6 + session % 4, .session = session, .lun = static_cast<int>(j % 256)});
        disks.push_back({d, d.DevNum() + " scsi QMESH VDISK " + d.hctl});
    }
    std::map<size_t, NvmeController> controllers;
    for (size_t k = 0; k < n - fc - iscsi; ++k) {
        size_t instance = k / 256;
        if (controllers.count(instance) == 0) {
            controllers[instance] = tb.AddNvmeController(
                {.instance = static_cast<int>(instance), .cntlid = std::to_string(instance + 1)});
        }
        BlockDevice d = tb.AddNvmeNamespace(controllers[instance], {.nsIndex = static_cast<int>(k % 256 + 1)});
        disks.push_back({d, d.DevNum() + " nvme QMESH NVDISK " + d.hctl});
    }
    return disks;
}

std::optional<uint64_t> FromEnv(const char *name)
{
    const char *v = std::getenv(name);
    if (v == nullptr || v[0] == '\0') {
        return std::nullopt;
    }
    return std::strtoull(v, nullptr, 0);
}

char ActionLetter(DriverOp op)
{
    return op == DriverOp::Add ? 'A' : op == DriverOp::Remove ? 'R' : op == DriverOp::Change ? 'C' : '?';
}

const char *ActionName(char letter)
{
    return letter == 'A' ? "add" : letter == 'R' ? "remove" : "change";
}

// The device number of a "find same udev event <devNum>." record, or "".
std::string SupersededDevNum(const std::string &message)
{
    static const std::string kHead = "find same udev event ";
    if (message.rfind(kHead, 0) != 0) {
        return "";
    }
    size_t end = message.find(".\n", kHead.size());
    return end == std::string::npos ? "" : message.substr(kHead.size(), end - kHead.size());
}

// One event of the storm.
struct Event {
    size_t disk = 0;
    char action = 'C';
    int batch = -1;  // >= 0: sent while the handle thread was held, so in one walk with its batch
};

// The storm comes in rounds. Half of each round goes out while the daemon
// runs freely (walks of whatever size timing gives). For the other half the
// handle thread is first held in the driver (CHANGE requests held, the
// holder disk's change sent), then the events are sent and known to be
// queued (the monitor is idle again), then the driver lets go: the handle
// thread finishes its walk and takes all of them in its next one. That
// batch is known, so within it the checker expects supersession to have
// happened: a daemon that never dropped anything would fail there.
TEST(Storm, MixedEventsForAThousandDisksReachTheDriverAsTheRulesAllow)
{
    const uint64_t seed = FromEnv("QMLAB_STORM_SEED").value_or(std::random_device{}());
    const size_t stormEvents = FromEnv("QMLAB_STORM_EVENTS").value_or(kEvents);
    std::printf("[ storm    ] seed %" PRIu64 " (QMLAB_STORM_SEED=%" PRIu64 " repeats it), %zu events for %zu disks\n",
                seed, seed, stormEvents, kDisks);
    std::fflush(stdout);
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("storm seed " + std::to_string(seed));

    Lab lab;
    Testbed &tb = lab.testbed();
    DriverEmulator &drv = lab.driver();
    std::vector<Disk> disks = BuildDisks(tb, kDisks);
    // Two more disks with changes only: the holder's change is what the
    // handle thread is held on (any CHANGE would do), the closer's is the
    // last event of all: its request closes the storm.
    for (int target : {0, 1}) {
        BlockDevice d = tb.AddLocalDisk({.host = 0, .target = target});
        disks.push_back({d, d.DevNum() + " scsi QMESH VDISK " + d.hctl});
    }
    const size_t holder = disks.size() - 2;
    const size_t closer = disks.size() - 1;
    // A loop device: its change reaches the daemon and is dropped there.
    BlockDevice poke = tb.AddLoop(7);
    std::map<std::string, size_t> byDevNum;
    for (size_t i = 0; i < disks.size(); ++i) {
        ASSERT_TRUE(byDevNum.emplace(disks[i].dev.DevNum(), i).second) << disks[i].dev.DevNum();
    }

    // The 120 s wake-ups every 6 s.
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(lab.WaitNotify("READY=1", 120s)) << d.Stderr();
    // The start-up scan takes every disk over (one ADD each, checked with the
    // rest below) before any live event is sent: the storm starts from a
    // known state.
    ASSERT_TRUE(drv.WaitFor(
        [&](const std::vector<DriverRequest> &all) {
            return static_cast<size_t>(std::count_if(all.begin(), all.end(), [](const DriverRequest &r) {
                       return r.op == DriverOp::Add && r.answered;
                   })) >= disks.size();
        },
        120s))
        << "the start-up scan did not take every disk over";

    // The plan: events spread evenly over the disks, actions and order at
    // random; every other slice of the order goes out as a held batch.
    std::mt19937_64 rng(seed);
    std::vector<Event> events;
    for (size_t e = 0; e < stormEvents; ++e) {
        events.push_back({e % kDisks, "ARC"[std::uniform_int_distribution<int>(0, 2)(rng)], -1});
    }
    std::shuffle(events.begin(), events.end(), rng);
    const size_t slice = std::max<size_t>(1, stormEvents / (2 * kRounds));

    std::vector<Event> sentEvents;  // in the order sent
    auto send = [&](const Event &ev) {
        ASSERT_EQ(tb.Emit(disks[ev.disk].dev.syspath, ActionName(ev.action)), 1u)
            << "event " << sentEvents.size() << " reached no monitor";
        sentEvents.push_back(ev);
    };
    size_t next = 0;
    for (int round = 0; next < events.size(); ++round) {
        for (size_t k = 0; k < slice && next < events.size(); ++k) {
            ASSERT_NO_FATAL_FAILURE(send(events[next++]));
        }
        if (next == events.size()) {
            break;
        }
        drv.Hold(DriverOp::Change);
        ASSERT_NO_FATAL_FAILURE(send({holder, 'C', -1}));
        ASSERT_TRUE(drv.WaitHeld(1, 60s)) << "round " << round << ": the handle thread was not held";
        for (size_t k = 0; k < slice && next < events.size(); ++k) {
            Event ev = events[next++];
            ev.batch = round;
            ASSERT_NO_FATAL_FAILURE(send(ev));
        }
        ASSERT_TRUE(d.WaitMonitorIdle(60s)) << "round " << round << ": the batch was not queued";
        drv.Release();
        ASSERT_TRUE(Eventually([&] { return drv.HeldCount() == 0; }, 30s));
    }
    ASSERT_NO_FATAL_FAILURE(send({closer, 'C', -1}));

    const std::string closerNum = disks[closer].dev.DevNum();
    size_t looked = disks.size();  // requests before this one are the scan's
    ASSERT_TRUE(drv.WaitFor(
        [&](const std::vector<DriverRequest> &all) {
            for (; looked < all.size(); ++looked) {
                const DriverRequest &r = all[looked];
                if (r.op == DriverOp::Change && r.DevNum() == closerNum) {
                    return r.answered;  // looked again on the next call until answered
                }
            }
            return false;
        },
        150s))
        << "the storm's last event did not reach the driver";

    // An orderly stop: the monitor's next poll fails, its thread ends and
    // takes the daemon down.
    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    tb.Emit(poke.syspath, "change", 5s);
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not stop after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();

    // --- The record. ---------------------------------------------------------
    std::vector<Actions> emitted(disks.size());
    std::vector<std::vector<int>> batchOf(disks.size());
    std::vector<std::pair<size_t, char>> emittedAll;
    for (const auto &ev : sentEvents) {
        emitted[ev.disk].push_back(ev.action);
        batchOf[ev.disk].push_back(ev.batch);
        emittedAll.emplace_back(ev.disk, ev.action);
    }
    std::vector<Actions> observed(disks.size());
    std::vector<std::pair<size_t, char>> observedAll;
    size_t scanAdds = 0;
    std::set<size_t> scanned;
    size_t unanswered = 0;
    for (const DriverRequest &r : drv.Requests()) {
        if (r.op == DriverOp::Open || r.op == DriverOp::Close || r.op == DriverOp::Start || r.op == DriverOp::Get) {
            continue;
        }
        auto it = byDevNum.find(r.DevNum());
        ASSERT_NE(it, byDevNum.end()) << "request for an unknown device: " << DriverOpName(r.op) << " " << r.text;
        EXPECT_EQ(r.text, r.op == DriverOp::Add ? disks[it->second].info : r.DevNum());
        unanswered += r.answered && r.status == 1024 ? 0 : 1;
        if (scanAdds < disks.size()) {
            ASSERT_EQ(r.op, DriverOp::Add) << "the scan's batch: " << r.text;
            ++scanAdds;
            scanned.insert(it->second);
            continue;
        }
        observed[it->second].push_back(ActionLetter(r.op));
        observedAll.emplace_back(it->second, ActionLetter(r.op));
    }
    EXPECT_EQ(scanned.size(), disks.size()) << "the scan did not add every disk once";
    EXPECT_EQ(unanswered, 0u) << "requests not answered with 1024";
    ASSERT_FALSE(observedAll.empty());
    EXPECT_EQ(observedAll.back(), std::make_pair(closer, 'C')) << "a request came after the storm's last event";

    // Per device: in the accepted language of its events, knowing which of
    // them were held in one batch.
    size_t rejected = 0;
    for (size_t i = 0; i < disks.size(); ++i) {
        Joined joined(emitted[i].empty() ? 0 : emitted[i].size() - 1);
        for (size_t k = 0; k < joined.size(); ++k) {
            joined[k] = batchOf[i][k] >= 0 && batchOf[i][k] == batchOf[i][k + 1];
        }
        if (!Accepted(emitted[i], observed[i], joined) && ++rejected <= 20) {
            ADD_FAILURE() << disks[i].dev.name << " (" << disks[i].dev.DevNum() << "): events "
                          << Show(emitted[i], joined) << " ('=': same held batch), requests " << observed[i]
                          << " (A add, R remove, C change)";
        }
    }
    EXPECT_EQ(rejected, 0u) << "devices whose requests no cut into walks explains";
    // Across devices: the requests keep the order of the events.
    EXPECT_TRUE(IsSubsequence(emittedAll, observedAll)) << "requests out of the order of their events";

    // Every event that did not reach the driver was dropped as superseded,
    // and the daemon says so once for each.
    std::vector<size_t> superseded(disks.size(), 0);
    size_t supersededOther = 0;
    for (const auto &rec : lab.TraceLog()) {
        std::string num = SupersededDevNum(rec.message);
        if (!num.empty()) {
            auto it = byDevNum.find(num);
            ++(it == byDevNum.end() ? supersededOther : superseded[it->second]);
        }
    }
    EXPECT_EQ(supersededOther, 0u);
    size_t mismatched = 0;
    for (size_t i = 0; i < disks.size(); ++i) {
        if (observed[i].size() + superseded[i] != emitted[i].size() && ++mismatched <= 20) {
            ADD_FAILURE() << disks[i].dev.name << ": " << emitted[i].size() << " events, " << observed[i].size()
                          << " requests, " << superseded[i] << " recorded as superseded";
        }
    }
    EXPECT_EQ(mismatched, 0u);
}

}  // namespace
}  // namespace qmlab::storm
