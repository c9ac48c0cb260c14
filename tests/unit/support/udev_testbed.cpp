#include "support/udev_testbed.h"

#include <filesystem>

#include <linux/capability.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <umockdev.h>

#include "udev_config.h"
#include "udev_log.h"

namespace qmtest {

namespace {

// An event that never comes fails the test through a null device.
constexpr int EVENT_WAIT_MS = 5000;

std::vector<gchar *> Flatten(const Attrs &pairs)
{
    std::vector<gchar *> flat;
    for (const auto &pair : pairs) {
        flat.push_back(const_cast<gchar *>(pair.first.c_str()));
        flat.push_back(const_cast<gchar *>(pair.second.c_str()));
    }
    flat.push_back(nullptr);
    return flat;
}

void Put(Attrs &attrs, const char *name, const Opt &value)
{
    if (value) {
        attrs.emplace_back(name, *value);
    }
}

std::vector<std::string> &Captured()
{
    static std::vector<std::string> lines;
    return lines;
}

void CaptureSink(const char *text)
{
    Captured().emplace_back(text);
}

// Returns whether the capability was in effect before.
bool SetDacOverride(bool on)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    const uint32_t bit = 1u << CAP_DAC_OVERRIDE;
    bool had = (data[0].effective & bit) != 0;
    data[0].effective = on ? (data[0].effective | (data[0].permitted & bit)) : (data[0].effective & ~bit);
    return syscall(SYS_capset, &header, data) == 0 && had;
}

}  // namespace

// One umockdev testbed for the whole process, emptied for each user: every
// testbed runs a worker thread of its own, and umockdev races between them
// when a test makes several.
Testbed::Testbed()
{
    static UMockdevTestbed *const shared = umockdev_testbed_new();
    bed_ = shared;
    umockdev_testbed_clear(bed_);
    udev_.reset(udev_new());
    gchar *root = umockdev_testbed_get_root_dir(bed_);
    root_ = root;
    g_free(root);
}

Testbed::~Testbed()
{
    udev_.reset();
    umockdev_testbed_clear(bed_);
}

std::string Testbed::Add(const std::string &subsystem, const std::string &name, const std::string &parent,
                         const Attrs &attrs, const Attrs &props)
{
    if (subsystem.empty()) {
        std::string path = (parent.empty() ? "/sys/devices" : parent) + "/" + name;
        std::filesystem::create_directories(root_ + path);
        WriteFile(root_ + path + "/uevent", "");
        return path;
    }
    std::vector<gchar *> flatAttrs = Flatten(attrs);
    std::vector<gchar *> flatProps = Flatten(props);
    gchar *path = umockdev_testbed_add_devicev(bed_, subsystem.c_str(), name.c_str(),
                                               parent.empty() ? nullptr : parent.c_str(), flatAttrs.data(),
                                               flatProps.data());
    std::string result = (path == nullptr) ? "" : path;
    g_free(path);
    return result;
}

std::string Testbed::Dir(const std::string &parent, const std::string &name)
{
    std::filesystem::create_directories(root_ + parent + "/" + name);
    return parent + "/" + name;
}

void Testbed::Remove(const std::string &sysPath)
{
    umockdev_testbed_remove_device(bed_, sysPath.c_str());
}

std::string Testbed::HostPath(const std::string &sysPath, const std::string &attr) const
{
    return root_ + sysPath + "/" + attr;
}

std::string Testbed::FirstLine(const std::string &sysPath, const std::string &attr) const
{
    std::ifstream in(HostPath(sysPath, attr), std::ios::binary);
    std::string line;
    std::getline(in, line);
    return line;
}

UdevDevicePtr Testbed::Device(const std::string &sysPath) const
{
    return UdevDevicePtr(udev_device_new_from_syspath(udev_.get(), sysPath.c_str()));
}

UdevDevicePtr Testbed::Event(const std::string &sysPath, const char *action)
{
    UdevMonitorPtr monitor(udev_monitor_new_from_netlink(udev_.get(), "udev"));
    if (!monitor || udev_monitor_enable_receiving(monitor.get()) < 0) {
        return nullptr;
    }
    Send(sysPath, action);
    pollfd pfd{udev_monitor_get_fd(monitor.get()), POLLIN, 0};
    if (poll(&pfd, 1, EVENT_WAIT_MS) != 1) {
        return nullptr;
    }
    return UdevDevicePtr(udev_monitor_receive_device(monitor.get()));
}

void Testbed::Send(const std::string &sysPath, const char *action)
{
    umockdev_testbed_uevent(bed_, sysPath.c_str(), action);
}

ScsiDiskLayout IscsiLayout()
{
    ScsiDiskLayout layout;
    layout.transport = Transport::ISCSI;
    layout.host = "host3";
    layout.port = "session5";
    layout.target = "target3:0:0";
    layout.scsi = "3:0:0:1";
    layout.block = "sdd";
    return layout;
}

ScsiDiskLayout LocalLayout()
{
    ScsiDiskLayout layout;
    layout.transport = Transport::LOCAL;
    layout.host = "host0";
    layout.target = "target0:0:0";
    layout.scsi = "0:0:0:0";
    layout.block = "sda";
    return layout;
}

