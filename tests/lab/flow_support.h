// Helpers of the pipeline, scan and SAN-boot scenarios: live events known
// to be queued in the daemon, waits for driver requests that survive the
// handle thread's lost wake-ups, request lists in a readable form, and the
// daemon's own clock read back from its trace file.
#pragma once

#include <algorithm>
#include <ctime>
#include <functional>
#include <iomanip>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <gtest/gtest.h>

#include "qmlab/lab.h"

namespace qmlab::flow {

using Requests = std::vector<DriverRequest>;

// "ADD 8:0", "REMOVE 8:32", "CHANGE 8:16" (with the device number, not the
// whole device information), for the requests of the kinds in `ops`.
inline std::vector<std::string> Seen(const Requests &all,
                                     const std::set<DriverOp> &ops = {DriverOp::Add, DriverOp::Remove,
                                                                      DriverOp::Change})
{
    std::vector<std::string> out;
    for (const auto &r : all) {
        if (ops.count(r.op) != 0) {
            out.push_back(std::string(DriverOpName(r.op)) + " " + r.DevNum());
        }
    }
    return out;
}

// The device information of a SCSI disk of the lab's default vendor.
inline std::string ScsiInfo(const BlockDevice &d)
{
    return d.DevNum() + " scsi QMESH VDISK " + d.hctl;
}

inline std::string Req(DriverOp op, const std::string &devNum)
{
    return std::string(DriverOpName(op)) + " " + devNum;
}

inline size_t CountAnswered(const Requests &all, DriverOp op, const std::string &devNum)
{
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const DriverRequest &r) {
        return r.op == op && r.answered && r.DevNum() == devNum;
    }));
}

// The requests after the first one for which `from` holds (excluded).
inline Requests After(const Requests &all, const std::function<bool(const DriverRequest &)> &from)
{
    auto it = std::find_if(all.begin(), all.end(), from);
    return it == all.end() ? Requests{} : Requests(it + 1, all.end());
}

// A daemon with live events. The daemon's handle thread loses a wake-up
// that comes while it is busy (by design: its two-minute wake-up catches
// up); a scenario that waits for the effect of an event therefore sends a
// harmless event now and then, a "change" of a loop device that the daemon
// drops, so that whatever is queued is taken without a two-minute wait.
class Live {
public:
    // The loop device goes into the testbed before the daemon starts (the
    // start-up scan drops it too).
    explicit Live(Lab &lab) : lab_(lab), poke_(lab.testbed().AddLoop(63)) {}

    Daemon &Start(DaemonOptions options = {})
    {
        daemon_ = &lab_.Start(std::move(options));
        return *daemon_;
    }
    Daemon &daemon() { return *daemon_; }
    const BlockDevice &Poke() const { return poke_; }

    // Sends one uevent and returns once the daemon's monitor has queued it
    // (or its filter has dropped it). False when no monitor took it.
    bool Send(const BlockDevice &device, const std::string &action)
    {
        if (lab_.testbed().Emit(device.syspath, action) == 0) {
            return false;
        }
        return daemon_->WaitMonitorIdle(30s);
    }
    // The kernel's order: the device goes, then its "remove" event.
    bool SendRemove(const BlockDevice &device)
    {
        if (lab_.testbed().RemoveAndEmit(device.syspath) == 0) {
            return false;
        }
        return daemon_->WaitMonitorIdle(30s);
    }
    // Sends the harmless event, without waiting for it.
    void Nudge() { lab_.testbed().Emit(poke_.syspath, "change", 5s); }

    // Waits until `pred` holds for the driver's requests, nudging the
    // handle thread every `every` meanwhile.
    bool WaitRequests(const std::function<bool(const Requests &)> &pred, Clock::duration timeout,
                      Clock::duration every = 200ms)
    {
        Deadline deadline(timeout);
        for (;;) {
            if (lab_.driver().WaitFor(pred, std::min<Clock::duration>(every, deadline.Remaining()))) {
                return true;
            }
            if (deadline.Expired()) {
                return false;
            }
            Nudge();
        }
    }
    // Until `n` requests of `op` for the device have been answered.
    bool WaitAnswered(DriverOp op, const std::string &devNum, size_t n = 1, Clock::duration timeout = 30s)
    {
        return WaitRequests([&](const Requests &all) { return CountAnswered(all, op, devNum) >= n; }, timeout);
    }

private:
    Lab &lab_;
    BlockDevice poke_;
    Daemon *daemon_ = nullptr;
};

