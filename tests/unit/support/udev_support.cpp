#include "support/udev_support.h"

#include <linux/capability.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <libudev.h>

#include <cstdlib>
#include <mutex>

#include "support/alloc_fail.h"
#include "support/sys_wrap.h"
#include "udev_config.h"
#include "udev_log.h"

namespace qmtest {

namespace {

// An event that never comes fails the test through a null device.
constexpr int EVENT_WAIT_MS = 5000;

// Worker threads log while a test reads.
std::mutex g_capturedMutex;

std::vector<std::string> &Captured()
{
    static std::vector<std::string> lines;
    return lines;
}

void CaptureSink(const char *text)
{
    AllocationBudgetPause unlimited;  // a record logged inside a call that runs out of memory
    std::lock_guard<std::mutex> lock(g_capturedMutex);
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

// Devices point at their context without holding it: one for the process.
struct udev *Udev()
{
    static struct udev *const udev = udev_new();
    return udev;
}

}  // namespace

UdevDevicePtr Device(const std::string &syspath)
{
    return UdevDevicePtr(udev_device_new_from_syspath(Udev(), syspath.c_str()));
}

UdevDevicePtr Event(Testbed &bed, const std::string &syspath, const char *action)
{
    UdevMonitorPtr monitor(udev_monitor_new_from_netlink(Udev(), "udev"));
    if (!monitor || udev_monitor_enable_receiving(monitor.get()) < 0 ||
        bed.Emit(syspath, action, std::chrono::milliseconds(EVENT_WAIT_MS)) == 0) {
        return nullptr;
    }
    pollfd pfd{udev_monitor_get_fd(monitor.get()), POLLIN, 0};
    if (poll(&pfd, 1, EVENT_WAIT_MS) != 1) {
        return nullptr;
    }
    return UdevDevicePtr(udev_monitor_receive_device(monitor.get()));
}

NodeHolder::NodeHolder() : node{}
{
    UDEV_ListInit(&node.list);
    node.host = node.channel = node.target = node.lun = -1;
    node.transportType = UDEV_TRANSPORT_UNKNOWN;
    node.transportId = -1;
}

NodeHolder::NodeHolder(UdevDevicePtr device, const std::string &devNum, const std::string &devInfo) : NodeHolder()
{
    dev = std::move(device);
    node.udevDev = dev.get();
    snprintf(node.devNum, sizeof(node.devNum), "%s", devNum.c_str());
    snprintf(node.devInfo, sizeof(node.devInfo), "%s", devInfo.c_str());
}

NodeHolder::NodeHolder(NodeHolder &&other) noexcept : node(other.node), dev(std::move(other.dev))
{
    UDEV_ListInit(&node.list);  // a node off any list links to itself
    node.udevDev = dev.get();
    other.node.udevDev = nullptr;
}

LogCapture::LogCapture()
{
    {
        std::lock_guard<std::mutex> lock(g_capturedMutex);
        Captured().clear();
    }
    ReplaceSyslog(CaptureSink);
    UDEV_SetSyslogMode();
}

LogCapture::~LogCapture()
{
    UDEV_ClearSyslogMode();
    ReplaceSyslog(nullptr);
    std::lock_guard<std::mutex> lock(g_capturedMutex);
    Captured().clear();
}

std::vector<std::string> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(g_capturedMutex);
    return Captured();
}

size_t LogCapture::Count(const std::string &message) const
{
    size_t count = 0;
    for (const std::string &line : Lines()) {
        count += (line == message) ? 1 : 0;
    }
    return count;
}

bool LogCapture::Contains(const std::string &fragment) const
{
    for (const std::string &line : Lines()) {
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

FakeProcDevices::FakeProcDevices() : oldPath_(std::getenv("PATH") ? std::getenv("PATH") : "")
{
    WriteFile(dir_.File("cat"), "#!/bin/sh\necho run >> '" + dir_.File("runs") + "'\nexec /bin/cat '" +
                                    dir_.File("devices") + "'\n");
    chmod((dir_.Path() + "/cat").c_str(), 0755);
    Set("");
    setenv("PATH", (dir_.Path() + ":" + oldPath_).c_str(), 1);
}

FakeProcDevices::~FakeProcDevices()
{
    setenv("PATH", oldPath_.c_str(), 1);
}

void FakeProcDevices::Set(const std::string &blockLines)
{
    const std::string head = "Character devices:\n  1 mem\n\nBlock devices:\n  8 sd\n259 blkext\n";
    WriteFile(dir_.File("devices"), head + blockLines);
}

int FakeProcDevices::Runs() const
{
    return static_cast<int>(CountOf(ReadFile(dir_.File("runs")), "run\n"));
}

ReadOnlyAttr::ReadOnlyAttr(const Testbed &bed, const std::string &syspath, const std::string &attr)
    : hostPath_(bed.Root() + syspath + "/" + attr)
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
