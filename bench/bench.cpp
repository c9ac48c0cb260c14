// The scale benchmark: the real daemon and the floor program (floor.cpp)
// side by side, on generated hosts of N whole disks (FC, iSCSI and NVMe,
// all accepted by the vendor list), in the lab's sandbox.
//
// For each N, one testbed; each run starts the subject (daemon or floor)
// on it and measures:
//  - start-up: from the spawn until the emulated driver has received the
//    scan's last request (every disk's ADD, every stale number's REMOVE),
//    wall time from the driver's own time stamps, and the subject's CPU
//    time (user + sys, from /proc) once it has gone idle;
//  - storm: N "add" uevents emitted back to back once the scan is done:
//    how many ADDs reached the driver, the time until the last did
//    (completion), the time until the last one before the first pause of
//    more than a few seconds (the daemon's handle thread waits, by design,
//    for its next wake-up for events whose signal came while it was busy),
//    and the CPU time the subject spent on the storm;
//  - peak resident memory (VmHWM) of the subject over both phases.
// Runs alternate the order of the subjects; the table gives medians.
//
// Usage: qmudev-bench [--smoke] [--sizes 1000,4000,10000] [--runs 3]
//                     [--subjects daemon,floor] [--no-storm]
//                     [--callgrind DIR] [--out FILE]
//
// Subject "adm" (--subjects daemon,adm --no-storm) runs `qmudevadm test
// --json` on the same testbed instead: the dry run of the start-up scan,
// whose CPU time is compared with the daemon's start-up.
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmlab/lab.h"
#include "scenario.h"

using namespace qmlab;

namespace {

struct Options {
    std::vector<size_t> sizes = {1000, 4000, 10000};
    int runs = 3;
    bool smoke = false;
    bool storm = true;
    std::vector<std::string> subjects = {"daemon", "floor"};
    std::string callgrindDir;
    std::string out;
    std::optional<double> daemonTimeSpeed;
};

std::vector<std::string> Split(const std::string &text, char sep)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, sep)) {
        if (!item.empty()) {
            out.push_back(item);
        }
    }
    return out;
}

[[noreturn]] void Usage(const char *why)
{
    std::fprintf(stderr,
                 "qmudev-bench: %s\n"
                 "usage: qmudev-bench [--smoke] [--sizes N,N,...] [--runs R] [--subjects daemon,floor,adm]\n"
                 "                    [--no-storm] [--callgrind DIR] [--out FILE]\n",
                 why);
    std::exit(2);
}

Options ParseOptions(int argc, char **argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                Usage(("missing value of " + a).c_str());
            }
            return argv[++i];
        };
        if (a == "--smoke") {
            o.smoke = true;
        } else if (a == "--sizes") {
            o.sizes.clear();
            for (const auto &s : Split(value(), ',')) {
                o.sizes.push_back(std::stoul(s));
            }
        } else if (a == "--runs") {
            o.runs = std::max(1, std::stoi(value()));
        } else if (a == "--subjects") {
            o.subjects = Split(value(), ',');
        } else if (a == "--no-storm") {
            o.storm = false;
        } else if (a == "--callgrind") {
            o.callgrindDir = value();
        } else if (a == "--out") {
            o.out = value();
        } else if (a == "--daemon-time-speed") {
            o.daemonTimeSpeed = std::stod(value());
        } else {
            Usage(("unknown argument " + a).c_str());
        }
    }
    if (o.smoke) {
        // A check that the harness works and nothing is lost, not a timing:
        // the daemon's clock runs 10 times faster so that its two-minute
        // wake-up of the handle thread comes after 12 s.
        o.sizes = {200};
        o.runs = 1;
        if (!o.daemonTimeSpeed) {
            o.daemonTimeSpeed = 10;
        }
    }
    for (const auto &s : o.subjects) {
        if (s != "daemon" && s != "floor" && s != "adm") {
            Usage(("unknown subject " + s).c_str());
        }
    }
    return o;
}

