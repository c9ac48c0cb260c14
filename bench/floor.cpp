// The floor: the work that taking over a set of disks cannot avoid, done
// in the most direct way, with no pipeline. It is run by the benchmark in
// the daemon's place (same sandbox, same preloads, same testbed, same
// emulated driver), so that the daemon's figures can be read against it.
//
// What it does, as the daemon must:
//  - start: open /dev/misc_qmnv, one START request;
//  - scan: the same libudev enumeration of "block"; for every whole disk
//    the same property and sysfs reads (MAJOR, MINOR, the WWN property,
//    the walk to the SCSI parent, vendor and model, the SCSI target and its
//    FC remote port or iSCSI session; for NVMe "hidden", the subsystem
//    check, the controller's model, "nsid" and "cntlid"), one ADD request
//    per accepted disk, one trace record per request, and for an accepted
//    SCSI disk the same time-out reads (remote port or session, SCSI
//    device); then the driver's device-number list (GET) and one REMOVE per
//    number that udev does not have;
//  - live events: a udev monitor on whole disks of "block" with the same
//    receive buffer; per received "add" the same work as for a scanned disk
//    (plus the product-major check on MAJOR and the action).
// What it leaves out is everything that is a choice of the daemon's design:
// threads, the event list, event records, supersession and retries.
//
// Usage: qmudev-bench-floor (no arguments). Sends READY=1 after the scan;
// runs until killed.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_set>

#include <fcntl.h>
#include <libudev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "scenario.h"

