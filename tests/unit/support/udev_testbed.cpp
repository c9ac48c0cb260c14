#include "support/udev_testbed.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <umockdev.h>

#include "udev_config.h"
#include "udev_log.h"
#include "udev_protocol.h"
#include "udev_qmlinux.h"

namespace qmtest {

namespace {

// Long enough for a loaded machine; an event that never comes fails the
// test through a null device, not through this wait.
constexpr int EVENT_WAIT_MS = 5000;

std::vector<gchar *> FlattenPairs(const Attrs &pairs)
{
    std::vector<gchar *> flat;
    for (const auto &pair : pairs) {
        flat.push_back(const_cast<gchar *>(pair.first.c_str()));
        flat.push_back(const_cast<gchar *>(pair.second.c_str()));
    }
    flat.push_back(nullptr);
    return flat;
}

void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

void Put(Attrs &attrs, const char *name, const std::optional<std::string> &value)
{
    if (value) {
        attrs.emplace_back(name, *value);
    }
}

std::vector<std::string> &CapturedLines()
{
    static std::vector<std::string> lines;
    return lines;
}

void CaptureSink(const char *text)
{
    CapturedLines().emplace_back(text);
}

bool SetDacOverride(bool on)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    const uint32_t bit = 1u << CAP_DAC_OVERRIDE;
    bool had = (data[0].effective & bit) != 0;
    if (on) {
        data[0].effective |= (data[0].permitted & bit);
    } else {
        data[0].effective &= ~bit;
    }
    return syscall(SYS_capset, &header, data) == 0 && had;
}

}  // namespace

Testbed::Testbed() : bed_(umockdev_testbed_new()), udev_(udev_new())
{
    gchar *root = umockdev_testbed_get_root_dir(bed_);
    root_ = root;
    g_free(root);
}

Testbed::~Testbed()
{
    udev_.reset();
    g_object_unref(bed_);
}

std::string Testbed::Add(const std::string &subsystem, const std::string &name, const std::string &parent,
                         const Attrs &attrs, const Attrs &props)
{
    if (subsystem.empty()) {
        std::string path = (parent.empty() ? std::string("/sys/devices") : parent) + "/" + name;
        mkdir((root_ + path).c_str(), 0755);
        WriteFile(root_ + path + "/uevent", "");
        for (const auto &attr : attrs) {
            WriteFile(root_ + path + "/" + attr.first, attr.second);
        }
        return path;
    }
    std::vector<gchar *> flatAttrs = FlattenPairs(attrs);
    std::vector<gchar *> flatProps = FlattenPairs(props);
    gchar *path = umockdev_testbed_add_devicev(bed_, subsystem.c_str(), name.c_str(),
                                               parent.empty() ? nullptr : parent.c_str(), flatAttrs.data(),
                                               flatProps.data());
    std::string result = (path == nullptr) ? std::string() : std::string(path);
    g_free(path);
    return result;
}

std::string Testbed::Dir(const std::string &parent, const std::string &name)
{
    std::string path = parent + "/" + name;
    mkdir((root_ + path).c_str(), 0755);
    return path;
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
    umockdev_testbed_uevent(bed_, sysPath.c_str(), action);
    pollfd pfd{udev_monitor_get_fd(monitor.get()), POLLIN, 0};
    if (poll(&pfd, 1, EVENT_WAIT_MS) != 1) {
        return nullptr;
    }
    return UdevDevicePtr(udev_monitor_receive_device(monitor.get()));
}

ScsiDisk AddScsiDisk(Testbed &bed, const ScsiDiskSpec &spec)
{
    ScsiDisk disk;
    disk.host = bed.Add("scsi_host", spec.hostName, "");
    std::string targetParent = disk.host;
    if (spec.transport == Transport::FC) {
        disk.port = bed.Add("", spec.portName, disk.host);
        disk.portClass = bed.Add("fc_remote_ports", spec.portName, bed.Dir(disk.port, "fc_remote_ports"), spec.portAttrs);
        targetParent = disk.port;
    } else if (spec.transport == Transport::ISCSI) {
        disk.port = bed.Add("", spec.portName, disk.host);
        disk.portClass = bed.Add("iscsi_session", spec.portName, bed.Dir(disk.port, "iscsi_session"), spec.sessionAttrs);
        targetParent = disk.port;
    }
    disk.target = bed.Add("scsi", spec.targetName, targetParent, {}, {{"DEVTYPE", "scsi_target"}});
    Attrs scsiAttrs;
    Put(scsiAttrs, "vendor", spec.vendor);
    Put(scsiAttrs, "model", spec.model);
    Put(scsiAttrs, "timeout", spec.timeout);
    disk.scsi = bed.Add("scsi", spec.scsiName, disk.target, scsiAttrs, {{"DEVTYPE", "scsi_device"}});
    Attrs blockProps = {{"DEVTYPE", "disk"}};
    Put(blockProps, "MAJOR", spec.major);
    Put(blockProps, "MINOR", spec.minor);
    Put(blockProps, "ID_WWN_WITH_EXTENSION", spec.wwn);
    disk.block = bed.Add("block", spec.blockName, bed.Dir(disk.scsi, "block"), {}, blockProps);
    return disk;
}

