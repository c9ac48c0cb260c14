// Helpers of the end-to-end scenarios: driver requests and waits for them,
// trace records, notifications, what a daemon leaves behind, live events.
#pragma once

#include <algorithm>
#include <ctime>
#include <functional>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <gtest/gtest.h>

#include "qmlab/lab.h"

namespace qmlab::test {

using Requests = std::vector<DriverRequest>;

// Held by the driver, not by udev: the scan's REMOVE for it comes after every
// ADD of its batch, each finished with its time-outs, so its answer says that
// the scan's work is done.
inline constexpr const char *kEndOfScan = "8:240";

inline std::string Req(DriverOp op, const std::string &devNum)
{
    return std::string(DriverOpName(op)) + " " + devNum;
}

inline bool IsEvent(DriverOp op)
{
    return op == DriverOp::Add || op == DriverOp::Remove || op == DriverOp::Change;
}

// 'A' add, 'R' remove, 'C' change: an event's action, a request's kind.
inline const char *ActionName(char action)
{
    return action == 'A' ? "add" : action == 'R' ? "remove" : "change";
}

inline DriverOp OpOf(char action)
{
    return action == 'A' ? DriverOp::Add : action == 'R' ? DriverOp::Remove : DriverOp::Change;
}

// "ADD 8:0", "REMOVE 8:32", "CHANGE 8:16" in arrival order; with
// `startAndGet`, "START" and "GET" too.
inline std::vector<std::string> Seen(const Requests &all, bool startAndGet = false)
{
    std::vector<std::string> out;
    for (const auto &r : all) {
        if (IsEvent(r.op)) {
            out.push_back(Req(r.op, r.DevNum()));
        } else if (startAndGet && (r.op == DriverOp::Start || r.op == DriverOp::Get)) {
            out.push_back(DriverOpName(r.op));
        }
    }
    return out;
}

// The device information of a SCSI disk of the lab's default vendor.
inline std::string ScsiInfo(const BlockDevice &d)
{
    return d.DevNum() + " scsi QMESH VDISK " + d.hctl;
}

// Answered requests of `op`, for one device number ("": any).
inline size_t CountAnswered(const Requests &all, DriverOp op, const std::string &devNum = "")
{
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const DriverRequest &r) {
        return r.op == op && r.answered && (devNum.empty() || r.DevNum() == devNum);
    }));
}

inline bool WaitAnswered(const DriverEmulator &drv, DriverOp op, const std::string &devNum, size_t n = 1,
                         Clock::duration timeout = 30s)
{
    return drv.WaitFor([&](const Requests &all) { return CountAnswered(all, op, devNum) >= n; }, timeout);
}

// The requests of one kind for one device number, in arrival order.
inline Requests RequestsFor(const DriverEmulator &drv, DriverOp op, const std::string &devNum)
{
    Requests out;
    auto all = drv.Requests(op);
    std::copy_if(all.begin(), all.end(), std::back_inserter(out), [&](auto &r) { return r.DevNum() == devNum; });
    return out;
}

