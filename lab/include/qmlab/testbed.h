// Generated sysfs trees over umockdev, with the topology of real hosts, and
// an event emitter that loses nothing however many events a scenario sends.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qmlab/clock.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace qmlab {

using Attributes = std::vector<std::pair<std::string, std::string>>;

// A block device of the testbed.
struct BlockDevice {
    std::string name;     // kernel name: sdb, nvme0n1, sdb1
    std::string syspath;  // /sys/devices/...
    unsigned major = 0;
    unsigned minor = 0;
    std::string hctl;        // SCSI: "2:0:1:3"; NVMe: as the daemon forms it (host:cntlid:ns:nsid)
    std::string scsiDevice;  // syspath of the SCSI device above a SCSI disk
    std::string transport;   // syspath of its fc_remote_ports or iscsi_session device, if any
    std::string wwn;         // ID_WWN_WITH_EXTENSION (SCSI) or ID_WWN (NVMe) as set

    std::string DevNum() const { return std::to_string(major) + ":" + std::to_string(minor); }
};

// SCSI identity of a logical unit. Vendor and model are blank-padded to 8
// and 16 characters as the kernel shows them.
struct ScsiIdentity {
    std::string vendor = "QMESH";
    std::string model = "VDISK";
    std::optional<std::string> wwn;  // default: generated "0x" + 32 hex digits; "" for none
    std::string timeout = "30";      // the SCSI device's "timeout"
    std::optional<std::string> name;  // default: next sdX
    std::optional<std::pair<unsigned, unsigned>> devNum;  // default: from the name's index
};

struct FcDiskSpec {
    int host = 2;
    int channel = 0;
    int port = 7;  // rport-<host>:<channel>-<port>
    int target = 1;
    int lun = 3;
    std::string devLossTmo = "30";
    std::string fastIoFailTmo = "off";
    ScsiIdentity id;
};

struct IscsiDiskSpec {
    int host = 3;
    int session = 5;
    int channel = 0;
    int target = 0;
    int lun = 1;
    std::string recoveryTmo = "120";
    ScsiIdentity id;
};

struct LocalDiskSpec {
    int host = 0;
    int channel = 0;
    int target = 0;
    int lun = 0;
    ScsiIdentity id;
};

struct NvmeControllerSpec {
    int instance = 0;                     // nvme<instance>
    std::string model = "QMESH-NVDISK";   // "VENDOR-PRODUCT"
    size_t modelPad = 0;  // blank-padded to this width (0: as given, as the kernel shows it)
    std::string cntlid = "1";
};

struct NvmeNamespaceSpec {
    int nsIndex = 1;                   // the n<Y> of nvme<X>n<Y>
    std::optional<std::string> nsid;   // default: nsIndex; "" for no attribute
    std::optional<std::string> cntlid;  // the namespace's own "cntlid" attribute
    std::optional<std::string> hidden = std::string("0");
    std::optional<std::string> wwn;    // default: generated "eui." + 16 hex digits; "" for none
    std::optional<std::pair<unsigned, unsigned>> devNum;  // default: 259:<next>
};

struct NvmeController {
    int instance = 0;
    std::string name;
    std::string syspath;
};

struct NvmeSubsystem {
    int instance = 0;
    std::string syspath;
};

// Any other whole disk or block device (loop, dm, a disk on the product's
// own major...).
struct BlockSpec {
    std::string name;
    unsigned major = 0;
    unsigned minor = 0;
    std::string parent = "/sys/devices/virtual/block";
    std::string devtype = "disk";
    Attributes properties;
    Attributes attributes;
};

// One write into a watched attribute (the time-outs: FC "dev_loss_tmo" and
// "fast_io_fail_tmo", iSCSI "recovery_tmo", SCSI "timeout"), by whoever made
// it, in the lab-wide order.
struct AttributeWrite {
    Stamp stamp;
    std::string syspath;
    std::string name;
    std::string value;  // first line of what was written
};

class AttributeWatcher;
class OpenGate;

class Testbed {
public:
    // A new umockdev testbed; sets UMOCKDEV_DIR in this process.
    Testbed();
    ~Testbed();
    Testbed(const Testbed &) = delete;
    Testbed &operator=(const Testbed &) = delete;

    // The testbed's root directory: UMOCKDEV_DIR for the daemon.
    std::string Root() const;
    UMockdevTestbed *Raw() { return testbed_; }

    // --- Devices. Shared parents (PCI function, host, port, session,
    // target) are created on first use. -----------------------------------
    BlockDevice AddFcDisk(const FcDiskSpec &spec = {});
    BlockDevice AddIscsiDisk(const IscsiDiskSpec &spec = {});
    BlockDevice AddLocalDisk(const LocalDiskSpec &spec = {});
    BlockDevice AddPartition(const BlockDevice &disk, int number);
    BlockDevice AddLoop(int n);
    BlockDevice AddDm(int n);
    BlockDevice AddCdrom(int n);  // srN behind a local SCSI host
    BlockDevice AddBlock(const BlockSpec &spec);
    NvmeController AddNvmeController(const NvmeControllerSpec &spec = {});
    // nvme<X>n<Y> directly under its controller (the form the daemon takes).
    BlockDevice AddNvmeNamespace(const NvmeController &ctrl, const NvmeNamespaceSpec &spec = {});
    NvmeSubsystem AddNvmeSubsystem(int instance);
    // nvme<subsys>n<Y> under an nvme-subsystem device (native multipath head).
    BlockDevice AddNvmeSubsystemNamespace(const NvmeSubsystem &subsys, const NvmeController &ctrl,
                                          const NvmeNamespaceSpec &spec = {});
    // nvme<X>c<C>n<Y>, hidden = "1", under its controller.
    BlockDevice AddNvmePathDevice(const NvmeController &ctrl, int pathIndex, const NvmeNamespaceSpec &spec = {});
    // Any device, for topologies the kinds above never make (odd names,
    // attributes of one's own choosing); AddDevice's empty parent is
    // /sys/devices. AddBareDevice's device has no subsystem, as an FC
    // remote port.
    std::string AddDevice(const std::string &subsystem, const std::string &name, const std::string &parent,
                          const Attributes &attributes, const Attributes &properties);
    std::string AddBareDevice(const std::string &name, const std::string &parent);

