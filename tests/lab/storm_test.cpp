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
    std::vector<Actions> out;
    for (size_t i = 0; i < count; ++i) {
        Actions s;
        for (size_t k = 0; k < n; ++k) {
            s.push_back("ARC"[std::uniform_int_distribution<int>(0, 2)(rng)]);
        }
        out.push_back(s);
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

TEST(StormChecker, AcceptsTheLanguageAndNothingElse)
{
    // Every observation of up to one request more than there were events,
    // for every sequence of up to four events (up to three with every way
    // of knowing shared walks).
    const std::vector<Actions> observations = AllSequences(5);
    for (const auto &emitted : AllSequences(4)) {
        std::vector<Joined> knowledge = emitted.size() <= 3 ? AllJoined(emitted.size()) : std::vector<Joined>{{}};
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
    // Longer ones: every word, and every word with one request dropped,
    // added, replaced or swapped with its neighbour.
    std::mt19937_64 rng(9);
    for (const auto &emitted : RandomSequences(10, 9, 9)) {
        Joined joined(emitted.size() - 1);
        for (size_t i = 0; i < joined.size(); ++i) {
            joined[i] = (rng() % 3) == 0;
        }
        std::set<Actions> words = Language(emitted, joined);
        for (const auto &word : words) {
            ASSERT_TRUE(Accepted(emitted, word, joined)) << "events " << Show(emitted, joined) << ", requests " << word;
            std::vector<Actions> near;
            for (size_t i = 0; i <= word.size(); ++i) {
                for (char a : {'A', 'R', 'C'}) {
                    near.push_back(word.substr(0, i) + a + word.substr(i));
                    if (i < word.size()) {
                        near.push_back(word.substr(0, i) + a + word.substr(i + 1));
                    }
                }
                if (i < word.size()) {
                    near.push_back(word.substr(0, i) + word.substr(i + 1));
                }
                if (i + 1 < word.size()) {
                    Actions swapped = word;
                    std::swap(swapped[i], swapped[i + 1]);
                    near.push_back(swapped);
                }
            }
            for (const auto &other : near) {
                ASSERT_EQ(Accepted(emitted, other, joined), words.count(other) == 1)
                    << "events " << Show(emitted, joined) << ", requests " << other;
            }
        }
    }
}

TEST(StormChecker, Examples)
{
    EXPECT_TRUE(Accepted("AR", "R"));     // one walk: the add is superseded
    EXPECT_TRUE(Accepted("AR", "AR"));    // two walks
    EXPECT_FALSE(Accepted("AR", "AR", {true}));  // known to share a walk
    EXPECT_FALSE(Accepted("AR", "A"));    // the last add/remove is never lost
    EXPECT_FALSE(Accepted("AR", "RA"));   // nor reordered
    EXPECT_FALSE(Accepted("AR", "ARR"));  // nor duplicated
    EXPECT_FALSE(Accepted("AR", ""));
    EXPECT_TRUE(Accepted("ACC", "ACC"));  // changes behind the last add: all sent
    EXPECT_FALSE(Accepted("ACC", "AC"));
    EXPECT_TRUE(Accepted("CA", "A"));     // a change before an add of its walk goes
    EXPECT_TRUE(Accepted("CA", "CA"));
    EXPECT_TRUE(Accepted("ACA", "AA"));   // walks {A} {C A}
    EXPECT_FALSE(Accepted("ACA", "CA"));  // the change's run starts with the first add
    EXPECT_TRUE(Accepted("RCCA", "RCA"));  // walks {R C} {C A}
    EXPECT_FALSE(Accepted("RCCA", "RCA", {false, true, false}));  // both changes in one walk
    EXPECT_TRUE(Accepted("RCCA", "RCCA", {false, true, false}));
    EXPECT_FALSE(Accepted("RCCA", "RCCAA"));
    EXPECT_TRUE(Accepted("CC", "CC"));    // changes never supersede
    EXPECT_FALSE(Accepted("CC", "C"));
    EXPECT_TRUE(Accepted("", ""));
    EXPECT_FALSE(Accepted("", "C"));

    using Ev = std::pair<int, char>;
    EXPECT_TRUE(IsSubsequence<Ev>({{1, 'A'}, {2, 'A'}, {1, 'R'}}, {{2, 'A'}, {1, 'R'}}));
    EXPECT_FALSE(IsSubsequence<Ev>({{1, 'A'}, {2, 'A'}}, {{2, 'A'}, {1, 'A'}}));
}

// --- The storm. ----------------------------------------------------------------

constexpr size_t kDisks = 1000;
constexpr size_t kEvents = 10000;
constexpr size_t kRounds = 5;
constexpr double kTimeSpeed = 20;  // the 120 s wake-ups every 6 s

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
    size_t nvme = n - fc - iscsi;
    for (size_t i = 0; i < fc; ++i) {
        FcDiskSpec spec;
        spec.host = static_cast<int>(2 + i % 4);
        spec.port = static_cast<int>(7 + (i / 4) / 256);
        spec.target = 1;
        spec.lun = static_cast<int>((i / 4) % 256);
        BlockDevice d = tb.AddFcDisk(spec);
        disks.push_back({d, d.DevNum() + " scsi QMESH VDISK " + d.hctl});
    }
    for (size_t j = 0; j < iscsi; ++j) {
        IscsiDiskSpec spec;
        spec.session = static_cast<int>(10 + j / 256);
        spec.host = static_cast<int>(6 + spec.session % 4);
        spec.lun = static_cast<int>(j % 256);
        BlockDevice d = tb.AddIscsiDisk(spec);
        disks.push_back({d, d.DevNum() + " scsi QMESH VDISK " + d.hctl});
    }
    std::map<size_t, NvmeController> controllers;
    for (size_t k = 0; k < nvme; ++k) {
        size_t instance = k / 256;
        if (controllers.count(instance) == 0) {
            NvmeControllerSpec spec;
            spec.instance = static_cast<int>(instance);
            spec.cntlid = std::to_string(instance + 1);
            controllers[instance] = tb.AddNvmeController(spec);
        }
        NvmeNamespaceSpec spec;
        spec.nsIndex = static_cast<int>(k % 256 + 1);
        BlockDevice d = tb.AddNvmeNamespace(controllers[instance], spec);
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
    switch (op) {
    case DriverOp::Add:
        return 'A';
    case DriverOp::Remove:
        return 'R';
    case DriverOp::Change:
        return 'C';
    default:
        return '?';
    }
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

bool IsEventRequest(const DriverRequest &r)
{
    return r.op == DriverOp::Add || r.op == DriverOp::Remove || r.op == DriverOp::Change;
}

double SecondsSince(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
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

    auto t0 = Clock::now();
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

    DaemonOptions options;
    options.timeSpeed = kTimeSpeed;
    Daemon &d = lab.Start(options);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 120s)) << d.Stderr();

    // The start-up scan takes every disk over: one ADD each, before any
    // live event is sent, so that the storm starts from a known state.
    ASSERT_TRUE(drv.WaitFor(
        [&](const std::vector<DriverRequest> &all) {
            return static_cast<size_t>(std::count_if(all.begin(), all.end(), [](const DriverRequest &r) {
                       return r.op == DriverOp::Add && r.answered;
                   })) >= disks.size();
        },
        120s))
        << "the start-up scan did not take every disk over";
    const std::vector<DriverRequest> scanPhase = drv.Requests();
    {
        std::map<size_t, size_t> adds;
        for (const auto &r : scanPhase) {
            ASSERT_TRUE(r.op == DriverOp::Open || r.op == DriverOp::Start || r.op == DriverOp::Get ||
                        r.op == DriverOp::Add)
                << "unexpected " << DriverOpName(r.op) << " " << r.text << " during the start-up scan";
            if (r.op == DriverOp::Add) {
                auto it = byDevNum.find(r.DevNum());
                ASSERT_NE(it, byDevNum.end()) << "ADD of an unknown device: " << r.text;
                EXPECT_EQ(r.text, disks[it->second].info);
                ++adds[it->second];
            }
        }
        EXPECT_EQ(adds.size(), disks.size());
        for (const auto &[disk, n] : adds) {
            EXPECT_EQ(n, 1u) << disks[disk].dev.name;
        }
    }
    const double setUpSeconds = SecondsSince(t0);

    // The plan: events spread evenly over the disks, actions and order at
    // random; every other slice of the order goes out as a held batch.
    std::mt19937_64 rng(seed);
    std::vector<Event> events;
    for (size_t e = 0; e < stormEvents; ++e) {
        events.push_back({e % kDisks, "ARC"[std::uniform_int_distribution<int>(0, 2)(rng)], -1});
    }
    std::shuffle(events.begin(), events.end(), rng);
    const size_t slice = std::max<size_t>(1, stormEvents / (2 * kRounds));

    auto t1 = Clock::now();
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
    const double sendSeconds = SecondsSince(t1);

    auto t2 = Clock::now();
    const std::string closerNum = disks[closer].dev.DevNum();
    size_t looked = scanPhase.size();  // requests before this one are not the closer's
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
    const double drainSeconds = SecondsSince(t2);

    // An orderly stop: the monitor's next poll fails, its thread ends and
    // takes the daemon down (under ASan, LeakSanitizer looks at the exit).
    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    tb.Emit(poke.syspath, "change", 5s);
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not stop after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();
    ASSERT_TRUE(lab.sandbox().Notify().Sync());
    auto notes = lab.sandbox().Notifications();
    ASSERT_FALSE(notes.empty());
    EXPECT_EQ(notes.back().text, "STATUS=shutdown");

    // --- The record. ---------------------------------------------------------
    std::vector<Actions> emitted(disks.size());
    std::vector<std::vector<int>> batchOf(disks.size());
    std::vector<std::pair<size_t, char>> emittedAll;
    for (const auto &ev : sentEvents) {
        emitted[ev.disk].push_back(ev.action);
        batchOf[ev.disk].push_back(ev.batch);
        emittedAll.emplace_back(ev.disk, ev.action);
    }

    auto t3 = Clock::now();
    const std::vector<DriverRequest> all = drv.Requests();
    ASSERT_GE(all.size(), scanPhase.size());
    std::vector<Actions> observed(disks.size());
    std::vector<std::pair<size_t, char>> observedAll;
    size_t unanswered = 0;
    for (size_t i = scanPhase.size(); i < all.size(); ++i) {
        const DriverRequest &r = all[i];
        if (r.op == DriverOp::Close) {
            continue;
        }
        ASSERT_TRUE(IsEventRequest(r)) << "unexpected " << DriverOpName(r.op) << " " << r.text << " during the storm";
        auto it = byDevNum.find(r.DevNum());
        ASSERT_NE(it, byDevNum.end()) << "request for an unknown device: " << DriverOpName(r.op) << " " << r.text;
        if (r.op == DriverOp::Add) {
            EXPECT_EQ(r.text, disks[it->second].info);
        } else {
            EXPECT_EQ(r.text, r.DevNum());
        }
        unanswered += r.answered && r.status == 1024 ? 0 : 1;
        observed[it->second].push_back(ActionLetter(r.op));
        observedAll.emplace_back(it->second, ActionLetter(r.op));
    }
    EXPECT_EQ(unanswered, 0u) << "requests not answered with 1024";
    ASSERT_FALSE(observedAll.empty());
    EXPECT_EQ(observedAll.back(), std::make_pair(closer, 'C')) << "a request came after the storm's last event";

    // Per device: in the accepted language of its events, knowing which of
    // them were held in one batch.
    size_t rejected = 0;
    size_t sent = 0;
    for (size_t i = 0; i < disks.size(); ++i) {
        sent += observed[i].size();
        Joined joined(emitted[i].empty() ? 0 : emitted[i].size() - 1);
        std::string shown;
        for (size_t k = 0; k < emitted[i].size(); ++k) {
            if (k + 1 < emitted[i].size()) {
                joined[k] = batchOf[i][k] >= 0 && batchOf[i][k] == batchOf[i][k + 1];
            }
            shown.push_back(emitted[i][k]);
            if (k + 1 < emitted[i].size()) {
                shown += joined[k] ? "=" : " ";
            }
        }
        if (!Accepted(emitted[i], observed[i], joined) && ++rejected <= 20) {
            ADD_FAILURE() << disks[i].dev.name << " (" << disks[i].dev.DevNum() << "): events " << shown
                          << " ('=': same held batch), requests " << observed[i] << " (A add, R remove, C change)";
        }
        // Spelled out, although the language implies it: the last add or
        // remove sent is the last one emitted.
        auto lastOf = [](const Actions &a) {
            auto pos = a.find_last_not_of('C');
            return pos == std::string::npos ? '-' : a[pos];
        };
        EXPECT_EQ(lastOf(observed[i]), lastOf(emitted[i]))
            << disks[i].dev.name << ": events " << emitted[i] << ", requests " << observed[i];
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
        if (num.empty()) {
            continue;
        }
        auto it = byDevNum.find(num);
        if (it == byDevNum.end()) {
            ++supersededOther;
        } else {
            ++superseded[it->second];
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

    std::printf("[ storm    ] %zu events, %zu requests, %zu dropped as superseded; set-up and scan %.1f s, "
                "sending %.1f s, last request %.1f s after the last event, checks %.1f s\n",
                sentEvents.size(), sent, sentEvents.size() - sent, setUpSeconds, sendSeconds, drainSeconds,
                SecondsSince(t3));
}

}  // namespace
}  // namespace qmlab::storm
