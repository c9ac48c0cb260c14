// A storm of udev events through the real daemon. A thousand disks (FC,
// iSCSI, NVMe) are taken over by the start-up scan; then 10,000 add, change
// and remove events for them go out in a random order (seeded: the seed is
// printed, QMLAB_STORM_SEED repeats a run), half of them in batches known to
// be walked together; QMLAB_STORM_EVENTS sets another number.
//
// The check. The handle thread walks its events in list order, the order
// they were sent in, and each one either goes to the driver (its record
// "device{<text>} action{<action>} with ret{<status>}.") or is dropped as
// superseded ("find same udev event <devNum>."). So the trace holds exactly
// one outcome per event, in the order sent: nothing lost or invented, and
// the order kept per device and across devices. The driver must have
// received exactly the events sent; an event may be dropped only when an add
// or remove of its device was sent after it, and must be when that add or
// remove came in the same held batch (taken in one walk).
//
// Completion. The handle thread waits on the event list without a
// predicate: a wake-up given while it walks is lost, and what came with it
// waits for the next event or the next 120-second wake-up. The daemon's
// clock runs 20 times faster (libfaketime), so those wake-ups come every 6 s,
// and nothing is sent after the storm that could hide a missing wake-up. The
// last event is a change of one more disk (the closer): once its request
// has been answered every event before it has had its outcome. Then the
// daemon stops in order (a failed poll ends its monitor thread), so a
// request sent after the closer would be in the record too. Under ASan,
// LeakSanitizer's symbolizer aborts a daemon that runs with libfaketime: a
// leak shows as an exit by SIGABRT here (pipeline_test.cpp checks the
// orderly end without accelerated time).
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

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
        disks.push_back({d, ScsiInfo(d)});
    }
    for (size_t j = 0; j < iscsi; ++j) {
        int session = static_cast<int>(10 + j / 256);
        BlockDevice d = tb.AddIscsiDisk({.host = 6 + session % 4, .session = session, .lun = static_cast<int>(j % 256)});
        disks.push_back({d, ScsiInfo(d)});
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
    return v == nullptr || v[0] == '\0' ? std::nullopt : std::optional<uint64_t>(std::strtoull(v, nullptr, 0));
}

const char *ActionName(char letter)
{
    return letter == 'A' ? "add" : letter == 'R' ? "remove" : "change";
}

char Letter(DriverOp op)
{
    return op == DriverOp::Add ? 'A' : op == DriverOp::Remove ? 'R' : 'C';
}

// One event of the storm, or one outcome of it.
struct Event {
    size_t disk = 0;
    char action = 'C';  // 'A', 'R', 'C'; as an outcome 'x' for dropped
    int batch = -1;     // >= 0: sent while the handle thread was held, so in one walk with its batch
};

// The device number and outcome of a walk's record; nullopt for any other.
std::optional<std::pair<std::string, char>> Outcome(const std::string &message)
{
    static const std::string kDropped = "find same udev event ";
    static const std::string kSent = "device{";
    if (message.rfind(kDropped, 0) == 0) {
        return std::make_pair(message.substr(kDropped.size(), message.find(".\n") - kDropped.size()), 'x');
    }
    size_t action = message.find("} action{");
    if (message.rfind(kSent, 0) != 0 || action == std::string::npos) {
        return std::nullopt;
    }
    std::string text = message.substr(kSent.size(), action - kSent.size());
    return std::make_pair(text.substr(0, text.find(' ')), static_cast<char>(std::toupper(message[action + 9])));
}

