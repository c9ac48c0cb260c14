#include "qmlab/sandbox.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qmlab {

namespace {

std::atomic<bool> g_enteredNamespace{false};

[[noreturn]] void Fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void MakeDirs(const std::string &path, mode_t mode = 0755)
{
    std::string partial;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) {
            continue;
        }
        partial += "/" + part;
        if (::mkdir(partial.c_str(), mode) < 0 && errno != EEXIST) {
            Fail("mkdir " + partial);
        }
    }
}

std::string ProcDevicesText(std::optional<int> driverMajor)
{
    std::ostringstream out;
    out << "Character devices:\n"
           "  1 mem\n  4 /dev/vc/0\n  4 tty\n  5 /dev/tty\n  5 /dev/console\n  5 /dev/ptmx\n"
           " 10 misc\n 13 input\n 21 sg\n128 ptm\n136 pts\n226 drm\n"
           // Near misses ahead of the driver's line: a name that ends in
           // "quillmesh" and one that begins with it.
           "240 oldquillmesh\n241 quillmesh_ctl\n"
           "\nBlock devices:\n"
           "  7 loop\n  8 sd\n  9 md\n 11 sr\n 65 sd\n 66 sd\n 67 sd\n 68 sd\n 69 sd\n 70 sd\n 71 sd\n"
           "128 sd\n129 sd\n130 sd\n131 sd\n132 sd\n133 sd\n134 sd\n135 sd\n";
    if (driverMajor) {
        char line[64];
        std::snprintf(line, sizeof(line), "%3d quillmesh\n", *driverMajor);
        out << line;
    }
    out << "253 device-mapper\n254 mdp\n259 blkext\n";
    return out.str();
}

// Direct submounts of /dev (pts, shm, mqueue...), hidden by an overlay on
// /dev unless they are carried over.
std::vector<std::string> DevSubmounts()
{
    std::vector<std::string> out;
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string id, parent, devno, root, mountPoint;
        fields >> id >> parent >> devno >> root >> mountPoint;
        if (mountPoint.rfind("/dev/", 0) == 0 && mountPoint.find('/', 5) == std::string::npos) {
            out.push_back(mountPoint);
        }
    }
    return out;
}

}  // namespace

void WriteFile(const std::string &path, const std::string &content, unsigned mode)
{
    // Truncate in place (no rename): a bind-mounted file keeps its inode.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        Fail("open " + path);
    }
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            int err = errno;
            ::close(fd);
            errno = err;
            Fail("write " + path);
        }
        done += static_cast<size_t>(n);
    }
    ::fchmod(fd, mode);
    ::close(fd);
}

std::optional<std::string> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void Sandbox::EnterPrivateNamespace()
{
    if (g_enteredNamespace.load()) {
        return;
    }
    if (::unshare(CLONE_NEWNS) < 0) {
        Fail("unshare(CLONE_NEWNS) (the lab needs root and a single-threaded caller)");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) {
        Fail("make / private");
    }
    g_enteredNamespace.store(true);
}

void Sandbox::EnsureUmockdevPreload(char **argv)
{
    const char *preload = std::getenv("LD_PRELOAD");
    if (preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr) {
        return;
    }
    std::string lib = QMLAB_UMOCKDEV_PRELOAD_FOR_LAB;
    std::string value = preload != nullptr && preload[0] != '\0' ? lib + ":" + preload : lib;
    ::setenv("LD_PRELOAD", value.c_str(), 1);
    ::setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    const char *asan = std::getenv("ASAN_OPTIONS");
    std::string asanOptions = std::string(asan != nullptr && asan[0] != '\0' ? asan : "detect_leaks=1") +
                              ":verify_asan_link_order=0";
    ::setenv("ASAN_OPTIONS", asanOptions.c_str(), 1);
    ::setenv("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=1", 0);
    std::string tsan = std::string("halt_on_error=1:second_deadlock_stack=1:suppressions=") + QMLAB_TSAN_LAB_SUPP;
    ::setenv("TSAN_OPTIONS", tsan.c_str(), 0);
    ::execv("/proc/self/exe", argv);
    Fail("re-execute under umockdev's preload");
}

