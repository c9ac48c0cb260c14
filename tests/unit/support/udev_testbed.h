// Test support: umockdev testbeds with the disk topologies the daemon meets
// (FC, iSCSI, local SCSI, NVMe), event records as the pipeline makes them,
// log capture and temporary configuration. Nothing here touches the host's
// /etc, /run, /opt or /dev.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "raii.h"
#include "support/trace_capture.h"
#include "udev_event.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace qmtest {

using Attrs = std::vector<std::pair<std::string, std::string>>;
using Opt = std::optional<std::string>;

// The process sees the testbed as /sys while it lives; one at a time.
class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed &) = delete;
    Testbed &operator=(const Testbed &) = delete;

    // Under `parent` (a sys path; empty: /sys/devices). An empty subsystem
    // makes a device without one, as an FC remote port is.
    std::string Add(const std::string &subsystem, const std::string &name, const std::string &parent,
                    const Attrs &attrs = {}, const Attrs &props = {});
    std::string Dir(const std::string &parent, const std::string &name);  // not a device
    void Remove(const std::string &sysPath);
    std::string HostPath(const std::string &sysPath, const std::string &attr) const;
    // libudev writes without truncating: only the first line is the value.
    std::string FirstLine(const std::string &sysPath, const std::string &attr) const;
    UdevDevicePtr Device(const std::string &sysPath) const;
    // As a udev monitor receives it, with its action.
    UdevDevicePtr Event(const std::string &sysPath, const char *action);
    // To the udev monitors of this process, without waiting for them.
    void Send(const std::string &sysPath, const char *action);

private:
    UMockdevTestbed *bed_;
    UdevPtr udev_;
    std::string root_;
};

enum class Transport { FC, ISCSI, LOCAL };

// Defaults: FC disk host2/rport-2:0-7/target2:0:1/2:0:1:3/block/sdc, 8:32.
struct ScsiDiskLayout {
    Transport transport = Transport::FC;
    std::string host = "host2";
    std::string port = "rport-2:0-7";  // remote port or iSCSI session
    std::string target = "target2:0:1";
    std::string scsi = "2:0:1:3";
    std::string block = "sdc";
    Opt vendor = "QUILL   ";
    Opt model = "MESH-DISK       ";
    Opt major = "8";
    Opt minor = "32";
    Opt wwn = "0x6000c29a1b2c3d4e5f60718293a4b5c6";
    Attrs portAttrs = {{"dev_loss_tmo", "30"}, {"fast_io_fail_tmo", "25"}, {"recovery_tmo", "120"}};
    Opt timeout = "60";
};
ScsiDiskLayout IscsiLayout();  // host3/session5/target3:0:0/3:0:0:1/block/sdd
ScsiDiskLayout LocalLayout();  // host0/target0:0:0/0:0:0:0/block/sda

struct ScsiDisk {
    std::string port;       // the FC port or session device itself
    std::string portClass;  // its fc_remote_ports or iscsi_session child
    std::string scsi;
    std::string block;
};
ScsiDisk AddScsiDisk(Testbed &bed, const ScsiDiskLayout &layout = {});

// Defaults: controller nvme3 (model QUILL-MESH1) / nvme3n2, 259:2, nsid 2.
struct NvmeDiskLayout {
    std::string controller = "nvme3";
    Opt model = "QUILL-MESH1";
    bool underSubsystem = false;  // namespace below an nvme-subsystem device
    std::string block = "nvme3n2";
    Opt devtype = "disk";
    Opt nsid = "2";
    Opt cntlid = std::nullopt;
    Opt hidden = "0";
    Opt wwn = "eui.0025388b91d0a3b1";
};
std::string AddNvmeDisk(Testbed &bed, const NvmeDiskLayout &layout = {});

// A block disk directly under /sys/devices, as sr0 or dm-0.
std::string AddBareBlock(Testbed &bed, const std::string &name, const std::string &major = "11",
                         const std::string &minor = "0");

// An event record with the initial values of a fresh node; the holder owns
// the device.
struct NodeHolder {
    NodeHolder();
    explicit NodeHolder(UdevDevicePtr device, const char *devNum = "", const char *devInfo = "");
    NodeHolder(NodeHolder &&other) noexcept;
    NodeHolder(const NodeHolder &) = delete;
    NodeHolder &operator=(const NodeHolder &) = delete;

    UdevEventNode node;
    UdevDevicePtr dev;
};

// Every log record (DEBUG included) as its message text, while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    const std::vector<std::string> &Lines() const;
    size_t Count(const std::string &message) const;
    bool Has(const std::string &message) const { return Count(message) > 0; }
    bool Contains(const std::string &fragment) const;
};

// The vendor support list with one rule per (vendor, product) pair.
class VendorList {
public:
    VendorList(std::initializer_list<std::pair<std::string, std::string>> rules);
    ~VendorList();

private:
    TempDir dir_;
};

// One attribute unwritable for this thread: mode 0444, and the DAC override
// capability out of the effective set while this lives.
class ReadOnlyAttr {
public:
    ReadOnlyAttr(const Testbed &bed, const std::string &sysPath, const std::string &attr);
    ~ReadOnlyAttr();
    ReadOnlyAttr(const ReadOnlyAttr &) = delete;
    ReadOnlyAttr &operator=(const ReadOnlyAttr &) = delete;

private:
    std::string hostPath_;
    bool capDropped_;
};

}  // namespace qmtest