namespace {

int g_misc = -1;
unsigned g_sequence = 1;
std::string g_vlunMajor;

// One record, opened, appended and closed as the product's trace file is.
void Trace(const char *func, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));
void Trace(const char *func, int line, const char *format, ...)
{
    FILE *file = std::fopen(qmbench::kFloorTracePath, "a");
    if (file == nullptr) {
        return;
    }
    char timeText[40] = {};
    time_t now = time(nullptr);
    struct tm local {};
    if (localtime_r(&now, &local) != nullptr) {
        std::snprintf(timeText, sizeof(timeText), "%d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    }
    std::fprintf(file, "[%u][%s][%08x%02x%02x%04x][%-4s][%-6s][%s: %d]", g_sequence++, timeText, 0x5342u, 22u, 0u,
                 static_cast<unsigned>(line), "INFO", "UDEV", func, line);
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fflush(file);
    std::fclose(file);
}

// One request with a text record; the driver's status, or -1.
int Request(unsigned long number, const char *text, const char *action)
{
    size_t len = std::strlen(text);
    char record[MISC_CTRL_EXTRA_LEN + 256];
    if (len + MISC_CTRL_EXTRA_LEN > sizeof(record)) {
        return -1;
    }
    auto *param = reinterpret_cast<MiscCtrlParam *>(record);
    param->status = 0;
    param->bufLen = static_cast<uint32_t>(len + 1);
    param->dataLen = 0;
    param->needLen = 0;
    std::memcpy(record + MISC_CTRL_HEAD_LEN, text, len + 1);
    int ret = ::ioctl(g_misc, number, param);
    int status = ret < 0 ? -1 : static_cast<int>(param->status);
    Trace(__func__, __LINE__, "device{%s} action{%s} with ret{%d}.\n", text, action, status);
    return status;
}

std::string DriverList()
{
    uint32_t reqLen = 1023;
    for (;;) {
        std::string block(reqLen + MISC_CTRL_EXTRA_LEN, '\0');
        auto *param = reinterpret_cast<MiscCtrlParam *>(block.data());
        param->bufLen = reqLen + 1;
        if (::ioctl(g_misc, MISC_IOCTL_GET_DEVNUMS, param) < 0) {
            return {};
        }
        if (param->status == 1038 && param->needLen > reqLen) {
            reqLen = param->needLen;
            continue;
        }
        if (param->status != 1024 || param->dataLen > reqLen) {
            return {};
        }
        return std::string(block.data() + MISC_CTRL_HEAD_LEN, param->dataLen);
    }
}

std::string TrimRight(const char *text)
{
    std::string s = text != nullptr ? text : "";
    while (!s.empty() && (s.back() == ' ' || s.back() == '\n')) {
        s.pop_back();
    }
    return s;
}

// Reads an attribute and compares it with the wanted value (a write would
// follow when they differ; the scenario's values already match).
void CheckAttribute(struct udev_device *dev, const char *name, const char *wanted)
{
    const char *current = udev_device_get_sysattr_value(dev, name);
    if (current != nullptr && std::strcmp(current, wanted) != 0) {
        (void)udev_device_set_sysattr_value(dev, name, wanted);
    }
}

void CheckTimeout(struct udev *udev, const char *subsystem, const char *sysname,
                  std::initializer_list<std::pair<const char *, const char *>> attrs)
{
    struct udev_device *dev = udev_device_new_from_subsystem_sysname(udev, subsystem, sysname);
    if (dev == nullptr) {
        return;
    }
    for (const auto &[name, value] : attrs) {
        CheckAttribute(dev, name, value);
    }
    udev_device_unref(dev);
}

struct Disk {
    std::string devNum;
    std::string devInfo;
    bool scsi = false;
    int host = -1, channel = -1, target = -1, lun = -1;
    int rport = -1;
    int session = -1;
};

bool ReadScsi(struct udev_device *dev, Disk &disk)
{
    if (udev_device_get_property_value(dev, "ID_WWN_WITH_EXTENSION") == nullptr) {
        return false;
    }
    struct udev_device *scsiDev = dev;
    for (; scsiDev != nullptr; scsiDev = udev_device_get_parent(scsiDev)) {
        const char *subsystem = udev_device_get_subsystem(scsiDev);
        if (subsystem != nullptr && std::strncmp(subsystem, "scsi", 4) == 0) {
            break;
        }
    }
    if (scsiDev == nullptr) {
        return false;
    }
    std::string vendor = TrimRight(udev_device_get_sysattr_value(scsiDev, "vendor"));
    std::string product = TrimRight(udev_device_get_sysattr_value(scsiDev, "model"));
    if (vendor != qmbench::kScsiVendor || product != qmbench::kScsiProduct) {
        return false;
    }
    const char *hctl = udev_device_get_sysname(scsiDev);
    if (hctl == nullptr || std::sscanf(hctl, "%i:%i:%i:%i", &disk.host, &disk.channel, &disk.target, &disk.lun) != 4) {
        return false;
    }
    disk.scsi = true;
    disk.devInfo += "scsi " + vendor + " " + product + " " + hctl;
    struct udev_device *target = udev_device_get_parent_with_subsystem_devtype(dev, "scsi", "scsi_target");
    if (target == nullptr) {
        return true;
    }
    struct udev_device *rport = udev_device_get_parent(target);
    const char *rportName = rport != nullptr ? udev_device_get_sysname(rport) : nullptr;
    int h = 0;
    int c = 0;
    if (rportName != nullptr && std::sscanf(rportName, "rport-%d:%d-%d", &h, &c, &disk.rport) == 3) {
        return true;
    }
    for (struct udev_device *p = dev; p != nullptr; p = udev_device_get_parent(p)) {
        const char *name = udev_device_get_sysname(p);
        if (name != nullptr && std::sscanf(name, "session%d", &disk.session) == 1) {
            Trace(__func__, __LINE__, "SCSI target session{%d} in tgt name{%s}.\n", disk.session, name);
            break;
        }
    }
    return true;
}

bool ReadNvme(struct udev_device *dev, Disk &disk)
{
    if (udev_device_get_property_value(dev, "ID_WWN") == nullptr) {
        return false;
    }
    const char *hidden = udev_device_get_sysattr_value(dev, "hidden");
    if (hidden != nullptr && hidden[0] == '1') {
        return false;
    }
    if (udev_device_get_parent_with_subsystem_devtype(dev, "nvme-subsystem", nullptr) != nullptr) {
        return false;
    }
    struct udev_device *ctrl = udev_device_get_parent_with_subsystem_devtype(dev, "nvme", nullptr);
    const char *model = ctrl != nullptr ? udev_device_get_sysattr_value(ctrl, "model") : nullptr;
    const char *hyphen = model != nullptr ? std::strrchr(model, '-') : nullptr;
    if (hyphen == nullptr) {
        return false;
    }
    std::string vendor = TrimRight(std::string(model, hyphen).c_str());
    std::string product = TrimRight(hyphen + 1);
    if (vendor != qmbench::kNvmeVendor || product != qmbench::kNvmeProduct) {
        return false;
    }
    const char *name = udev_device_get_sysname(dev);
    if (name == nullptr || std::sscanf(name, "nvme%dn%d", &disk.host, &disk.target) != 2) {
        return false;
    }
    const char *nsid = udev_device_get_sysattr_value(dev, "nsid");
    const char *cntlid = udev_device_get_sysattr_value(dev, "cntlid");
    disk.lun = nsid != nullptr ? std::atoi(nsid) : 0;
    disk.channel = cntlid != nullptr ? std::atoi(cntlid) : 0;
    char hctl[64];
    std::snprintf(hctl, sizeof(hctl), "%d:%d:%d:%d", disk.host, disk.channel, disk.target, disk.lun);
    disk.devInfo += "nvme " + vendor + " " + product + " " + hctl;
    return true;
}

// Everything one whole disk costs: reads, ADD, trace, time-outs. Returns
// its device number ("" when it is not taken over).
std::string TakeOver(struct udev *udev, struct udev_device *dev)
{
    const char *major = udev_device_get_property_value(dev, "MAJOR");
    const char *minor = udev_device_get_property_value(dev, "MINOR");
    const char *sysname = udev_device_get_sysname(dev);
    if (major == nullptr || minor == nullptr || sysname == nullptr) {
        return {};
    }
    Disk disk;
    disk.devNum = std::string(major) + ":" + minor;
    disk.devInfo = disk.devNum + " ";
    bool ok = false;
    if (std::strncmp(sysname, "sd", 2) == 0) {
        ok = ReadScsi(dev, disk);
    } else if (std::strncmp(sysname, "nvme", 4) == 0) {
        ok = ReadNvme(dev, disk);
    }
    if (!ok) {
        return {};
    }
    int status = Request(MISC_IOCTL_ADD, disk.devInfo.c_str(), "add");
    if ((status == 1024 || status == 1061) && disk.scsi) {
        char name[64];
        if (disk.rport >= 0) {
            std::snprintf(name, sizeof(name), "rport-%d:%d-%d", disk.host, disk.channel, disk.rport);
            CheckTimeout(udev, "fc_remote_ports", name,
                         {{"dev_loss_tmo", qmbench::kDevLossTmo}, {"fast_io_fail_tmo", qmbench::kFastIoFailTmo}});
        } else if (disk.session >= 0) {
            std::snprintf(name, sizeof(name), "session%d", disk.session);
            CheckTimeout(udev, "iscsi_session", name, {{"recovery_tmo", qmbench::kRecoveryTmo}});
        }
        std::snprintf(name, sizeof(name), "%d:%d:%d:%d", disk.host, disk.channel, disk.target, disk.lun);
        CheckTimeout(udev, "scsi", name, {{"timeout", qmbench::kScsiTimeout}});
    }
    return disk.devNum;
}

void Scan(struct udev *udev)
{
    std::unordered_set<std::string> known;
    struct udev_enumerate *enumerator = udev_enumerate_new(udev);
    udev_enumerate_add_match_subsystem(enumerator, "block");
    udev_enumerate_scan_devices(enumerator);
    struct udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerator))
    {
        const char *path = udev_list_entry_get_name(entry);
        struct udev_device *dev = udev_device_new_from_syspath(udev, path);
        if (dev == nullptr) {
            continue;
        }
        const char *devtype = udev_device_get_devtype(dev);
        if (devtype != nullptr && std::strcmp(devtype, "disk") == 0) {
            std::string devNum = TakeOver(udev, dev);
            if (!devNum.empty()) {
                known.insert(std::move(devNum));
            }
        }
        udev_device_unref(dev);
    }
    udev_enumerate_unref(enumerator);

    std::string list = DriverList();
    size_t pos = 0;
    while (pos < list.size()) {
        size_t end = list.find(' ', pos);
        if (end == std::string::npos) {
            end = list.size();
        }
        if (end > pos) {
            std::string token = list.substr(pos, end - pos);
            if (known.find(token) == known.end()) {
                Request(MISC_IOCTL_REMOVE, token.c_str(), "remove");
            }
        }
        pos = end + 1;
    }
}