NvmeDisk AddNvmeDisk(Testbed &bed, const NvmeDiskSpec &spec)
{
    NvmeDisk disk;
    Attrs controllerAttrs;
    Put(controllerAttrs, "model", spec.model);
    disk.controller = bed.Add("nvme", spec.controllerName, "", controllerAttrs);
    std::string parent = disk.controller;
    if (spec.underSubsystem) {
        parent = bed.Add("nvme-subsystem", "nvme-subsys0", "");
    }
    Attrs attrs;
    Put(attrs, "nsid", spec.nsid);
    Put(attrs, "cntlid", spec.cntlid);
    Put(attrs, "hidden", spec.hidden);
    Attrs props = {{"MAJOR", spec.major}, {"MINOR", spec.minor}};
    Put(props, "DEVTYPE", spec.devtype);
    Put(props, "ID_WWN", spec.wwn);
    disk.block = bed.Add("block", spec.blockName, parent, attrs, props);
    return disk;
}

std::string AddBareBlock(Testbed &bed, const std::string &name, const std::string &major, const std::string &minor)
{
    return bed.Add("block", name, "", {}, {{"DEVTYPE", "disk"}, {"MAJOR", major}, {"MINOR", minor}});
}

NodeHolder::NodeHolder() : node{}
{
    UDEV_ListInit(&node.list);
    node.host = -1;
    node.channel = -1;
    node.target = -1;
    node.lun = -1;
    node.transportType = UDEV_TRANSPORT_UNKNOWN;
    node.transportId = -1;
    node.protocol = 0;
}

NodeHolder::NodeHolder(UdevDevicePtr device) : NodeHolder()
{
    dev = std::move(device);
    node.udevDev = dev.get();
}

NodeHolder::NodeHolder(NodeHolder &&other) noexcept : node(other.node), dev(std::move(other.dev))
{
    // The link of a node off any list points at the node itself.
    UDEV_ListInit(&node.list);
    node.udevDev = dev.get();
    other.node.udevDev = nullptr;
}

LogCapture::LogCapture()
{
    CapturedLines().clear();
    UDEV_SetSyslogSinkForTest(CaptureSink);
    UDEV_SetSyslogMode();
}

LogCapture::~LogCapture()
{
    UDEV_ClearSyslogMode();
    UDEV_SetSyslogSinkForTest(nullptr);
    CapturedLines().clear();
}

const std::vector<std::string> &LogCapture::Lines() const
{
    return CapturedLines();
}

bool LogCapture::Has(const std::string &message) const
{
    return Count(message) > 0;
}

size_t LogCapture::Count(const std::string &message) const
{
    size_t count = 0;
    for (const std::string &line : CapturedLines()) {
        count += (line == message) ? 1 : 0;
    }
    return count;
}

bool LogCapture::Contains(const std::string &fragment) const
{
    for (const std::string &line : CapturedLines()) {
        if (line.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void LogCapture::Clear()
{
    CapturedLines().clear();
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/qmudev-test-XXXXXX";
    const char *made = mkdtemp(pattern);
    path_ = (made == nullptr) ? std::string() : std::string(made);
}

TempDir::~TempDir()
{
    if (!path_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

std::string TempDir::Write(const std::string &name, const std::string &content) const
{
    std::string path = path_ + "/" + name;
    WriteFile(path, content);
    return path;
}

VendorList::VendorList(const std::string &rules)
{
    UDEV_InitConfigFromPath(dir_.Write("qm_plus.conf", "[vendors]\n" + rules).c_str());
}

VendorList::~VendorList()
{
    UDEV_ReleaseConfig();
}

std::string VendorRule(const std::string &vendor, const std::string &product)
{
    return "ruler_name=test,vendor_id=" + vendor + ",product_id=" + product + ",driver=qm\n";
}

TimeoutSettings::TimeoutSettings(const std::string &text)
{
    UDEV_InitQmLinuxConfigFromPath(dir_.Write("qmLinux.conf", text).c_str());
}

TimeoutSettings::~TimeoutSettings()
{
    UDEV_ResetQmLinuxConfigForTest();
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

ProtocolHandle::ProtocolHandle()
{
    UDEV_ProtocolInitHandle();
}

ProtocolHandle::~ProtocolHandle()
{
    UDEV_ProtocolReleaseHandle();
}

}  // namespace qmtest
