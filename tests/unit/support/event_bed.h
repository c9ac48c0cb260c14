// A umockdev testbed of block disks whose uevents can be sent to the udev
// monitors of this process, and a private monitor that receives them as the
// daemon's monitor thread does (a udev_device with its action). The process
// sees the testbed as /sys while the object lives.
#pragma once

#include <poll.h>

#include <string>

#include <libudev.h>
#include <umockdev.h>

#include "raii.h"

namespace qmtest {

class EventBed {
public:
    EventBed() : bed_(umockdev_testbed_new()) {}
    ~EventBed() { g_object_unref(bed_); }
    EventBed(const EventBed &) = delete;
    EventBed &operator=(const EventBed &) = delete;

    // A block device of type `devType` ("disk", "partition") with its
    // numbers; returns its sys path.
    std::string AddBlock(const char *name, const char *major, const char *minor, const char *devType = "disk")
    {
        std::string devName = std::string("/dev/") + name;
        gchar *path = umockdev_testbed_add_device(bed_, "block", name, nullptr, nullptr, "DEVTYPE", devType, "MAJOR",
                                                  major, "MINOR", minor, "DEVNAME", devName.c_str(), nullptr);
        std::string sysPath = path != nullptr ? path : "";
        g_free(path);
        return sysPath;
    }

    // Sends the uevent to every monitor of the process.
    void Send(const std::string &sysPath, const char *action) { umockdev_testbed_uevent(bed_, sysPath.c_str(), action); }

private:
    UMockdevTestbed *bed_;
};

// A monitor of our own, filtered like the daemon's.
class EventReceiver {
public:
    EventReceiver() : udev_(udev_new())
    {
        if (udev_) {
            monitor_.reset(udev_monitor_new_from_netlink(udev_.get(), "udev"));
        }
        if (monitor_) {
            (void)udev_monitor_filter_add_match_subsystem_devtype(monitor_.get(), "block", "disk");
            (void)udev_monitor_enable_receiving(monitor_.get());
        }
    }

    // The next device received within the deadline, or null.
    UdevDevicePtr Next(int timeoutMs = 20000)
    {
        if (!monitor_) {
            return nullptr;
        }
        struct pollfd pfd = {udev_monitor_get_fd(monitor_.get()), POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) <= 0) {
            return nullptr;
        }
        return UdevDevicePtr(udev_monitor_receive_device(monitor_.get()));
    }

private:
    UdevPtr udev_;
    UdevMonitorPtr monitor_;
};

}  // namespace qmtest