void ReadVlunMajor()
{
    FILE *devices = std::fopen("/proc/devices", "r");
    if (devices == nullptr) {
        return;
    }
    char line[128];
    while (std::fgets(line, sizeof(line), devices) != nullptr) {
        char name[64];
        unsigned major = 0;
        if (std::sscanf(line, "%u %63s", &major, name) == 2 && std::strcmp(name, "quillmesh") == 0) {
            g_vlunMajor = std::to_string(major);
        }
    }
    std::fclose(devices);
}

void Live(struct udev *udev, struct udev_monitor *monitor)
{
    int fd = udev_monitor_get_fd(monitor);
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, -1) <= 0) {
            continue;
        }
        struct udev_device *dev = udev_monitor_receive_device(monitor);
        if (dev == nullptr) {
            continue;
        }
        const char *action = udev_device_get_action(dev);
        const char *major = udev_device_get_property_value(dev, "MAJOR");
        if (action != nullptr && std::strcmp(action, "add") == 0) {
            if (major != nullptr && g_vlunMajor == major) {
                std::fprintf(stderr, "product disk\n");  // would ask for an LVM activation
            }
            (void)TakeOver(udev, dev);
        }
        udev_device_unref(dev);
    }
}

}  // namespace

int main()
{
    g_misc = ::open(MISC_DEVICE_PATH, O_RDWR);
    if (g_misc < 0) {
        std::perror(MISC_DEVICE_PATH);
        return 1;
    }
    if (::ioctl(g_misc, MISC_IOCTL_START, nullptr) < 0) {
        std::perror("start");
        return 1;
    }
    ReadVlunMajor();
    struct udev *udev = udev_new();
    struct udev_monitor *monitor = udev_monitor_new_from_netlink(udev, "udev");
    if (udev == nullptr || monitor == nullptr ||
        udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", "disk") != 0) {
        std::fprintf(stderr, "udev monitor failed\n");
        return 1;
    }
    (void)udev_monitor_set_receive_buffer_size(monitor, 128 * 1024 * 1024);
    if (udev_monitor_enable_receiving(monitor) < 0) {
        std::fprintf(stderr, "udev monitor failed\n");
        return 1;
    }
    Scan(udev);
    sd_notify(0, "READY=1");
    Live(udev, monitor);
    return 0;
}
