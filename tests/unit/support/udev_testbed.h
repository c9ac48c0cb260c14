// Test support: umockdev testbeds with the disk topologies the daemon meets
// (FC, iSCSI, local SCSI, NVMe), event records as the pipeline makes them,
// log capture, and temporary configuration files. Everything lives under the
// testbed's or a temporary directory; nothing touches the host's /etc, /run,
// /opt or /dev.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "raii.h"
#include "udev_event.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace qmtest {

using Attrs = std::vector<std::pair<std::string, std::string>>;

// One umockdev testbed; the process sees it as /sys while it lives.
class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed &) = delete;
    Testbed &operator=(const Testbed &) = delete;

    // A device under `parent` (a sys path, or empty for /sys/devices). An
    // empty subsystem makes a device without one (as an FC remote port).
    std::string Add(const std::string &subsystem, const std::string &name, const std::string &parent,
                    const Attrs &attrs = {}, const Attrs &props = {});
    // A plain directory that is not a device (as ".../block").
    std::string Dir(const std::string &parent, const std::string &name);
    void Remove(const std::string &sysPath);

    std::string HostPath(const std::string &sysPath, const std::string &attr) const;
    // First line of a sysfs file: libudev writes without truncating, so a
    // shorter value leaves the tail of the old one on later lines.
    std::string FirstLine(const std::string &sysPath, const std::string &attr) const;

    UdevDevicePtr Device(const std::string &sysPath) const;
    // The device as a udev monitor receives it, with its action.
    UdevDevicePtr Event(const std::string &sysPath, const char *action);

private:
    UMockdevTestbed *bed_;
    UdevPtr udev_;
    std::string root_;
};

enum class Transport { FC, ISCSI, LOCAL };

struct ScsiDiskSpec {
    Transport transport = Transport::FC;
    std::string hostName = "host2";
    std::string portName = "rport-2:0-7";  // FC remote port or iSCSI session
    std::string targetName = "target2:0:1";
    std::string scsiName = "2:0:1:3";
    std::string blockName = "sdc";
    std::optional<std::string> vendor = "QUILL   ";
    std::optional<std::string> model = "MESH-DISK       ";
    std::optional<std::string> major = "8";
    std::optional<std::string> minor = "32";
    std::optional<std::string> wwn = "0x6000c29a1b2c3d4e5f60718293a4b5c6";
    Attrs portAttrs = {{"dev_loss_tmo", "30"}, {"fast_io_fail_tmo", "25"}};
    Attrs sessionAttrs = {{"recovery_tmo", "120"}};
    std::optional<std::string> timeout = "60";
};

struct ScsiDisk {
    std::string host;
    std::string port;       // rport-H:C-N or sessionN (empty for a local disk)
    std::string portClass;  // fc_remote_ports/... or iscsi_session/... child
    std::string target;
    std::string scsi;
    std::string block;
};

ScsiDisk AddScsiDisk(Testbed &bed, const ScsiDiskSpec &spec = {});

struct NvmeDiskSpec {
    std::string controllerName = "nvme3";
    std::optional<std::string> model = "QUILL-MESH1";
    bool underSubsystem = false;  // namespace below an nvme-subsystem device
    std::string blockName = "nvme3n2";
    std::optional<std::string> devtype = "disk";
    std::optional<std::string> nsid = "2";
    std::optional<std::string> cntlid = std::nullopt;
    std::optional<std::string> hidden = "0";
    std::optional<std::string> wwn = "eui.0025388b91d0a3b1";
    std::string major = "259";
    std::string minor = "2";
};

struct NvmeDisk {
    std::string controller;
    std::string block;
};

NvmeDisk AddNvmeDisk(Testbed &bed, const NvmeDiskSpec &spec = {});

// A block device directly under /sys/devices, as sr0, vda or dm-0.
std::string AddBareBlock(Testbed &bed, const std::string &name, const std::string &major = "11",
                         const std::string &minor = "0");

// An event record with the initial values of a fresh node; the device, if
// any, stays owned by the holder.
struct NodeHolder {
    NodeHolder();
    explicit NodeHolder(UdevDevicePtr device);
    NodeHolder(NodeHolder &&other) noexcept;
    NodeHolder(const NodeHolder &) = delete;
    NodeHolder &operator=(const NodeHolder &) = delete;

    UdevEventNode node;
    UdevDevicePtr dev;
};

// Catches every log record (all levels, DEBUG included) as its message text.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    const std::vector<std::string> &Lines() const;
    bool Has(const std::string &message) const;
    size_t Count(const std::string &message) const;
    bool Contains(const std::string &fragment) const;
    void Clear();
};

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return path_; }
    std::string Write(const std::string &name, const std::string &content) const;

private:
    std::string path_;
};

// The vendor support list loaded from text; released again on scope exit.
class VendorList {
public:
    explicit VendorList(const std::string &rules);
    ~VendorList();
    VendorList(const VendorList &) = delete;
    VendorList &operator=(const VendorList &) = delete;

private:
    TempDir dir_;
};

// One rule line of the vendor list.
std::string VendorRule(const std::string &vendor, const std::string &product);

// Time-out settings loaded from text; defaults come back on scope exit.
class TimeoutSettings {
public:
    explicit TimeoutSettings(const std::string &text);
    ~TimeoutSettings();
    TimeoutSettings(const TimeoutSettings &) = delete;
    TimeoutSettings &operator=(const TimeoutSettings &) = delete;

private:
    TempDir dir_;
};

// Makes one sysfs attribute unwritable for this thread (mode 0444, and the
// DAC override capability dropped from the effective set while it lives).
class ReadOnlyAttr {
public:
    ReadOnlyAttr(const Testbed &bed, const std::string &sysPath, const std::string &attr);
    ~ReadOnlyAttr();
    ReadOnlyAttr(const ReadOnlyAttr &) = delete;
    ReadOnlyAttr &operator=(const ReadOnlyAttr &) = delete;

private:
    std::string hostPath_;
    bool capDropped_ = false;
};

// The protocol layer's libudev context for the life of a test.
class ProtocolHandle {
public:
    ProtocolHandle();
    ~ProtocolHandle();
    ProtocolHandle(const ProtocolHandle &) = delete;
    ProtocolHandle &operator=(const ProtocolHandle &) = delete;
};

}  // namespace qmtest