ScsiDisk AddScsiDisk(Testbed &bed, const ScsiDiskLayout &layout)
{
    ScsiDisk disk;
    std::string parent = bed.Add("scsi_host", layout.host, "");
    if (layout.transport != Transport::LOCAL) {
        const char *portClass = (layout.transport == Transport::FC) ? "fc_remote_ports" : "iscsi_session";
        disk.port = bed.Add("", layout.port, parent);
        disk.portClass = bed.Add(portClass, layout.port, bed.Dir(disk.port, portClass), layout.portAttrs);
        parent = disk.port;
    }
    std::string target = bed.Add("scsi", layout.target, parent, {}, {{"DEVTYPE", "scsi_target"}});
    Attrs scsiAttrs;
    Put(scsiAttrs, "vendor", layout.vendor);
    Put(scsiAttrs, "model", layout.model);
    Put(scsiAttrs, "timeout", layout.timeout);
    disk.scsi = bed.Add("scsi", layout.scsi, target, scsiAttrs, {{"DEVTYPE", "scsi_device"}});
    Attrs props = {{"DEVTYPE", "disk"}};
    Put(props, "MAJOR", layout.major);
    Put(props, "MINOR", layout.minor);
    Put(props, "ID_WWN_WITH_EXTENSION", layout.wwn);
    disk.block = bed.Add("block", layout.block, bed.Dir(disk.scsi, "block"), {}, props);
    return disk;
}

std::string AddNvmeDisk(Testbed &bed, const NvmeDiskLayout &layout)
{
    Attrs controllerAttrs;
    Put(controllerAttrs, "model", layout.model);
    std::string parent = bed.Add("nvme", layout.controller, "", controllerAttrs);
    if (layout.underSubsystem) {
        parent = bed.Add("nvme-subsystem", "nvme-subsys0", "");
    }
    Attrs attrs;
    Put(attrs, "nsid", layout.nsid);
    Put(attrs, "cntlid", layout.cntlid);
    Put(attrs, "hidden", layout.hidden);
    Attrs props = {{"MAJOR", "259"}, {"MINOR", "2"}};
    Put(props, "DEVTYPE", layout.devtype);
    Put(props, "ID_WWN", layout.wwn);
    return bed.Add("block", layout.block, parent, attrs, props);
}

std::string AddBareBlock(Testbed &bed, const std::string &name, const std::string &major, const std::string &minor)
{
    return bed.Add("block", name, "", {}, {{"DEVTYPE", "disk"}, {"MAJOR", major}, {"MINOR", minor}});
}

NodeHolder::NodeHolder() : node{}
{
    UDEV_ListInit(&node.list);
    node.host = node.channel = node.target = node.lun = -1;
    node.transportType = UDEV_TRANSPORT_UNKNOWN;
    node.transportId = -1;
}

NodeHolder::NodeHolder(UdevDevicePtr device, const char *devNum, const char *devInfo) : NodeHolder()
{
    dev = std::move(device);
    node.udevDev = dev.get();
    snprintf(node.devNum, sizeof(node.devNum), "%s", devNum);
    snprintf(node.devInfo, sizeof(node.devInfo), "%s", devInfo);
}

NodeHolder::NodeHolder(NodeHolder &&other) noexcept : node(other.node), dev(std::move(other.dev))
{
    UDEV_ListInit(&node.list);  // a node off any list links to itself
    node.udevDev = dev.get();
    other.node.udevDev = nullptr;
}

LogCapture::LogCapture()
{
    Captured().clear();
    UDEV_SetSyslogSinkForTest(CaptureSink);
    UDEV_SetSyslogMode();
}

LogCapture::~LogCapture()
{
    UDEV_ClearSyslogMode();
    UDEV_SetSyslogSinkForTest(nullptr);
    Captured().clear();
}

const std::vector<std::string> &LogCapture::Lines() const
{
    return Captured();
}

size_t LogCapture::Count(const std::string &message) const
{
    size_t count = 0;
    for (const std::string &line : Captured()) {
        count += (line == message) ? 1 : 0;
    }
    return count;
}

bool LogCapture::Contains(const std::string &fragment) const
{
    for (const std::string &line : Captured()) {
        if (line.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

VendorList::VendorList(std::initializer_list<std::pair<std::string, std::string>> rules)
{
    std::string text = "[vendors]\n";
    for (const auto &rule : rules) {
        text += "ruler_name=test,vendor_id=" + rule.first + ",product_id=" + rule.second + ",driver=qm\n";
    }
    WriteFile(dir_.File("qm_plus.conf"), text);
    UDEV_InitConfigFromPath(dir_.File("qm_plus.conf").c_str());
}

VendorList::~VendorList()
{
    UDEV_ReleaseConfig();
}

ReadOnlyAttr::ReadOnlyAttr(const Testbed &bed, const std::string &sysPath, const std::string &attr)
    : hostPath_(bed.HostPath(sysPath, attr))
{
    chmod(hostPath_.c_str(), 0444);
    capDropped_ = SetDacOverride(false);
}

ReadOnlyAttr::~ReadOnlyAttr()
{
    if (capDropped_) {
        (void)SetDacOverride(true);
    }
    chmod(hostPath_.c_str(), 0644);
}

}  // namespace qmtest
