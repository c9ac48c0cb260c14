// The lab's own properties that would let a fault of the daemon pass
// silently if they broke: the daemon is only ever shown the testbed's sysfs,
// so a layout or attribute format unlike a real host's (parents, padding)
// would hide a daemon that reads it wrongly; and a sanitizer report of an
// instrumented daemon, which may exit with an ordinary status, must fail.
#include <algorithm>
#include <functional>
#include <mutex>

#include <gtest/gtest.h>
#include <libudev.h>

#include "qmlab/lab.h"
#include "raii.h"

namespace qmlab::test {
namespace {

std::string Str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("-");
}

UdevDevicePtr Lookup(udev *u, const std::string &subsystem, const std::string &name)
{
    return UdevDevicePtr(udev_device_new_from_subsystem_sysname(u, subsystem.c_str(), name.c_str()));
}

TEST(LabTestbed, EachKindOfDeviceHasTheTopologyOfARealHost)
{
    struct Attr {
        std::string subsystem, sysname, attribute, value;
    };
    struct Row {
        const char *name;
        std::function<BlockDevice(Testbed &)> make;
        std::string parents;  // nearest first, "sysname/subsystem/devtype", as far as the daemon climbs
        std::vector<Attr> attrs;
    };
    const Row rows[] = {
        {"FC disk", [](Testbed &tb) { return tb.AddFcDisk({.host = 2, .port = 7, .target = 1, .lun = 3}); },
         "2:0:1:3/scsi/scsi_device target2:0:1/scsi/scsi_target rport-2:0-7/-/- host2/scsi/scsi_host",
         {{"scsi", "2:0:1:3", "vendor", "QMESH   "},
          {"scsi", "2:0:1:3", "model", "VDISK           "},
          {"scsi", "2:0:1:3", "timeout", "30"},
          {"fc_remote_ports", "rport-2:0-7", "dev_loss_tmo", "30"},
          {"fc_remote_ports", "rport-2:0-7", "fast_io_fail_tmo", "off"}}},
        {"iSCSI disk", [](Testbed &tb) { return tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1}); },
         "3:0:0:1/scsi/scsi_device target3:0:0/scsi/scsi_target session5/-/- host3/scsi/scsi_host",
         {{"iscsi_session", "session5", "recovery_tmo", "120"}, {"scsi", "3:0:0:1", "timeout", "30"}}},
        {"NVMe namespace",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 3, .model = "QMESH-NVDISK", .modelPad = 40});
             return tb.AddNvmeNamespace(c, {.nsIndex = 2});
         },
         "nvme3/nvme/-",
         {{"block", "nvme3n2", "nsid", "2"},
          {"block", "nvme3n2", "hidden", "0"},
          {"block", "nvme3n2", "cntlid", "-"},
          {"nvme", "nvme3", "model", "QMESH-NVDISK" + std::string(28, ' ')}}},
        {"NVMe namespace under a subsystem",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 4});
             return tb.AddNvmeSubsystemNamespace(tb.AddNvmeSubsystem(4), c, {.nsIndex = 1});
         },
         "nvme-subsys4/nvme-subsystem/-", {}},
        {"hidden NVMe path",
         [](Testbed &tb) { return tb.AddNvmePathDevice(tb.AddNvmeController({.instance = 5}), 0, {.nsIndex = 1}); },
         "nvme5/nvme/-", {{"block", "nvme5c0n1", "hidden", "1"}}},
    };
    Lab lab;
    std::vector<BlockDevice> made;
    for (const Row &row : rows) {
        made.push_back(row.make(lab.testbed()));
    }
    UdevPtr u(udev_new());
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE(row.name);
        UdevDevicePtr block = Lookup(u.get(), "block", made[i].name);
        ASSERT_NE(block, nullptr);
        std::string parents;
        size_t depth = static_cast<size_t>(std::count(row.parents.begin(), row.parents.end(), ' ')) + 1;
        udev_device *p = udev_device_get_parent(block.get());
        for (size_t k = 0; k < depth && p != nullptr; ++k, p = udev_device_get_parent(p)) {
            parents += (parents.empty() ? "" : " ") + Str(udev_device_get_sysname(p)) + "/" +
                       Str(udev_device_get_subsystem(p)) + "/" + Str(udev_device_get_devtype(p));
        }
        EXPECT_EQ(parents, row.parents);
        if (!made[i].wwn.empty()) {
            const char *key = made[i].name.rfind("nvme", 0) == 0 ? "ID_WWN" : "ID_WWN_WITH_EXTENSION";
            EXPECT_EQ(Str(udev_device_get_property_value(block.get(), key)), made[i].wwn);
        }
        for (const auto &a : row.attrs) {
            UdevDevicePtr dev = Lookup(u.get(), a.subsystem, a.sysname);
            ASSERT_NE(dev, nullptr) << a.subsystem << " " << a.sysname;
            EXPECT_EQ(Str(udev_device_get_sysattr_value(dev.get(), a.attribute.c_str())), a.value)
                << a.sysname << " " << a.attribute;
        }
    }
}

std::mutex g_reportsMu;
std::vector<std::string> g_reports;

// Each report in a program's standard error, cut at its SUMMARY line (a
// UBSan report is its one line), reaches the handler when the program ends.
TEST(LabSanitizerReports, EachReportOfAProgramReachesTheHandler)
{
    SanitizerReportHandler previous = SetSanitizerReportHandler([](const std::string &, const std::string &report) {
        std::lock_guard<std::mutex> lock(g_reportsMu);
        g_reports.push_back(report);
    });
    {
        Lab lab;
        const std::string script =
            "printf '%s\\n' 'qmudev: a line of its own' '==7==ERROR: LeakSanitizer: detected memory leaks'"
            " '    #0 0x1 in main' 'SUMMARY: AddressSanitizer: 8 byte(s) leaked in 1 allocation(s).'"
            " 'between the reports' 'WARNING: ThreadSanitizer: data race (pid=7)'"
            " 'SUMMARY: ThreadSanitizer: data race x.cpp:2 in f' 'x.cpp:3:5: runtime error: overflow' >&2";
        EXPECT_TRUE(lab.Start({.args = {"-c", script}, .binary = "/bin/sh"}).WaitExit(30s).has_value());
    }
    SetSanitizerReportHandler(previous);
    std::lock_guard<std::mutex> lock(g_reportsMu);
    EXPECT_EQ(g_reports, (std::vector<std::string>{
                             "==7==ERROR: LeakSanitizer: detected memory leaks\n    #0 0x1 in main\n"
                             "SUMMARY: AddressSanitizer: 8 byte(s) leaked in 1 allocation(s).\n",
                             "WARNING: ThreadSanitizer: data race (pid=7)\n"
                             "SUMMARY: ThreadSanitizer: data race x.cpp:2 in f\n",
                             "x.cpp:3:5: runtime error: overflow\n"}));
}

}  // namespace
}  // namespace qmlab::test