// Half of each round goes out while the daemon runs freely (walks of
// whatever size timing gives). For the other half the handle thread is first
// held in the driver (CHANGE requests held, the holder disk's change sent),
// then the events are sent and known to be queued (the monitor is idle
// again), then the driver lets go: the handle thread finishes its walk and
// takes all of them in its next one.
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
    // The holder's change is what the handle thread is held on; the closer's
    // is the last event of all.
    for (int target : {0, 1}) {
        BlockDevice d = tb.AddLocalDisk({.host = 0, .target = target});
        disks.push_back({d, ScsiInfo(d)});
    }
    const size_t holder = disks.size() - 2;
    const size_t closer = disks.size() - 1;
    BlockDevice poke = tb.AddLoop(7);  // its change reaches the daemon and is dropped there
    std::map<std::string, size_t> byDevNum;
    for (size_t i = 0; i < disks.size(); ++i) {
        ASSERT_TRUE(byDevNum.emplace(disks[i].dev.DevNum(), i).second) << disks[i].dev.DevNum();
    }

    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(lab.WaitNotify("READY=1", 120s)) << d.Stderr();
    // The storm starts once the scan has taken every disk over.
    ASSERT_TRUE(WaitAnswered(drv, DriverOp::Add, "", disks.size(), 120s)) << "the scan did not take every disk over";

    // Events spread evenly over the disks, actions and order at random;
    // every other slice of the order goes out as a held batch.
    std::mt19937_64 rng(seed);
    std::vector<Event> events;
    for (size_t e = 0; e < stormEvents; ++e) {
        events.push_back({e % kDisks, "ARC"[std::uniform_int_distribution<int>(0, 2)(rng)], -1});
    }
    std::shuffle(events.begin(), events.end(), rng);
    const size_t slice = std::max<size_t>(1, stormEvents / (2 * kRounds));
    std::vector<Event> sent;
    auto send = [&](const Event &ev) {
        ASSERT_EQ(tb.Emit(disks[ev.disk].dev.syspath, ActionName(ev.action)), 1u) << "event " << sent.size();
        sent.push_back(ev);
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
            ASSERT_NO_FATAL_FAILURE(send({events[next].disk, events[next].action, round}));
            ++next;
        }
        ASSERT_TRUE(d.WaitMonitorIdle(60s)) << "round " << round << ": the batch was not queued";
        drv.Release();
        ASSERT_TRUE(Eventually([&] { return drv.HeldCount() == 0; }, 30s));
    }
    ASSERT_NO_FATAL_FAILURE(send({closer, 'C', -1}));
    ASSERT_TRUE(WaitAnswered(drv, DriverOp::Change, disks[closer].dev.DevNum(), 1, 150s))
        << "the storm's last event did not reach the driver";

    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    tb.Emit(poke.syspath, "change", 5s);
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not stop after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();

    // The outcomes in the trace, after the scan's one ADD per disk.
    std::vector<Event> outcomes;
    size_t scanned = 0;
    for (const auto &rec : lab.TraceLog()) {
        auto o = Outcome(rec.message);
        if (!o) {
            continue;
        }
        auto it = byDevNum.find(o->first);
        ASSERT_NE(it, byDevNum.end()) << rec.raw;
        if (scanned < disks.size()) {
            ASSERT_EQ(o->second, 'A') << "in the scan's batch: " << rec.raw;
            ++scanned;
        } else {
            outcomes.push_back({it->second, o->second});
        }
    }
    ASSERT_EQ(outcomes.size(), sent.size()) << "outcomes lost or invented";

    // The nearest add or remove of the same device sent after each event.
    std::vector<size_t> superseder(sent.size(), SIZE_MAX);
    std::vector<size_t> nextOfDisk(disks.size(), SIZE_MAX);
    for (size_t k = sent.size(); k-- > 0;) {
        superseder[k] = nextOfDisk[sent[k].disk];
        if (sent[k].action != 'C') {
            nextOfDisk[sent[k].disk] = k;
        }
    }
    std::vector<std::pair<size_t, char>> handedOn;
    size_t wrong = 0;
    for (size_t k = 0; k < sent.size(); ++k) {
        const Event &ev = sent[k];
        const Event &out = outcomes[k];
        bool later = superseder[k] != SIZE_MAX;
        bool sameBatch = later && ev.batch >= 0 && sent[superseder[k]].batch == ev.batch;
        bool ok = out.disk == ev.disk && (out.action == 'x' ? later : out.action == ev.action && !sameBatch);
        if (!ok && ++wrong <= 20) {
            ADD_FAILURE() << "event " << k << ": " << ev.action << " of " << disks[ev.disk].dev.DevNum()
                          << (ev.batch >= 0 ? " (held batch)" : "") << ", outcome " << out.action << " of "
                          << disks[out.disk].dev.DevNum() << (later ? "; an add/remove follows" : "");
        }
        if (out.action != 'x') {
            handedOn.emplace_back(out.disk, out.action);
        }
    }
    EXPECT_EQ(wrong, 0u);

    // The driver got exactly what the records say, with the right texts.
    std::vector<std::pair<size_t, char>> received;
    for (const DriverRequest &r : drv.Requests()) {
        if (!IsEvent(r.op)) {
            continue;
        }
        size_t disk = byDevNum.at(r.DevNum());
        EXPECT_EQ(r.text, r.op == DriverOp::Add ? disks[disk].info : r.DevNum());
        EXPECT_TRUE(r.answered && r.status == 1024) << r.text;
        received.emplace_back(disk, Letter(r.op));
    }
    ASSERT_GE(received.size(), disks.size());
    received.erase(received.begin(), received.begin() + static_cast<long>(disks.size()));
    EXPECT_TRUE(received == handedOn) << received.size() << " requests after the scan, "
                                      << handedOn.size() << " events sent according to the trace";
}

}  // namespace
}  // namespace qmlab::test
