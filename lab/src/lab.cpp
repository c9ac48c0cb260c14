#include "qmlab/lab.h"

namespace qmlab {

Lab::Lab(LabOptions options)
    : sandbox_(std::make_unique<Sandbox>(std::move(options.sandbox))),
      testbed_(std::make_unique<Testbed>()),
      driver_(std::make_unique<DriverEmulator>(sandbox_->Path("misc_qmnv.sock")))
{
}

Lab::~Lab()
{
    daemons_.clear();  // killed and reaped before their world goes away
    driver_.reset();
    testbed_.reset();
    sandbox_.reset();
}

DaemonContext Lab::Context() const
{
    DaemonContext c;
    c.scratchDir = sandbox_->Root();
    c.testbedRoot = testbed_->Root();
    c.driverSocket = driver_->SocketPath();
    c.notifySocket = sandbox_->NotifySocketPath();
    return c;
}

Daemon &Lab::Start(DaemonOptions options)
{
    daemons_.push_back(std::make_unique<Daemon>(Context(), std::move(options)));
    return *daemons_.back();
}

bool Lab::WaitTrace(const std::string &text, Clock::duration timeout) const
{
    return Eventually([&] { return TraceContains(TraceLog(), text); }, timeout);
}

bool Lab::WaitSyslog(const std::string &text, Clock::duration timeout)
{
    return sandbox_->Syslog().WaitFor(
        [&](const std::vector<Datagram> &all) {
            for (const auto &d : all) {
                if (d.text.find(text) != std::string::npos) {
                    return true;
                }
            }
            return false;
        },
        timeout);
}

DefaultScenario BuildDefaultScenario(Lab &lab)
{
    Testbed &tb = lab.testbed();
    DefaultScenario s;
    s.fc1 = tb.AddFcDisk({.host = 2, .channel = 0, .port = 7, .target = 1, .lun = 3});
    s.fc2 = tb.AddFcDisk({.host = 2, .channel = 0, .port = 7, .target = 1, .lun = 4});
    s.iscsi = tb.AddIscsiDisk({.host = 3, .session = 5, .channel = 0, .target = 0, .lun = 1});
    s.nvmeCtrl = tb.AddNvmeController({.instance = 0});
    s.nvme1 = tb.AddNvmeNamespace(s.nvmeCtrl, {.nsIndex = 1});
    s.nvme2 = tb.AddNvmeNamespace(s.nvmeCtrl, {.nsIndex = 2});
    ScsiIdentity other;
    other.vendor = "OTHERVND";
    other.model = "SOMEDISK";
    s.foreign = tb.AddLocalDisk({.host = 0, .channel = 0, .target = 0, .lun = 0, .id = other});
    s.staleDevNum = "8:240";
    lab.driver().SetDeviceList({s.fc1.DevNum(), s.staleDevNum});
    return s;
}

}  // namespace qmlab