// --- The daemon's clock, from its trace records ---------------------------

// The record's time ("YYYY-MM-DD hh:mm:ss", the daemon's local time) in
// seconds since the epoch. Under accelerated time this is the daemon's
// clock, not the lab's.
inline std::optional<long> RecordTime(const TraceRecord &record)
{
    std::tm tm{};
    std::istringstream in(record.time);
    in >> std::get_time(&tm, "%Y-%m-%d %H:%M:%S");
    if (in.fail()) {
        return std::nullopt;
    }
    tm.tm_isdst = -1;
    return static_cast<long>(std::mktime(&tm));
}

inline std::vector<TraceRecord> RecordsWith(const std::vector<TraceRecord> &records, const std::string &text)
{
    std::vector<TraceRecord> out;
    std::copy_if(records.begin(), records.end(), std::back_inserter(out),
                 [&](const TraceRecord &r) { return r.message.find(text) != std::string::npos; });
    return out;
}

// Index of the first record whose message contains `text`, or -1.
inline long IndexOf(const std::vector<TraceRecord> &records, const std::string &text)
{
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].message.find(text) != std::string::npos) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

// The daemon's record of one answered driver request, as the misc channel
// writes it: "device{<text>} action{<action>} with ret{<status>}.".
inline std::string DriverRecord(const std::string &text, const std::string &action, unsigned status)
{
    return "device{" + text + "} action{" + action + "} with ret{" + std::to_string(status) + "}.";
}

inline std::vector<std::string> NotifyTexts(Lab &lab)
{
    EXPECT_TRUE(lab.sandbox().Notify().Sync());
    std::vector<std::string> out;
    for (const auto &d : lab.sandbox().Notifications()) {
        out.push_back(d.text);
    }
    return out;
}

// Processes that carry this lab's driver socket in their environment: its
// daemons and everything they started (shells, the lvm stub) that still
// run (a zombie has no environment left to show).
inline std::vector<int> LabProcesses(Lab &lab)
{
    const std::string mark = std::string("QMLAB_MISC_SOCKET=") + lab.driver().SocketPath();
    std::vector<int> out;
    DIR *proc = ::opendir("/proc");
    if (proc == nullptr) {
        return out;
    }
    while (dirent *e = ::readdir(proc)) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9') {
            continue;
        }
        auto env = ReadFile(std::string("/proc/") + e->d_name + "/environ");
        if (!env) {
            continue;
        }
        std::istringstream entries(*env);
        std::string entry;
        while (std::getline(entries, entry, '\0')) {
            if (entry == mark) {
                out.push_back(std::atoi(e->d_name));
                break;
            }
        }
    }
    ::closedir(proc);
    return out;
}

// Each thread of the process and the system call it sleeps in (-1 while it
// runs), from /proc/<pid>/task/<tid>/syscall.
inline std::vector<std::pair<long, long>> ThreadSyscalls(int pid)
{
    std::vector<std::pair<long, long>> out;
    std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR *dir = ::opendir(tasks.c_str());
    if (dir == nullptr) {
        return out;
    }
    while (dirent *e = ::readdir(dir)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        std::string text = ReadFile(tasks + "/" + e->d_name + "/syscall").value_or("");
        long nr = !text.empty() && text[0] >= '0' && text[0] <= '9' ? std::atol(text.c_str()) : -1;
        out.emplace_back(std::atol(e->d_name), nr);
    }
    ::closedir(dir);
    return out;
}

inline size_t ThreadCount(int pid)
{
    size_t n = 0;
    DIR *dir = ::opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (dirent *e = ::readdir(dir)) {
        n += e->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(dir);
    return n;
}

}  // namespace qmlab::flow