std::string FloorPath()
{
    const char *v = std::getenv("QMBENCH_FLOOR");
    return v != nullptr && v[0] != '\0' ? v : QMBENCH_FLOOR_PATH;
}

std::string AdmPath()
{
    const char *v = std::getenv("QMBENCH_ADM");
    return v != nullptr && v[0] != '\0' ? v : QMBENCH_ADM_PATH;
}

double Seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

// ---------------------------------------------------------------- scenario

struct Scenario {
    std::vector<BlockDevice> disks;
    std::vector<std::string> stale;  // device numbers the driver holds and udev does not
    size_t fc = 0;
    size_t iscsi = 0;
    size_t nvme = 0;
};

// N whole disks: 40 % FC, each LUN over 4 HBAs (256 LUNs per remote port
// and target), 30 % iSCSI (256 LUNs per session, a host per session), 30 %
// NVMe (256 namespaces per controller). The driver holds every disk's number
// (a restart of the daemon) and N/100 numbers that udev no longer has.
Scenario BuildScenario(Lab &lab, size_t n)
{
    Testbed &tb = lab.testbed();
    Scenario s;
    s.fc = n * 4 / 10;
    s.iscsi = n * 3 / 10;
    s.nvme = n - s.fc - s.iscsi;
    s.disks.reserve(n);
    ScsiIdentity id;
    id.timeout = qmbench::kScsiTimeout;
    for (size_t i = 0; i < s.fc; ++i) {
        size_t path = i % 4;
        size_t lunIndex = i / 4;
        FcDiskSpec spec;
        spec.host = static_cast<int>(2 + path);
        spec.channel = 0;
        // One SCSI target per remote port, numbered per host as the kernel does.
        spec.port = static_cast<int>(7 + lunIndex / 256);
        spec.target = static_cast<int>(1 + lunIndex / 256);
        spec.lun = static_cast<int>(lunIndex % 256);
        spec.devLossTmo = qmbench::kDevLossTmo;
        spec.fastIoFailTmo = qmbench::kFastIoFailTmo;
        spec.id = id;
        s.disks.push_back(tb.AddFcDisk(spec));
    }
    for (size_t j = 0; j < s.iscsi; ++j) {
        size_t session = 10 + j / 256;
        IscsiDiskSpec spec;
        spec.host = static_cast<int>(6 + session);  // a SCSI host per session, as open-iscsi makes
        spec.session = static_cast<int>(session);
        spec.channel = 0;
        spec.target = 0;
        spec.lun = static_cast<int>(j % 256);
        spec.recoveryTmo = qmbench::kRecoveryTmo;
        spec.id = id;
        s.disks.push_back(tb.AddIscsiDisk(spec));
    }
    std::map<size_t, NvmeController> controllers;
    for (size_t k = 0; k < s.nvme; ++k) {
        size_t instance = k / 256;
        auto it = controllers.find(instance);
        if (it == controllers.end()) {
            it = controllers
                     .emplace(instance, tb.AddNvmeController({.instance = static_cast<int>(instance), .cntlid = "1"}))
                     .first;
        }
        NvmeNamespaceSpec spec;
        spec.nsIndex = static_cast<int>(k % 256 + 1);
        spec.cntlid = "1";
        s.disks.push_back(tb.AddNvmeNamespace(it->second, spec));
    }
    std::vector<std::string> held;
    held.reserve(n + n / 100);
    for (const auto &d : s.disks) {
        held.push_back(d.DevNum());
    }
    for (size_t i = 0; i < n / 100; ++i) {
        s.stale.push_back("259:" + std::to_string(500000 + i));
        held.push_back(s.stale.back());
    }
    lab.driver().SetDeviceList(held);
    return s;
}

// ---------------------------------------------------------------- process figures

