#include "qmlab/daemon.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qmlab/sandbox.h"
#include "qmlab/wire.h"

extern char **environ;

namespace qmlab {

namespace {

std::string FromEnv(const char *name, const char *builtIn)
{
    const char *v = std::getenv(name);
    return v != nullptr && v[0] != '\0' ? std::string(v) : std::string(builtIn);
}

bool Dropped(const std::string &entry)
{
    static const char *const kNames[] = {"LD_PRELOAD=",   "UMOCKDEV_DIR=", "NOTIFY_SOCKET=",
                                         "FAKETIME",      "NO_FAKE_STAT=", "ASAN_OPTIONS=",
                                         "TSAN_OPTIONS=", "SYSTEMD_DEVICE_VERIFY_SYSFS="};
    for (const char *name : kNames) {
        if (entry.rfind(name, 0) == 0) {
            return true;
        }
    }
    return entry.rfind(wire::kSocketEnv, 0) == 0 || entry.rfind(wire::kPollFaultEnv, 0) == 0;
}

// Whether one thread's /proc/<pid>/task/<tid>/syscall shows it asleep in
// poll or ppoll: "running" while it runs, else the number of the call.
bool SleepsInPoll(const std::string &syscallFile)
{
    std::string text = ReadFile(syscallFile).value_or("");
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    long nr = std::strtol(text.c_str(), nullptr, 10);
    return nr == SYS_poll || nr == SYS_ppoll;
}

void SetVar(std::vector<std::string> &env, const std::string &name, const std::string &value)
{
    std::string prefix = name + "=";
    for (auto &e : env) {
        if (e.rfind(prefix, 0) == 0) {
            e = prefix + value;
            return;
        }
    }
    env.push_back(prefix + value);
}

std::atomic<int> g_daemonCount{0};
std::atomic<SanitizerReportHandler> g_sanitizerHandler{nullptr};

bool StartsReport(const std::string &line)
{
    static const char *const kMarks[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                         "WARNING: ThreadSanitizer", "ERROR: ThreadSanitizer",
                                         "FATAL: ThreadSanitizer", "ERROR: UndefinedBehaviorSanitizer",
                                         "runtime error:"};
    for (const char *mark : kMarks) {
        if (line.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string ExitStatus::Describe() const
{
    if (exited) {
        return "exit " + std::to_string(code);
    }
    if (signaled) {
        return std::string("signal ") + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
    }
    return "running";
}

std::string DaemonBinaryPath()
{
    return FromEnv("QMLAB_DAEMON", QMLAB_DAEMON_PATH);
}

std::string ShimPath()
{
    return FromEnv("QMLAB_SHIM", QMLAB_SHIM_PATH);
}

std::string UmockdevPreloadPath()
{
    return FromEnv("QMLAB_UMOCKDEV_PRELOAD", QMLAB_UMOCKDEV_PRELOAD);
}

std::string FaketimePath()
{
    return FromEnv("QMLAB_FAKETIME", QMLAB_FAKETIME_LIB);
}

Daemon::Daemon(const DaemonContext &context, DaemonOptions options)
{
    for (char **e = environ; *e != nullptr; ++e) {
        if (!Dropped(*e)) {
            env_.emplace_back(*e);
        }
    }
    std::string preload = ShimPath() + ":" + UmockdevPreloadPath();
    if (options.timeSpeed) {
        preload += ":" + FaketimePath();
        char spec[64];
        std::snprintf(spec, sizeof(spec), "+0 x%g", *options.timeSpeed);
        SetVar(env_, "FAKETIME", spec);
        SetVar(env_, "FAKETIME_DONT_RESET", "1");
        // libfaketime's destructor closes the semaphore that guards its stat
        // wrappers without forgetting it: a stat after that (a detached
        // worker's trace record while the process exits, LeakSanitizer's
        // symbolizer) waits on unmapped memory and dies. The daemon needs
        // no faked file times.
        SetVar(env_, "NO_FAKE_STAT", "1");
    }
    SetVar(env_, "LD_PRELOAD", preload);
    SetVar(env_, "UMOCKDEV_DIR", context.testbedRoot);
    SetVar(env_, "SYSTEMD_DEVICE_VERIFY_SYSFS", "0");
    // The daemon's sanitizer runtime cannot come first with preloads ahead
    // of it; leak checking stays on.
    const char *asan = std::getenv("ASAN_OPTIONS");
    std::string asanOptions = asan != nullptr && asan[0] != '\0' ? std::string(asan) + ":" : std::string();
    SetVar(env_, "ASAN_OPTIONS", asanOptions + "verify_asan_link_order=0:detect_leaks=1");
    // The lab's own suppressions are not the daemon's.
    SetVar(env_, "TSAN_OPTIONS",
           std::string("halt_on_error=1:second_deadlock_stack=1:suppressions=") + QMLAB_TSAN_DAEMON_SUPP);
    SetVar(env_, "NOTIFY_SOCKET", context.notifySocket);
    if (options.driver) {
        SetVar(env_, wire::kSocketEnv, context.driverSocket);
    }
    int n = ++g_daemonCount;
    pollFaultPath_ = context.scratchDir + "/daemon-" + std::to_string(n) + ".poll-fault";
    SetVar(env_, wire::kPollFaultEnv, pollFaultPath_);
    testbedRoot_ = context.testbedRoot;
    for (const auto &[k, v] : options.env) {
        SetVar(env_, k, v);
    }

    std::string binary = options.binary.empty() ? DaemonBinaryPath() : options.binary;
    binary_ = binary;
    if (::access(binary.c_str(), X_OK) < 0) {
        throw std::system_error(errno, std::generic_category(), "daemon binary " + binary);
    }
    outPath_ = context.scratchDir + "/daemon-" + std::to_string(n) + ".out";
    errPath_ = context.scratchDir + "/daemon-" + std::to_string(n) + ".err";

    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(binary.c_str()));
    for (auto &a : options.args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    std::vector<char *> envp;
    for (auto &e : env_) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attr, &all);
    // A process group of its own, so that what it starts (shells, the lvm
    // stub) goes down with it when the lab kills it.
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    int rc = ::posix_spawn(&pid_, binary.c_str(), &actions, &attr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        throw std::system_error(rc, std::generic_category(), "spawn " + binary);
    }
    pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
}

Daemon::~Daemon()
{
    if (pid_ > 0) {
        ::kill(-pid_, SIGKILL);  // its group: children it left behind, too
    }
    if (!status_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        Reap(true);
    }
    if (pidfd_ >= 0) {
        ::close(pidfd_);
    }
    SanitizerReportHandler handler = g_sanitizerHandler.load();
    if (handler != nullptr && pid_ > 0) {
        for (const auto &report : SanitizerReports(Stderr())) {
            handler(binary_, report);
        }
    }
}

bool Daemon::Reap(bool block)
{
    if (status_) {
        return true;
    }
    int wstatus = 0;
    pid_t r;
    do {
        r = ::waitpid(pid_, &wstatus, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r != pid_) {
        return false;
    }
    ExitStatus s;
    if (WIFEXITED(wstatus)) {
        s.exited = true;
        s.code = WEXITSTATUS(wstatus);
    } else if (WIFSIGNALED(wstatus)) {
        s.signaled = true;
        s.signal = WTERMSIG(wstatus);
    }
    status_ = s;
    return true;
}

bool Daemon::Running()
{
    return !Reap(false);
}

std::optional<ExitStatus> Daemon::WaitExit(Clock::duration timeout)
{
    Deadline deadline(timeout);
    if (pidfd_ >= 0) {
        for (;;) {
            if (Reap(false)) {
                return status_;
            }
            pollfd p{pidfd_, POLLIN, 0};
            int n = ::poll(&p, 1, deadline.RemainingMs());
            if (n == 0 && deadline.Expired()) {
                return Reap(false) ? status_ : std::nullopt;
            }
        }
    }
    if (Eventually([&] { return Reap(false); }, timeout)) {
        return status_;
    }
    return std::nullopt;
}

void Daemon::Signal(int sig)
{
    if (!status_ && pid_ > 0) {
        ::kill(pid_, sig);
    }
}

ExitStatus Daemon::Stop(Clock::duration grace)
{
    Signal(SIGTERM);
    if (auto s = WaitExit(grace)) {
        return *s;
    }
    Signal(SIGKILL);
    Reap(true);
    return *status_;
}

namespace {

// The number of bytes waiting in the daemon's udev monitor sockets, read
// through duplicates of its descriptors (pidfd_getfd): a Unix datagram
// socket reports the size of its next datagram, 0 when its queue is empty.
// nullopt while it has no monitor socket of the testbed.
std::optional<long> MonitorBacklog(int pidfd, pid_t pid, const std::string &testbedRoot)
{
    std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    DIR *dir = ::opendir(fds.c_str());
    if (dir == nullptr) {
        return std::nullopt;
    }
    std::optional<long> backlog;
    std::string prefix = testbedRoot + "/event";
    while (dirent *e = ::readdir(dir)) {
        char link[64] = {};
        std::string entry = fds + "/" + e->d_name;
        if (e->d_name[0] == '.' || ::readlink(entry.c_str(), link, sizeof(link) - 1) <= 0 ||
            std::strncmp(link, "socket:", 7) != 0) {
            continue;
        }
        int fd = static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, std::atoi(e->d_name), 0));
        if (fd < 0) {
            continue;
        }
        sockaddr_un addr{};
        socklen_t len = sizeof(addr);
        int queued = 0;
        if (::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0 && addr.sun_family == AF_UNIX &&
            len > offsetof(sockaddr_un, sun_path) && addr.sun_path[0] != '\0' &&
            std::string(addr.sun_path).rfind(prefix, 0) == 0 && ::ioctl(fd, SIOCINQ, &queued) == 0) {
            backlog = backlog.value_or(0) + queued;
        }
        ::close(fd);
    }
    ::closedir(dir);
    return backlog;
}

bool SomeThreadSleepsInPoll(pid_t pid)
{
    std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR *dir = ::opendir(tasks.c_str());
    if (dir == nullptr) {
        return false;
    }
    bool found = false;
    while (dirent *e = ::readdir(dir)) {
        if (e->d_name[0] != '.' && SleepsInPoll(tasks + "/" + e->d_name + "/syscall")) {
            found = true;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

}  // namespace

bool Daemon::WaitMonitorIdle(Clock::duration timeout)
{
    if (pidfd_ < 0) {
        return false;
    }
    // In this order: a thread seen asleep in poll after its queue was seen
    // empty went back to poll after its last receive. (A look at poll alone
    // could still see the old wait of a thread whose wake-up is in flight.)
    return Eventually(
        [&] {
            auto backlog = MonitorBacklog(pidfd_, pid_, testbedRoot_);
            return backlog && *backlog == 0 && SomeThreadSleepsInPoll(pid_);
        },
        timeout);
}

void Daemon::FailNextPoll(int err)
{
    // Renamed into place: the shim never sees the file half written.
    std::string staged = pollFaultPath_ + ".new";
    WriteFile(staged, std::to_string(err) + "\n");
    if (::rename(staged.c_str(), pollFaultPath_.c_str()) < 0) {
        throw std::system_error(errno, std::generic_category(), "arm poll fault " + pollFaultPath_);
    }
}

std::vector<std::string> SanitizerReports(const std::string &stderrText)
{
    std::vector<std::string> reports;
    std::string current;
    bool inReport = false;
    size_t lines = 0;
    size_t pos = 0;
    while (pos < stderrText.size()) {
        size_t end = stderrText.find('\n', pos);
        std::string line = stderrText.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? stderrText.size() : end + 1;
        if (!inReport && StartsReport(line)) {
            inReport = true;
            current.clear();
            lines = 0;
        }
        if (!inReport) {
            continue;
        }
        current += line + "\n";
        // UBSan's "runtime error:" report is one line unless a stack follows.
        if (line.find("SUMMARY: ") != std::string::npos || ++lines >= 200) {
            reports.push_back(current);
            inReport = false;
        }
    }
    if (inReport) {
        reports.push_back(current);
    }
    return reports;
}

SanitizerReportHandler SetSanitizerReportHandler(SanitizerReportHandler handler)
{
    return g_sanitizerHandler.exchange(handler);
}

std::string Daemon::Stdout() const
{
    return ReadFile(outPath_).value_or("");
}

std::string Daemon::Stderr() const
{
    return ReadFile(errPath_).value_or("");
}

}  // namespace qmlab