// The requests after the first one for which `from` holds (excluded).
inline Requests After(const Requests &all, const std::function<bool(const DriverRequest &)> &from)
{
    auto it = std::find_if(all.begin(), all.end(), from);
    return it == all.end() ? Requests{} : Requests(it + 1, all.end());
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

// The record's time (the daemon's local time, whole seconds) in seconds since
// the epoch. Under accelerated time this is the daemon's clock, not the lab's.
inline long RecordTime(const TraceRecord &record)
{
    std::tm tm{};
    std::istringstream in(record.time);
    in >> std::get_time(&tm, "%Y-%m-%d %H:%M:%S");
    tm.tm_isdst = -1;
    return in.fail() ? 0 : static_cast<long>(std::mktime(&tm));
}

// The daemon's record of one answered driver request.
inline std::string DriverRecord(const std::string &text, const std::string &action, unsigned status)
{
    return "device{" + text + "} action{" + action + "} with ret{" + std::to_string(status) + "}.";
}

// How the daemon ended ("exit 1", ...), or "still running" at the deadline.
inline std::string ExitOf(Daemon &d, Clock::duration timeout)
{
    auto status = d.WaitExit(timeout);
    return status ? status->Describe() : "still running";
}

inline std::vector<std::string> NotifyTexts(Lab &lab, int pid = 0)
{
    EXPECT_TRUE(lab.sandbox().Notify().Sync());
    std::vector<std::string> out;
    for (const auto &d : lab.sandbox().Notifications()) {
        if (pid == 0 || d.pid == pid) {
            out.push_back(d.text);
        }
    }
    return out;
}

// Processes that carry this lab's driver socket in their environment: its
// daemons and everything they started (shells, the lvm stub) that still run.
inline std::vector<int> LabProcesses(Lab &lab)
{
    const std::string mark = std::string("QMLAB_MISC_SOCKET=") + lab.driver().SocketPath();
    std::vector<int> out;
    std::unique_ptr<DIR, int (*)(DIR *)> proc(::opendir("/proc"), ::closedir);
    while (dirent *e = proc ? ::readdir(proc.get()) : nullptr) {
        bool pid = e->d_name[0] >= '1' && e->d_name[0] <= '9';
        if (pid && ('\0' + ReadFile(std::string("/proc/") + e->d_name + "/environ").value_or(""))
                           .find('\0' + mark + '\0') != std::string::npos) {
            out.push_back(std::atoi(e->d_name));
        }
    }
    return out;
}

// After a daemon has exited: no process of the lab runs on, and every open of
// the driver's device has had its close. The emulator learns of a close when
// the shim's session socket ends, which may come a moment after the exit, so
// both are waited for (with a deadline), never sampled.
inline void ExpectNothingLeftBehind(Lab &lab)
{
    EXPECT_TRUE(Eventually([&] { return LabProcesses(lab).empty(); }, 10s))
        << "something the daemon started is still running";
    auto opened = [](const Requests &all, DriverOp op) {
        return std::count_if(all.begin(), all.end(), [op](const DriverRequest &r) { return r.op == op && r.ret >= 0; });
    };
    EXPECT_TRUE(lab.driver().WaitFor(
        [&](const Requests &all) { return opened(all, DriverOp::Open) == opened(all, DriverOp::Close); }, 10s))
        << "the device was not closed";
}

// A daemon with live events. The handle thread loses a wake-up that comes
// while it is busy (by design: its two-minute wake-up catches up), so a wait
// for an event's effect nudges it now and then with a harmless event: a
// "change" of a loop device, which the daemon drops (as its scan does).
class Live {
public:
    explicit Live(Lab &lab) : lab_(lab), poke_(lab.testbed().AddLoop(63)) {}

    Daemon &Start(DaemonOptions options = {})
    {
        daemon_ = &lab_.Start(std::move(options));
        return *daemon_;
    }
    // Sends one uevent and returns once the daemon's monitor has queued it
    // (or its filter has dropped it). False when no monitor took it.
    bool Send(const BlockDevice &device, const std::string &action)
    {
        return lab_.testbed().Emit(device.syspath, action) != 0 && daemon_->WaitMonitorIdle(30s);
    }
    // The kernel's order: the device goes, then its "remove" event.
    bool SendRemove(const BlockDevice &device)
    {
        return lab_.testbed().RemoveAndEmit(device.syspath) != 0 && daemon_->WaitMonitorIdle(30s);
    }
    // Sends the harmless event, without waiting for it.
    void Nudge() { lab_.testbed().Emit(poke_.syspath, "change", 5s); }

    // Until `n` requests of `op` for the device ("": any) have been
    // answered, nudging the handle thread every 200 ms meanwhile.
    bool WaitAnswered(DriverOp op, const std::string &devNum, size_t n = 1, Clock::duration timeout = 30s)
    {
        return Nudging(timeout, [&](Clock::duration slice) {
            return qmlab::test::WaitAnswered(lab_.driver(), op, devNum, n, slice);
        });
    }
    // Until the trace log holds `text`, nudging likewise: an event that
    // the driver never sees (a dropped one) shows only there.
    bool WaitTrace(const std::string &text, Clock::duration timeout = 30s)
    {
        return Nudging(timeout, [&](Clock::duration slice) { return lab_.WaitTrace(text, slice); });
    }

private:
    template <typename Wait>
    bool Nudging(Clock::duration timeout, Wait wait)
    {
        for (Deadline deadline(timeout);; Nudge()) {
            if (wait(std::min<Clock::duration>(200ms, deadline.Remaining()))) {
                return true;
            }
            if (deadline.Expired()) {
                return false;
            }
        }
    }

    Lab &lab_;
    BlockDevice poke_;
    Daemon *daemon_ = nullptr;
};

}  // namespace qmlab::test
