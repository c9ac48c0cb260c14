// A umockdev testbed of block devices (the process sees it as /sys while it
// lives) whose uevents reach the udev monitors of this process, and a
// private monitor that receives them as the daemon does: with an action.
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

    std::string AddBlock(const char *name, const char *major, const char *minor, const char *devType = "disk")
    {
        gchar *path = umockdev_testbed_add_device(bed_, "block", name, nullptr, nullptr, "DEVTYPE", devType,
                                                  "MAJOR", major, "MINOR", minor, nullptr);
        std::string sysPath = path != nullptr ? path : "";
        g_free(path);
        return sysPath;
    }
    void Send(const std::string &sysPath, const char *action) { umockdev_testbed_uevent(bed_, sysPath.c_str(), action); }

    // Sends the uevent and receives it on a monitor of our own.
    UdevDevicePtr Receive(const std::string &sysPath, const char *action)
    {
        UdevPtr udev(udev_new());
        UdevMonitorPtr monitor(udev_monitor_new_from_netlink(udev.get(), "udev"));
        if (!monitor || udev_monitor_enable_receiving(monitor.get()) < 0) {
            return nullptr;
        }
        Send(sysPath, action);
        struct pollfd pfd = {udev_monitor_get_fd(monitor.get()), POLLIN, 0};
        if (poll(&pfd, 1, 20000) <= 0) {
            return nullptr;
        }
        return UdevDevicePtr(udev_monitor_receive_device(monitor.get()));
    }

private:
    UMockdevTestbed *bed_;
};

}  // namespace qmtest
