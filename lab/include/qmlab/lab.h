// One scenario: a sandbox (private paths and captures), a testbed (sysfs and
// events), the emulated driver, and the daemons started in it. Destroying
// the Lab kills its daemons first, then takes the rest down.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qmlab/capture.h"
#include "qmlab/clock.h"
#include "qmlab/daemon.h"
#include "qmlab/driver.h"
#include "qmlab/sandbox.h"
#include "qmlab/testbed.h"
#include "qmlab/trace_log.h"

namespace qmlab {

struct LabOptions {
    SandboxOptions sandbox;
};

class Lab {
public:
    explicit Lab(LabOptions options = {});
    ~Lab();
    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    Sandbox &sandbox() { return *sandbox_; }
    Testbed &testbed() { return *testbed_; }
    DriverEmulator &driver() { return *driver_; }

    // Starts a daemon; the Lab keeps it until its own end.
    Daemon &Start(DaemonOptions options = {});
    DaemonContext Context() const;

    // Shortcuts over the captures.
    std::vector<TraceRecord> TraceLog() const { return ReadTraceLog(kTraceLogPath); }
    bool WaitTrace(const std::string &text, Clock::duration timeout) const;
    std::optional<Datagram> WaitNotify(const std::string &text, Clock::duration timeout)
    {
        return sandbox_->Notify().WaitText(text, timeout);
    }
    bool WaitSyslog(const std::string &text, Clock::duration timeout);

private:
    std::unique_ptr<Sandbox> sandbox_;
    std::unique_ptr<Testbed> testbed_;
    std::unique_ptr<DriverEmulator> driver_;
    std::vector<std::unique_ptr<Daemon>> daemons_;
};

// The demo's world: two FC disks, one iSCSI disk, two NVMe namespaces, one
// disk of a vendor that is not supported, and one device number that the
// driver still holds but udev no longer has.
struct DefaultScenario {
    BlockDevice fc1;
    BlockDevice fc2;
    BlockDevice iscsi;
    NvmeController nvmeCtrl;
    BlockDevice nvme1;
    BlockDevice nvme2;
    BlockDevice foreign;
    std::string staleDevNum;
};
DefaultScenario BuildDefaultScenario(Lab &lab);

}  // namespace qmlab
