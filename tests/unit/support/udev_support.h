// Test support for the udev modules, on the lab's testbed (qmlab::Testbed
// makes the disk topologies): libudev's view of its devices, event records
// as the pipeline makes them, log capture and temporary configuration.
// Nothing here touches the host's /etc, /run, /opt or /dev.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qmlab/testbed.h"
#include "raii.h"
#include "support/trace_capture.h"
#include "udev_event.h"

namespace qmtest {

using qmlab::BlockDevice;
using qmlab::Testbed;
using Opt = std::optional<std::string>;

// libudev's record of a testbed device, as the daemon looks it up.
UdevDevicePtr Device(const std::string &syspath);
inline UdevDevicePtr Device(const BlockDevice &dev)
{
    return Device(dev.syspath);
}
// As a udev monitor of this process receives it, with its action; null when
// it never comes.
UdevDevicePtr Event(Testbed &bed, const std::string &syspath, const char *action);

// An event record with the initial values of a fresh node; the holder owns
// the device.
struct NodeHolder {
    NodeHolder();
    explicit NodeHolder(UdevDevicePtr device, const std::string &devNum = "", const std::string &devInfo = "");
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

    std::vector<std::string> Lines() const;
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

// A fake `cat` first on PATH while it lives: the daemon's /proc/devices
// pipeline reads a file of the test's making, and every run is counted.
class FakeProcDevices {
public:
    FakeProcDevices();
    ~FakeProcDevices();
    FakeProcDevices(const FakeProcDevices &) = delete;
    FakeProcDevices &operator=(const FakeProcDevices &) = delete;

    // The block-device lines below the usual head.
    void Set(const std::string &blockLines);
    int Runs() const;

private:
    TempDir dir_;
    std::string oldPath_;
};

// One attribute unwritable for this thread: mode 0444, and the DAC override
// capability out of the effective set while this lives.
class ReadOnlyAttr {
public:
    ReadOnlyAttr(const Testbed &bed, const std::string &syspath, const std::string &attr);
    ~ReadOnlyAttr();
    ReadOnlyAttr(const ReadOnlyAttr &) = delete;
    ReadOnlyAttr &operator=(const ReadOnlyAttr &) = delete;

private:
    std::string hostPath_;
    bool capDropped_;
};

}  // namespace qmtest