    // Removes the device (and its class links) from the tree; no event.
    void Remove(const std::string &syspath);

    // --- Attributes and properties. ----------------------------------------
    void SetAttribute(const std::string &syspath, const std::string &name, const std::string &value);
    // The attribute's first line: what a writer that does not truncate put
    // there last (libudev writes in place, leaving the tail of a longer old
    // value behind the line end). nullopt when there is no such attribute.
    std::optional<std::string> Attribute(const std::string &syspath, const std::string &name) const;
    std::optional<std::string> RawAttribute(const std::string &syspath, const std::string &name) const;
    void SetProperty(const std::string &syspath, const std::string &key, const std::string &value);
    // A device without the attribute or property (vendor, model, MAJOR...).
    void RemoveAttribute(const std::string &syspath, const std::string &name);
    void RemoveProperty(const std::string &syspath, const std::string &key);
    // Writes into the time-out attributes since the testbed was made (the
    // lab's own SetAttribute calls excluded). Sysfs takes a write whole; a
    // testbed file does not, so after each write the file is cut back to
    // its first line: a shorter value never leaves the tail of a longer one.
    std::vector<AttributeWrite> AttributeWrites() const;
    bool WaitAttributeWrites(size_t n, Clock::duration timeout) const;
    // Returns once every write made before the call has been recorded (and
    // its file cut back); false at the deadline. Lets a test assert that
    // something was not written, or read an attribute back.
    bool SyncAttributeWrites(Clock::duration timeout = 10s);

    // --- Events. -----------------------------------------------------------
    // Sends one uevent to every listening udev monitor of the testbed,
    // waiting while a monitor's queue is full, until the deadline. Returns
    // the number of monitors that received it.
    size_t Emit(const std::string &syspath, const std::string &action, Clock::duration timeout = 30s);
    // Builds the "remove" event from the device as it is, removes the
    // device, then sends the event (the kernel's order).
    size_t RemoveAndEmit(const std::string &syspath, Clock::duration timeout = 30s);
    // Monitors that are listening now (stale sockets are pruned).
    size_t ListenerCount();
    bool WaitListeners(size_t n, Clock::duration timeout);
    uint64_t EventsSent() const { return seqnum_; }

    // --- Faults. ------------------------------------------------------------
    // Writes into the attribute fail from now on as on a read-only file
    // system (EROFS); reads still work. The file is bind-mounted read-only
    // onto itself (the lab's own SetAttribute on it fails too).
    void FailAttributeWrites(const std::string &syspath, const std::string &name);
    // The first time a process other than the lab opens the attribute file,
    // that open is held until `action` has run in a thread of the lab (a
    // fanotify permission event), then allowed. For faults that must land
    // at one exact point of the daemon's work, such as a device removed
    // after the start-up scan enumerated it and before it looks it up.
    // `action` must not open the gated file itself.
    void OnFirstOpen(const std::string &syspath, const std::string &name, std::function<void()> action);
    // Whether the action of OnFirstOpen has run (and returned).
    bool WaitFirstOpen(Clock::duration timeout) const;

private:
    std::string EnsurePciFunction(int slot);
    std::string EnsureHost(int host, const std::string &parent);
    std::string EnsureFcPort(int host, int channel, int port, const FcDiskSpec &spec);
    std::string EnsureIscsiSession(int host, int session, const IscsiDiskSpec &spec);
    std::string EnsureTarget(const std::string &parent, int host, int channel, int target);
    BlockDevice AddScsiDisk(const std::string &targetPath, int host, int channel, int target, int lun,
                            const ScsiIdentity &id);
    std::pair<std::string, std::pair<unsigned, unsigned>> NextSdName();
    std::string BuildMessage(const std::string &syspath, const std::string &action);
    size_t Send(const std::string &message, Deadline deadline);

    void Watch(const std::string &syspath, const std::string &name);

    UMockdevTestbed *testbed_ = nullptr;
    std::string root_;
    std::unique_ptr<AttributeWatcher> watcher_;
    std::unique_ptr<OpenGate> gate_;
    std::vector<std::string> readOnlyMounts_;  // unmounted before the tree goes
    std::map<std::string, std::string> made_;  // key -> syspath of shared parents
    unsigned sdIndex_ = 0;
    unsigned nvmeMinor_ = 0;
    uint64_t serial_ = 0;
    uint64_t seqnum_ = 0;
};

// The kernel's name for the n-th SCSI disk (0 -> sda, 26 -> sdaa) and its
// device number.
std::string SdName(unsigned index);
std::pair<unsigned, unsigned> SdDevNum(unsigned index);
// libudev's hash of a subsystem or device type in monitor messages.
uint32_t UdevStringHash32(const std::string &text);

}  // namespace qmlab