bool Sandbox::InPrivateNamespace()
{
    struct stat self {};
    struct stat init {};
    if (::stat("/proc/self/ns/mnt", &self) < 0) {
        return false;
    }
    if (::stat("/proc/1/ns/mnt", &init) < 0) {
        return g_enteredNamespace.load();
    }
    return self.st_ino != init.st_ino || self.st_dev != init.st_dev;
}

Sandbox::Sandbox(SandboxOptions options)
{
    if (!g_enteredNamespace.load() || !InPrivateNamespace()) {
        throw std::runtime_error("Sandbox: call Sandbox::EnterPrivateNamespace() first; refusing to touch the host");
    }
    const char *tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/qmlab-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) {
        Fail("mkdtemp " + templ);
    }
    root_ = buf.data();
    try {
        MountTmpfs(root_);
        for (const char *dir : {"etc-upper", "etc-work", "sbin-upper", "sbin-work", "dev-upper", "dev-work", "lvm",
                                "devsave"}) {
            MakeDirs(Path(dir));
        }

        MountOverlay("/etc", "etc");
        SetVendorConfig(options.vendorConfig);
        SetTimeoutConfig(options.timeoutConfig);

        MountTmpfs("/run");

        MountTmpfs("/opt");
        if (options.logDir != LogDir::Missing) {
            MakeDirs(kLogDirPath);
        }
        if (options.logDir == LogDir::ReadOnly) {
            Bind(kLogDirPath, kLogDirPath);
            if (::mount(nullptr, kLogDirPath, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) < 0) {
                Fail("remount read-only " + std::string(kLogDirPath));
            }
        }

        WriteFile(Path("proc-devices"), ProcDevicesText(options.driverMajor));
        Bind(Path("proc-devices"), "/proc/devices");

        SetLvmPlan(options.lvmPlan);
        WriteFile(Path("lvm/runs.log"), "");
        WriteLvmStub();
        MountOverlay("/usr/sbin", "sbin");

        SetUpDev();
        notify_ = std::make_unique<DatagramCapture>(Path("notify.sock"));
    } catch (...) {
        syslog_.reset();
        notify_.reset();
        for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
            ::umount2(it->c_str(), MNT_DETACH);
        }
        ::rmdir(root_.c_str());
        throw;
    }
}

Sandbox::~Sandbox()
{
    syslog_.reset();
    notify_.reset();
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
        ::umount2(it->c_str(), MNT_DETACH);
    }
    ::rmdir(root_.c_str());
}

void Sandbox::MountTmpfs(const std::string &target)
{
    if (::mount("qmlab", target.c_str(), "tmpfs", MS_NOSUID, "mode=0755") < 0) {
        Fail("mount tmpfs on " + target);
    }
    mounts_.push_back(target);
}

void Sandbox::MountOverlay(const std::string &target, const std::string &name)
{
    std::string opts = "lowerdir=" + target + ",upperdir=" + Path(name + "-upper") + ",workdir=" + Path(name + "-work");
    if (::mount("qmlab", target.c_str(), "overlay", 0, opts.c_str()) < 0) {
        Fail("mount overlay on " + target);
    }
    mounts_.push_back(target);
}

void Sandbox::Bind(const std::string &source, const std::string &target)
{
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) < 0) {
        Fail("bind " + source + " on " + target);
    }
    mounts_.push_back(target);
}