// user + sys of the process and of the children it waited for, in seconds;
// nullopt once it is gone.
std::optional<double> CpuSeconds(pid_t pid)
{
    auto stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    if (!stat) {
        return std::nullopt;
    }
    // Fields after the command name (which may hold blanks) start at ") ".
    auto close = stat->rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream in(stat->substr(close + 2));
    std::vector<std::string> f;
    std::string w;
    while (in >> w) {
        f.push_back(w);
    }
    // f[0] is field 3 (state): utime is field 14, stime 15, cutime 16, cstime 17.
    if (f.size() < 15) {
        return std::nullopt;
    }
    double ticks = std::stod(f[11]) + std::stod(f[12]) + std::stod(f[13]) + std::stod(f[14]);
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// VmHWM in MiB; 0 when unknown.
double PeakRssMiB(pid_t pid)
{
    auto status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    if (!status) {
        return 0;
    }
    auto at = status->find("VmHWM:");
    if (at == std::string::npos) {
        return 0;
    }
    return std::strtod(status->c_str() + at + 6, nullptr) / 1024.0;
}

// Waits until the process has used no CPU for `quiet` (it finished what it
// was doing), at most `timeout`; returns its CPU time then.
std::optional<double> CpuWhenIdle(pid_t pid, Clock::duration quiet = 300ms, Clock::duration timeout = 60s)
{
    Deadline deadline(timeout);
    std::optional<double> last = CpuSeconds(pid);
    auto stableSince = Clock::now();
    while (!deadline.Expired()) {
        std::this_thread::sleep_for(50ms);
        auto now = CpuSeconds(pid);
        if (!now) {
            return last;
        }
        if (!last || *now != *last) {
            last = now;
            stableSince = Clock::now();
        } else if (Clock::now() - stableSince >= quiet) {
            break;
        }
    }
    return last;
}

// Follows the driver's log for one process: counts its requests as they
// come, reading each record once.
class RequestFollower {
public:
    RequestFollower(DriverEmulator &driver, pid_t pid) : driver_(driver), pid_(pid) {}

    void Poll()
    {
        driver_.WaitFor(
            [this](const std::vector<DriverRequest> &log) {
                for (; next_ < log.size(); ++next_) {
                    const DriverRequest &r = log[next_];
                    if (r.pid != pid_) {
                        continue;
                    }
                    if (r.op == DriverOp::Add) {
                        addTimes_.push_back(r.stamp.at);
                    } else if (r.op == DriverOp::Remove) {
                        ++removes_;
                        lastRemove_ = r.stamp.at;
                    }
                }
                return true;
            },
            0s);
    }
    size_t Adds() const { return addTimes_.size(); }
    size_t Removes() const { return removes_; }
    const std::vector<Clock::time_point> &AddTimes() const { return addTimes_; }
    Clock::time_point LastRemove() const { return lastRemove_; }

    // Polls until `done` holds, the process ends or the deadline passes.
    template <class Pred>
    bool WaitUntil(Daemon &subject, Pred done, Clock::duration timeout)
    {
        Deadline deadline(timeout);
        for (;;) {
            Poll();
            if (done()) {
                return true;
            }
            if (deadline.Expired() || !subject.Running()) {
                Poll();
                return done();
            }
            std::this_thread::sleep_for(20ms);
        }
    }

private:
    DriverEmulator &driver_;
    pid_t pid_;
    size_t next_ = 0;
    std::vector<Clock::time_point> addTimes_;
    size_t removes_ = 0;
    Clock::time_point lastRemove_{};
};

// ---------------------------------------------------------------- one run

struct Measure {
    bool ok = false;
    std::string error;
    double startupWall = NAN;
    double startupCpu = NAN;
    size_t stormAdds = 0;
    double stormWall = NAN;    // until every ADD (or the last one that came)
    double stormActive = NAN;  // until the last ADD before the first pause
    size_t stormLate = 0;      // ADDs after that pause
    double stormCpu = NAN;
    double startupRss = NAN;  // VmHWM once start-up is done
    double peakRss = NAN;     // VmHWM at the end (start-up and storm)
};

constexpr auto kStormPause = 3s;

// qmudevadm test over every disk. The tool exits when done, so it runs
// under a shell that waits for it and then stays: the shell's children's
// CPU time (cutime + cstime in /proc) is then the tool's. Its wall time is
// from the spawn to its exit, seen within 50 ms.
Measure RunAdm(Lab &lab, const Scenario &s)
{
    Measure m;
    std::string out = lab.sandbox().Path("adm.json");
    std::string done = lab.sandbox().Path("adm.done");
    std::remove(done.c_str());
    DaemonOptions d;
    d.binary = "/bin/sh";
    d.args = {"-c", "\"$0\" test --json >\"$1\"; echo $? >\"$2\"; exec sleep 3600", AdmPath(), out, done};
    auto t0 = Clock::now();
    Daemon &p = lab.Start(d);
    Deadline deadline(900s);
    while (!ReadFile(done) && p.Running() && !deadline.Expired()) {
        std::this_thread::sleep_for(50ms);
    }
    m.startupWall = Seconds(Clock::now() - t0);
    m.startupCpu = CpuSeconds(p.Pid()).value_or(NAN);
    std::string code = ReadFile(done).value_or("none");
    p.Stop(2s);
    size_t taken = 0;
    std::ifstream json(out);
    for (std::string line; std::getline(json, line);) {
        taken += line.find("\"verdict\":\"taken over\"") != std::string::npos ? 1 : 0;
    }
    if (code != "0\n" || taken != s.disks.size()) {
        m.error = "qmudevadm test: exit " + code + ", " + std::to_string(taken) + " of " +
                  std::to_string(s.disks.size()) + " disks taken over\n" + p.Stderr();
    }
    m.ok = m.error.empty();
    return m;
}

Measure RunOne(Lab &lab, const Scenario &s, const std::string &subject, const Options &o)
{
    if (subject == "adm") {
        return RunAdm(lab, s);
    }
    Measure m;
    size_t n = s.disks.size();
    // Each run starts with empty trace files.
    WriteFile(kTraceLogPath, "");
    WriteFile(qmbench::kFloorTracePath, "");

    DaemonOptions d;
    std::string binary = subject == "floor" ? FloorPath() : DaemonBinaryPath();
    if (!o.callgrindDir.empty()) {
        d.binary = "/usr/bin/valgrind";
        d.args = {"--tool=callgrind", "--callgrind-out-file=" + o.callgrindDir + "/callgrind." + subject + "." +
                                          std::to_string(n) + ".%p",
                  binary};
    } else {
        d.binary = binary;
    }
    if (subject == "daemon") {
        d.timeSpeed = o.daemonTimeSpeed;
    }
    auto t0 = Clock::now();
    Daemon &p = lab.Start(d);
    RequestFollower follow(lab.driver(), p.Pid());

    // Start-up: every disk's ADD and every stale number's REMOVE.
    Clock::duration startupLimit = o.callgrindDir.empty() ? 900s : 7200s;
    bool scanned = follow.WaitUntil(
        p, [&] { return follow.Adds() >= n && follow.Removes() >= s.stale.size(); }, startupLimit);
    if (!scanned) {
        m.error = "start-up: " + std::to_string(follow.Adds()) + " of " + std::to_string(n) + " ADDs, " +
                  std::to_string(follow.Removes()) + " of " + std::to_string(s.stale.size()) + " REMOVEs; " +
                  (p.Running() ? "still running" : "ended") + "\n" + p.Stderr();
        p.Stop(2s);
        return m;
    }
    auto last = follow.AddTimes().back();
    if (!s.stale.empty()) {
        last = std::max(last, follow.LastRemove());
    }
    m.startupWall = Seconds(last - t0);
    auto cpuStart = CpuWhenIdle(p.Pid());
    m.startupCpu = cpuStart.value_or(NAN);
    m.startupRss = PeakRssMiB(p.Pid());
    if (!o.callgrindDir.empty()) {
        // Start-up's instruction counts go to a file of their own (".1"); the
        // file written at the end then holds the storm alone.
        std::string dump = "callgrind_control --dump=startup " + std::to_string(p.Pid()) + " >/dev/null 2>&1";
        if (std::system(dump.c_str()) != 0) {
            std::fprintf(stderr, "  callgrind_control could not dump %d\n", static_cast<int>(p.Pid()));
        }
    }

    if (o.storm) {
        if (!lab.testbed().WaitListeners(1, 60s)) {
            m.error = "storm: no udev monitor listens";
            p.Stop(2s);
            return m;
        }
        size_t base = follow.Adds();
        auto ts = Clock::now();
        size_t delivered = 0;
        for (const auto &disk : s.disks) {
            delivered += lab.testbed().Emit(disk.syspath, "add", 60s);
        }
        if (delivered != n) {
            std::fprintf(stderr, "  storm: %zu of %zu events delivered to a monitor\n", delivered, n);
        }
        Clock::duration stormLimit = o.callgrindDir.empty() ? 300s : 7200s;
        follow.WaitUntil(p, [&] { return follow.Adds() >= base + n; }, stormLimit);
        const auto &times = follow.AddTimes();
        m.stormAdds = times.size() - base;
        if (m.stormAdds > 0) {
            m.stormWall = Seconds(times.back() - ts);
            size_t i = base;
            while (i + 1 < times.size() && times[i + 1] - times[i] <= kStormPause) {
                ++i;
            }
            m.stormActive = Seconds(times[i] - ts);
            m.stormLate = times.size() - 1 - i;
        }
        auto cpuEnd = CpuWhenIdle(p.Pid());
        if (cpuStart && cpuEnd) {
            m.stormCpu = *cpuEnd - *cpuStart;
        }
        if (m.stormAdds != n) {
            m.error = "storm: " + std::to_string(m.stormAdds) + " of " + std::to_string(n) + " ADDs reached the driver";
        }
    }
    m.peakRss = PeakRssMiB(p.Pid());
    bool running = p.Running();
    p.Stop(5s);
    if (!running) {
        m.error += (m.error.empty() ? "" : "; ") + std::string("ended early: ") + p.Stderr();
    }
    m.ok = m.error.empty();
    return m;
}

// ---------------------------------------------------------------- report

double Median(std::vector<double> v)
{
    v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
    if (v.empty()) {
        return NAN;
    }
    std::sort(v.begin(), v.end());
    size_t k = v.size() / 2;
    return v.size() % 2 == 1 ? v[k] : (v[k - 1] + v[k]) / 2;
}

struct Figure {
    const char *name;
    const char *unit;
    double Measure::*field;
};

const Figure kFigures[] = {
    {"start-up wall", "s", &Measure::startupWall},
    {"start-up CPU (user+sys)", "s", &Measure::startupCpu},
    {"storm: ADDs reached the driver", "", nullptr},
    {"storm completion (last ADD)", "s", &Measure::stormWall},
    {"storm until the first pause", "s", &Measure::stormActive},
    {"storm CPU (user+sys)", "s", &Measure::stormCpu},
    {"peak RSS after start-up (VmHWM)", "MiB", &Measure::startupRss},
    {"peak RSS, start-up and storm (VmHWM)", "MiB", &Measure::peakRss},
};

std::string Num(double v, int prec = 2)
{
    if (std::isnan(v)) {
        return "-";
    }
    char b[64];
    std::snprintf(b, sizeof(b), "%.*f", prec, v);
    return b;
}

std::string LoadAverage()
{
    return ReadFile("/proc/loadavg").value_or("?\n");
}

using Results = std::map<size_t, std::map<std::string, std::vector<Measure>>>;

double MedianOf(const std::vector<Measure> &runs, double Measure::*field)
{
    std::vector<double> v;
    for (const auto &m : runs) {
        v.push_back(m.*field);
    }
    return Median(v);
}

std::string Report(const Results &results, const Options &o, const std::string &loadBefore,
                   const std::string &loadAfter)
{
    std::ostringstream r;
    utsname u{};
    uname(&u);
    r << "machine: " << u.nodename << ", " << u.release << ", " << sysconf(_SC_NPROCESSORS_ONLN) << " cores\n";
    r << "load average before: " << loadBefore << "load average after:  " << loadAfter;
    r << "runs per subject and size: " << o.runs << " (medians)\n\n";
    r << "| N | figure | daemon | floor | daemon/floor |\n|---:|---|---:|---:|---:|\n";
    for (const auto &entry : results) {
        // Named copies, not structured bindings: lambdas below use them, and
        // clang 14 cannot capture a structured binding.
        const auto n = entry.first;
        const auto &bySubject = entry.second;
        auto get = [&](const std::string &subject) -> const std::vector<Measure> * {
            auto it = bySubject.find(subject);
            return it == bySubject.end() ? nullptr : &it->second;
        };
        const auto *dm = get("daemon");
        const auto *fl = get("floor");
        for (const auto &f : kFigures) {
            if (!o.storm && (std::string(f.name).rfind("storm", 0) == 0 || f.field == &Measure::peakRss)) {
                continue;
            }
            std::string dv = "-";
            std::string fv = "-";
            std::string ratio = "-";
            if (f.field == nullptr) {
                auto adds = [&](const std::vector<Measure> *runs) {
                    if (runs == nullptr) {
                        return std::string("-");
                    }
                    size_t lo = n;
                    for (const auto &m : *runs) {
                        lo = std::min(lo, m.stormAdds);
                    }
                    return std::to_string(lo) + " of " + std::to_string(n);
                };
                dv = adds(dm);
                fv = adds(fl);
            } else {
                double a = dm ? MedianOf(*dm, f.field) : NAN;
                double b = fl ? MedianOf(*fl, f.field) : NAN;
                dv = Num(a);
                fv = Num(b);
                if (!std::isnan(a) && !std::isnan(b) && b > 0) {
                    ratio = Num(a / b) + "x";
                }
            }
            std::string unit = f.unit[0] != '\0' ? std::string(" (") + f.unit + ")" : "";
            r << "| " << n << " | " << f.name << unit << " | " << dv << " | " << fv << " | " << ratio << " |\n";
        }
    }
    bool adm = false;
    for (const auto &[n, bySubject] : results) {
        adm = adm || bySubject.count("adm") != 0;
    }
    if (adm) {
        r << "\nqmudevadm test against the daemon's start-up on the same testbed:\n\n"
             "| N | figure | daemon start-up | qmudevadm test | tool/daemon |\n|---:|---|---:|---:|---:|\n";
        for (const auto &[n, bySubject] : results) {
            auto dm = bySubject.find("daemon");
            auto tool = bySubject.find("adm");
            for (const auto &f : {kFigures[1], kFigures[0]}) {
                double a = dm != bySubject.end() ? MedianOf(dm->second, f.field) : NAN;
                double b = tool != bySubject.end() ? MedianOf(tool->second, f.field) : NAN;
                std::string ratio = !std::isnan(a) && !std::isnan(b) && a > 0 ? Num(b / a) + "x" : "-";
                r << "| " << n << " | " << f.name << " (s) | " << Num(a) << " | " << Num(b) << " | " << ratio << " |\n";
            }
        }
    }
    if (results.size() >= 2) {
        size_t lo = results.begin()->first;
        size_t hi = results.rbegin()->first;
        r << "\nGrowth from " << lo << " to " << hi << " disks (" << Num(static_cast<double>(hi) / lo, 1)
          << "x the disks):\n\n| figure | daemon | floor |\n|---|---:|---:|\n";
        for (const auto &f : kFigures) {
            if (f.field == nullptr ||
                (!o.storm && (std::string(f.name).rfind("storm", 0) == 0 || f.field == &Measure::peakRss))) {
                continue;
            }
            r << "| " << f.name << " |";
            for (const char *subject : {"daemon", "floor"}) {
                auto a = results.at(lo).find(subject);
                auto b = results.at(hi).find(subject);
                if (a == results.at(lo).end() || b == results.at(hi).end()) {
                    r << " - |";
                    continue;
                }
                double x = MedianOf(a->second, f.field);
                double y = MedianOf(b->second, f.field);
                r << " " << (x > 0 ? Num(y / x, 1) + "x" : std::string("-")) << " |";
            }
            r << "\n";
        }
    }
    r << "\nPer run (start-up wall / CPU, storm ADDs / completion / until pause / late / CPU, peak RSS after "
         "start-up / at the end):\n";
    for (const auto &[n, bySubject] : results) {
        for (const auto &[subject, runs] : bySubject) {
            for (size_t i = 0; i < runs.size(); ++i) {
                const Measure &m = runs[i];
                r << "  N=" << n << " " << subject << " #" << i + 1 << ": " << Num(m.startupWall) << " s / "
                  << Num(m.startupCpu) << " s, " << m.stormAdds << " / " << Num(m.stormWall) << " s / "
                  << Num(m.stormActive) << " s / " << m.stormLate << " / " << Num(m.stormCpu) << " s, "
                  << Num(m.startupRss, 1) << " / " << Num(m.peakRss, 1) << " MiB" << (m.ok ? "" : "  FAILED: " + m.error) << "\n";
            }
        }
    }
    return r.str();
}

}  // namespace

