// qmudev-lab-demo: the daemon's main job in the emulation lab, as a short
// readable transcript. Two FC disks, one iSCSI disk, two NVMe namespaces, a
// disk of an unsupported vendor, and a device number the driver still holds
// that udev no longer has. The daemon starts, becomes ready, a virtual disk
// of the product's own driver appears (LVM activation follows), a disk is
// hot-added, one changes and one is removed, then the daemon is stopped
// with SIGTERM (it has no handler: the process just ends).
#include <cstdio>
#include <exception>
#include <string>

#include "qmlab/lab.h"

namespace {

using namespace qmlab;

void Section(const char *title)
{
    std::printf("\n== %s\n", title);
}

std::string Oneline(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) {
        s.pop_back();
    }
    return s;
}

int Run()
{
    Lab lab;
    DefaultScenario s = BuildDefaultScenario(lab);
    Testbed &tb = lab.testbed();

    Section("scenario");
    auto disk = [](const char *what, const BlockDevice &d) {
        std::printf("  %-22s %-8s %-7s %s\n", what, d.name.c_str(), d.DevNum().c_str(), d.hctl.c_str());
    };
    disk("FC disk", s.fc1);
    disk("FC disk", s.fc2);
    disk("iSCSI disk", s.iscsi);
    disk("NVMe namespace", s.nvme1);
    disk("NVMe namespace", s.nvme2);
    disk("unsupported vendor", s.foreign);
    std::printf("  driver still holds     %s (gone from udev) and %s\n", s.staleDevNum.c_str(), s.fc1.DevNum().c_str());

    Daemon &daemon = lab.Start();
    std::printf("\nstarted qmudev, pid %d\n", daemon.Pid());
    if (!lab.WaitNotify("READY=1", 60s)) {
        std::printf("the daemon did not report READY=1 within 60 s\n");
    } else {
        std::printf("READY=1 received\n");
    }
    // The start-up scan's events reach the driver after readiness may have
    // been sent; wait until the driver has seen every disk of the scan.
    lab.driver().WaitFor(
        [](const std::vector<DriverRequest> &all) {
            size_t n = 0;
            for (const auto &r : all) {
                n += (r.op == DriverOp::Add || r.op == DriverOp::Remove) && r.answered ? 1 : 0;
            }
            return n >= 6;  // five disks and the stale device number
        },
        20s);

    // A virtual disk of the product's own driver (major 252, "quillmesh" in
    // /proc/devices): the daemon asks for LVM activation, which runs about
    // five seconds later, and drops the event itself (neither sd nor nvme).
    tb.WaitListeners(1, 10s);
    BlockDevice vdisk = tb.AddBlock({.name = "qmvd0", .major = 252, .minor = 0});
    std::printf("new virtual disk %s (%s): %zu monitor(s) told\n", vdisk.name.c_str(), vdisk.DevNum().c_str(),
                tb.Emit(vdisk.syspath, "add"));
    lab.WaitTrace("get the device name{qmvd0}", 10s);

    // Hot-add an FC disk, then remove the iSCSI disk. The daemon's handle
    // thread loses a wake-up that comes while it is busy (by design; its
    // two-minute wake-up catches up), so the removal waits until the add
    // has been handled, time-outs included.
    BlockDevice hot = tb.AddFcDisk({.host = 2, .channel = 0, .port = 8, .target = 2, .lun = 0});
    size_t writesBefore = tb.AttributeWrites().size();
    std::printf("hot-add %s (%s): %zu monitor(s) told\n", hot.name.c_str(), hot.DevNum().c_str(),
                tb.Emit(hot.syspath, "add"));
    tb.WaitAttributeWrites(writesBefore + 2, 20s);  // the new port's two time-outs
    lab.WaitTrace("attr{timeout}", 1s);
    auto answered = [&](DriverOp op, const std::string &devNum) {
        return lab.driver().WaitFor(
            [&](const std::vector<DriverRequest> &all) {
                for (const auto &r : all) {
                    if (r.op == op && r.DevNum() == devNum && r.answered) {
                        return true;
                    }
                }
                return false;
            },
            20s);
    };
    std::printf("change  %s (%s): %zu monitor(s) told\n", s.fc2.name.c_str(), s.fc2.DevNum().c_str(),
                tb.Emit(s.fc2.syspath, "change"));
    if (!answered(DriverOp::Change, s.fc2.DevNum())) {
        std::printf("(the change was not handled within 20 s: its wake-up was lost, the daemon's\n"
                    " two-minute wake-up would catch up)\n");
    }
    std::string iscsiNum = s.iscsi.DevNum();
    std::printf("remove  %s (%s): %zu monitor(s) told\n", s.iscsi.name.c_str(), iscsiNum.c_str(),
                tb.RemoveAndEmit(s.iscsi.syspath));
    if (!lab.driver().WaitFor(
            [&](const std::vector<DriverRequest> &all) {
                for (const auto &r : all) {
                    if (r.op == DriverOp::Remove && r.text == iscsiNum && r.answered) {
                        return true;
                    }
                }
                return false;
            },
            20s)) {
        std::printf("(the removal was not handled within 20 s: its wake-up was lost, the daemon's\n"
                    " two-minute wake-up would catch up)\n");
    }

    if (lab.sandbox().WaitLvmRuns(1, 15s)) {
        std::printf("lvm ran for the virtual disk\n");
    }

    ExitStatus status = daemon.Stop();
    std::printf("stopped with SIGTERM: %s\n", status.Describe().c_str());

    Section("requests the driver received");
    for (const auto &r : lab.driver().Requests()) {
        std::string reply = r.op == DriverOp::Open || r.op == DriverOp::Close ? ""
                            : r.ret < 0 ? "ret " + std::to_string(r.ret)
                                        : "status " + std::to_string(r.status);
        std::printf("  #%-4llu %-7s %-40s %s\n", static_cast<unsigned long long>(r.stamp.seq), DriverOpName(r.op),
                    r.op == DriverOp::Start ? "(no record)" : r.text.c_str(), reply.c_str());
    }

    Section("time-outs written to sysfs, in order");
    for (const auto &w : tb.AttributeWrites()) {
        std::printf("  #%-4llu %-17s %-4s %s\n", static_cast<unsigned long long>(w.stamp.seq), w.name.c_str(),
                    w.value.c_str(), w.syspath.c_str());
    }

    Section("time-out attributes now");
    auto attr = [&](const std::string &path, const char *name) {
        auto v = tb.Attribute(path, name);
        std::printf("  %-17s %-6s %s\n", name, v ? v->c_str() : "(gone)", path.c_str());
    };
    attr(s.fc1.transport, "dev_loss_tmo");
    attr(s.fc1.transport, "fast_io_fail_tmo");
    attr(hot.transport, "dev_loss_tmo");
    attr(hot.transport, "fast_io_fail_tmo");
    attr(s.fc1.scsiDevice, "timeout");
    attr(s.fc2.scsiDevice, "timeout");
    attr(hot.scsiDevice, "timeout");
    attr(s.foreign.scsiDevice, "timeout");

    Section("notifications");
    for (const auto &n : lab.sandbox().Notifications()) {
        std::printf("  #%-4llu %s\n", static_cast<unsigned long long>(n.stamp.seq), n.text.c_str());
    }

    Section("system log");
    auto sys = lab.sandbox().SyslogRecords();
    if (sys.empty()) {
        std::printf("  (nothing: without SAN-boot arguments the daemon writes its trace file)\n");
    }
    for (const auto &r : sys) {
        std::printf("  %s[%d]: %s\n", r.ident.c_str(), r.pid, Oneline(r.message).c_str());
    }

    Section("lvm runs");
    auto runs = lab.sandbox().LvmRuns();
    if (runs.empty()) {
        std::printf("  (none: no disk of the product's own major was added)\n");
    }
    for (const auto &r : runs) {
        std::printf("  %d: lvm %s\n", r.index, r.args.c_str());
    }

    Section(kTraceLogPath);
    for (const auto &r : lab.TraceLog()) {
        std::printf("  %s\n", Oneline(r.raw).c_str());
    }
    return 0;
}

}  // namespace

int main(int, char **argv)
{
    try {
        Sandbox::EnsureUmockdevPreload(argv);
        Sandbox::EnterPrivateNamespace();
        return Run();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qmudev-lab-demo: %s\n", e.what());
        return 1;
    }
}