void Sandbox::SetUpDev()
{
    std::vector<std::string> subs = DevSubmounts();
    std::vector<std::pair<std::string, std::string>> saved;
    for (size_t i = 0; i < subs.size(); ++i) {
        std::string save = Path("devsave/" + std::to_string(i));
        MakeDirs(save);
        if (::mount(subs[i].c_str(), save.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0) {
            saved.emplace_back(save, subs[i]);
        }
    }
    MountOverlay("/dev", "dev");
    for (const auto &[save, target] : saved) {
        MakeDirs(target);
        if (::mount(save.c_str(), target.c_str(), nullptr, MS_MOVE, nullptr) < 0) {
            ::umount2(save.c_str(), MNT_DETACH);
        }
    }
    if (::unlink("/dev/log") < 0 && errno != ENOENT) {
        Fail("unlink /dev/log in the overlay");
    }
    syslog_ = std::make_unique<DatagramCapture>("/dev/log");
    ::chmod("/dev/log", 0666);
    MakeDirs(kByUuidPath);
    MountTmpfs(kByUuidPath);
}

void Sandbox::WriteLvmStub()
{
    std::string script =
        "#!/bin/sh\n"
        "# lab stand-in for lvm: logs each run, then follows the scenario's plan\n"
        "log='" + Path("lvm/runs.log") + "'\n"
        "plan='" + Path("lvm/plan") + "'\n"
        // The trace's last record when the run begins tells which of the
        // daemon's requests came before it.
        "seq=$(sed -n 's/^\\[\\([0-9]*\\)\\].*/\\1/p' '" + std::string(kTraceLogPath) + "' 2>/dev/null | tail -n 1)\n"
        "echo \"${seq:-0} $*\" >> \"$log\"\n"
        "n=$(wc -l < \"$log\")\n"
        "step=$(sed -n \"${n}p\" \"$plan\")\n"
        "[ -n \"$step\" ] || step=$(tail -n 1 \"$plan\")\n"
        "set -- $step\n"
        "if [ \"${1:-0}\" -gt 0 ]; then sleep \"$1\"; fi\n"
        "exit \"${2:-0}\"\n";
    WriteFile(Path("sbin-upper/lvm"), script, 0755);
}

void Sandbox::SetVendorConfig(const std::optional<std::string> &text)
{
    if (text) {
        WriteFile(kVendorConfigPath, *text);
    } else if (::unlink(kVendorConfigPath) < 0 && errno != ENOENT) {
        Fail("unlink " + std::string(kVendorConfigPath));
    }
}

void Sandbox::SetTimeoutConfig(const std::optional<std::string> &text)
{
    if (text) {
        WriteFile(kTimeoutConfigPath, *text);
    } else if (::unlink(kTimeoutConfigPath) < 0 && errno != ENOENT) {
        Fail("unlink " + std::string(kTimeoutConfigPath));
    }
}

void Sandbox::SetDriverMajor(std::optional<int> major)
{
    WriteFile(Path("proc-devices"), ProcDevicesText(major));
}

void Sandbox::AddByUuidLink(const std::string &uuid, const std::string &deviceName)
{
    std::string link = std::string(kByUuidPath) + "/" + uuid;
    ::unlink(link.c_str());
    if (::symlink(("../../" + deviceName).c_str(), link.c_str()) < 0) {
        Fail("symlink " + link);
    }
}

void Sandbox::RemoveByUuidLink(const std::string &uuid)
{
    std::string link = std::string(kByUuidPath) + "/" + uuid;
    if (::unlink(link.c_str()) < 0 && errno != ENOENT) {
        Fail("unlink " + link);
    }
}

void Sandbox::SetLvmPlan(const std::vector<LvmStep> &plan)
{
    std::string text;
    for (const auto &step : plan) {
        text += std::to_string(step.sleepSeconds) + " " + std::to_string(step.exitCode) + "\n";
    }
    if (text.empty()) {
        text = "0 0\n";
    }
    WriteFile(Path("lvm/plan"), text);
}

std::vector<LvmRun> Sandbox::LvmRuns() const
{
    std::vector<LvmRun> runs;
    std::istringstream in(ReadFile(Path("lvm/runs.log")).value_or(""));
    std::string line;
    while (std::getline(in, line)) {
        size_t blank = line.find(' ');
        long sequence = std::strtol(line.c_str(), nullptr, 10);
        runs.push_back(LvmRun{static_cast<int>(runs.size()) + 1, blank == std::string::npos ? "" : line.substr(blank + 1),
                              sequence});
    }
    return runs;
}

bool Sandbox::WaitLvmRuns(size_t n, Clock::duration timeout) const
{
    return Eventually([&] { return LvmRuns().size() >= n; }, timeout);
}

std::vector<SyslogRecord> Sandbox::SyslogRecords() const
{
    std::vector<SyslogRecord> out;
    for (const auto &d : syslog_->Messages()) {
        if (auto r = ParseSyslog(d)) {
            out.push_back(std::move(*r));
        }
    }
    return out;
}

}  // namespace qmlab