int main(int argc, char **argv)
{
    Options o = ParseOptions(argc, argv);
    try {
        Sandbox::EnsureUmockdevPreload(argv);
        Sandbox::EnterPrivateNamespace();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qmudev-bench: %s\n", e.what());
        return 2;
    }
    if (!o.callgrindDir.empty()) {
        std::filesystem::create_directories(o.callgrindDir);
    }
    std::string loadBefore = LoadAverage();
    Results results;
    bool failed = false;
    for (size_t n : o.sizes) {
        try {
            SandboxOptions so;
            so.timeoutConfig = std::string(qmbench::kTimeoutConfig);
            Lab lab({.sandbox = so});
            auto b0 = Clock::now();
            Scenario s = BuildScenario(lab, n);
            std::fprintf(stderr, "N=%zu: testbed of %zu FC, %zu iSCSI, %zu NVMe disks built in %.1f s\n", n, s.fc,
                         s.iscsi, s.nvme, Seconds(Clock::now() - b0));
            for (int run = 0; run < o.runs; ++run) {
                std::vector<std::string> order = o.subjects;
                if (run % 2 == 1) {
                    std::reverse(order.begin(), order.end());
                }
                for (const auto &subject : order) {
                    Measure m = RunOne(lab, s, subject, o);
                    std::fprintf(stderr,
                                 "  %-6s run %d: start-up %s s (CPU %s s); storm %zu of %zu ADDs, last %s s, "
                                 "before pause %s s (%zu late), CPU %s s; peak RSS %s / %s MiB%s%s\n",
                                 subject.c_str(), run + 1, Num(m.startupWall).c_str(), Num(m.startupCpu).c_str(),
                                 m.stormAdds, n, Num(m.stormWall).c_str(), Num(m.stormActive).c_str(), m.stormLate,
                                 Num(m.stormCpu).c_str(), Num(m.startupRss, 1).c_str(), Num(m.peakRss, 1).c_str(),
                                 m.ok ? "" : "\n  FAILED: ",
                                 m.ok ? "" : m.error.c_str());
                    failed = failed || !m.ok;
                    results[n][subject].push_back(std::move(m));
                }
            }
        } catch (const std::exception &e) {
            std::fprintf(stderr, "N=%zu: %s\n", n, e.what());
            failed = true;
        }
    }
    std::string report = Report(results, o, loadBefore, LoadAverage());
    std::fputs(report.c_str(), stdout);
    if (!o.out.empty()) {
        std::ofstream(o.out) << report;
    }
    if (failed) {
        std::fprintf(stderr, "qmudev-bench: FAILED (see above)\n");
        return 1;
    }
    return 0;
}
