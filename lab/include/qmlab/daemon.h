// Runs the real qmudev binary inside the lab: its preloads (driver shim
// first, then umockdev, then libfaketime when time is sped up), the
// testbed, the driver socket and the notification socket.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "qmlab/clock.h"

namespace qmlab {

struct DaemonOptions {
    std::vector<std::string> args;  // after the program name
    // Whether the daemon finds the emulated driver; false: /dev/misc_qmnv
    // is missing (open fails with ENOENT).
    bool driver = true;
    // Runs the daemon's clocks this many times faster (libfaketime "+0 xN").
    std::optional<double> timeSpeed;
    std::vector<std::pair<std::string, std::string>> env;  // set last, override the lab's
    std::string binary;  // default: $QMLAB_DAEMON, else the daemon built with the lab
};

struct ExitStatus {
    bool exited = false;  // by exit(): code is valid
    int code = -1;
    bool signaled = false;  // by a signal: signal is valid
    int signal = 0;
    std::string Describe() const;
};

// Where the lab finds its parts (compiled in, each overridable through the
// environment variable named in brackets).
std::string DaemonBinaryPath();     // [QMLAB_DAEMON]
std::string ShimPath();             // [QMLAB_SHIM]
std::string UmockdevPreloadPath();  // [QMLAB_UMOCKDEV_PRELOAD]
std::string FaketimePath();         // [QMLAB_FAKETIME]

// Everything the daemon's environment is made of.
struct DaemonContext {
    std::string scratchDir;    // where its stdout and stderr go
    std::string testbedRoot;   // UMOCKDEV_DIR
    std::string driverSocket;  // QMLAB_MISC_SOCKET
    std::string notifySocket;  // NOTIFY_SOCKET
};

class Daemon {
public:
    Daemon(const DaemonContext &context, DaemonOptions options);
    // A daemon still running is killed (SIGKILL) and reaped.
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    pid_t Pid() const { return pid_; }
    bool Running();
    // The exit status once the process has ended; nullopt at the deadline.
    std::optional<ExitStatus> WaitExit(Clock::duration timeout);
    void Signal(int sig);
    // SIGTERM (the daemon installs no handler), then SIGKILL after `grace`.
    ExitStatus Stop(Clock::duration grace = 10s);
    std::string Stdout() const;
    std::string Stderr() const;
    const std::vector<std::string> &Environment() const { return env_; }

    // True once every event sent to the daemon's udev monitors has been
    // received (their sockets' queues are empty) and, after that, a thread
    // of the daemon sleeps in poll(2); false at the deadline. For qmudev
    // that thread is its monitor thread back in its wait, so every event
    // sent before the call has been queued on the daemon's event list.
    bool WaitMonitorIdle(Clock::duration timeout);
    // Fault injection through the driver shim: the daemon's next poll(2)
    // fails with `err`, once. For qmudev that is its monitor thread's wait
    // (a thread blocked in poll already is not interrupted: it meets the
    // fault on its next call, after its next event).
    void FailNextPoll(int err);

private:
    bool Reap(bool block);

    pid_t pid_ = -1;
    int pidfd_ = -1;
    std::optional<ExitStatus> status_;
    std::string outPath_;
    std::string errPath_;
    std::string binary_;
    std::string pollFaultPath_;
    std::string testbedRoot_;
    std::vector<std::string> env_;
};

}  // namespace qmlab

namespace qmlab {
// Reports of the sanitizer runtimes (AddressSanitizer, LeakSanitizer,
// ThreadSanitizer, UndefinedBehaviorSanitizer) in a program's standard
// error, one entry per report, each cut at its SUMMARY line.
std::vector<std::string> SanitizerReports(const std::string &stderrText);
// An instrumented daemon that finds a fault reports it on its standard
// error and may exit with an ordinary status (ASan's is 1, which a failed
// start-up also gives), so a status alone proves nothing. When a Daemon
// ends, every report in its standard error goes to this handler; the lab's
// test main makes each one a test failure.
using SanitizerReportHandler = void (*)(const std::string &program, const std::string &report);
// Returns the handler it replaces.
SanitizerReportHandler SetSanitizerReportHandler(SanitizerReportHandler handler);
}  // namespace qmlab
