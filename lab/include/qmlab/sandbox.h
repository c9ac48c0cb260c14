// The daemon's fixed paths, replaced inside a private mount namespace:
// /etc (overlay), /run (tmpfs), /opt (tmpfs), /proc/devices (bind mount),
// /usr/sbin (overlay with an lvm stub), /dev (overlay with /dev/log captured
// and /dev/disk/by-uuid on a tmpfs). Nothing of the host's is written.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qmlab/capture.h"
#include "qmlab/clock.h"

namespace qmlab {

inline constexpr const char *kTraceLogPath = "/opt/Quillmesh_NVMe/log/qm_udev_log.txt";
inline constexpr const char *kLogDirPath = "/opt/Quillmesh_NVMe/log";
inline constexpr const char *kPidFilePath = "/run/qmudev.pid";
inline constexpr const char *kVendorConfigPath = "/etc/qm_plus.conf";
inline constexpr const char *kTimeoutConfigPath = "/etc/qmLinux.conf";
inline constexpr const char *kByUuidPath = "/dev/disk/by-uuid";
inline constexpr const char *kLvmPath = "/usr/sbin/lvm";

// Vendor list of the lab's default disks: SCSI QMESH/VDISK and NVMe
// "QMESH-NVDISK" (vendor QMESH, product NVDISK).
inline constexpr const char *kDefaultVendorConfig =
    "[vendors]\n"
    "ruler_name=rule_scsi,vendor_id=QMESH,product_id=VDISK\n"
    "ruler_name=rule_nvme,vendor_id=QMESH,product_id=NVDISK\n";

enum class LogDir {
    Present,   // /opt/Quillmesh_NVMe/log/ exists and is writable
    Missing,   // no such directory
    ReadOnly,  // exists, on a read-only mount
};

// One run of the lvm stub: sleep, then exit with this code. The n-th run
// uses the n-th step, runs past the plan repeat its last step.
struct LvmStep {
    int sleepSeconds = 0;
    int exitCode = 0;
};

struct LvmRun {
    int index = 0;         // 1 for the first run
    std::string args;      // its command-line arguments
    long traceSequence = 0;  // the trace's last record as the run began (0: none)
};

struct SandboxOptions {
    std::optional<std::string> vendorConfig = std::string(kDefaultVendorConfig);  // nullopt: no file
    std::optional<std::string> timeoutConfig;                                    // nullopt: no file
    LogDir logDir = LogDir::Present;
    std::optional<int> driverMajor = 252;  // "252 quillmesh" in /proc/devices; nullopt: not registered
    std::vector<LvmStep> lvmPlan = {LvmStep{}};
};

class Sandbox {
public:
    // Moves the calling process into a mount namespace of its own whose
    // mounts do not propagate back. Call it first thing in main, while the
    // process has one thread. Throws when it cannot.
    static void EnterPrivateNamespace();
    // Whether this process's mount namespace differs from init's.
    static bool InPrivateNamespace();
    // The lab process itself must run under umockdev's preload (umockdev
    // checks parents through it). If it does not, re-executes the program
    // with the preload and the settings that go with it
    // (SYSTEMD_DEVICE_VERIFY_SYSFS=0, sanitizer options that allow a preload
    // ahead of the runtime); returns otherwise.
    static void EnsureUmockdevPreload(char **argv);

    explicit Sandbox(SandboxOptions options = {});
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Scratch directory of this sandbox (a tmpfs), for files of the scenario.
    const std::string &Root() const { return root_; }
    std::string Path(const std::string &name) const { return root_ + "/" + name; }

    void SetVendorConfig(const std::optional<std::string> &text);
    void SetTimeoutConfig(const std::optional<std::string> &text);
    void SetDriverMajor(std::optional<int> major);
    // /dev/disk/by-uuid/<uuid> -> ../../<deviceName>
    void AddByUuidLink(const std::string &uuid, const std::string &deviceName);
    void RemoveByUuidLink(const std::string &uuid);
    void SetLvmPlan(const std::vector<LvmStep> &plan);
    std::vector<LvmRun> LvmRuns() const;
    bool WaitLvmRuns(size_t n, Clock::duration timeout) const;

    DatagramCapture &Syslog() { return *syslog_; }
    DatagramCapture &Notify() { return *notify_; }
    std::vector<SyslogRecord> SyslogRecords() const;
    // Notifications in arrival order, one entry per datagram.
    std::vector<Datagram> Notifications() const { return notify_->Messages(); }
    const std::string &NotifySocketPath() const { return notify_->Path(); }

private:
    void MountOverlay(const std::string &target, const std::string &name);
    void MountTmpfs(const std::string &target);
    void Bind(const std::string &source, const std::string &target);
    void SetUpDev();
    void WriteLvmStub();

    std::string root_;
    std::vector<std::string> mounts_;  // unmounted in reverse order
    std::unique_ptr<DatagramCapture> syslog_;
    std::unique_ptr<DatagramCapture> notify_;
};

// File helpers for scenario files (throw on failure).
void WriteFile(const std::string &path, const std::string &content, unsigned mode = 0644);
std::optional<std::string> ReadFile(const std::string &path);

}  // namespace qmlab
