// What the driver is told about each disk, and which disks it is never told
// about, end to end: the device-information texts of SCSI (FC, iSCSI, local)
// and NVMe disks as real sysfs shows them, and the NVMe and vendor filters
// with the support list read from /etc/qm_plus.conf. The start-up scan
// carries them here; live events take the same path (storm_test.cpp).
#include <functional>
#include <map>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// The lab's default rules plus an 8-character vendor with a 16-character
// SCSI model: the widest the device information holds.
const std::string kVendorConfig = std::string(kDefaultVendorConfig) +
                                  "ruler_name=rule_wide,vendor_id=QMESHLAB,product_id=VDISK-0123456789\n";

NvmeController Controller(Testbed &tb, int instance, size_t pad = 0)
{
    return tb.AddNvmeController({.instance = instance, .model = "QMESH-NVDISK", .modelPad = pad});
}

TEST(ProtocolScan, WellDescribedDisksAreAddedWithTheirExactTextsAndNoOtherIs)
{
    struct Row {
        const char *name;
        std::function<BlockDevice(Testbed &)> make;
        const char *devInfo;  // after the device number; nullptr: never added
        const char *why;      // the record of a disk that is not added
    };
    const Row rows[] = {
        // Failure paths first.
        {"unlisted vendor",
         [](Testbed &tb) { return tb.AddFcDisk({.lun = 9, .id = {.vendor = "OTHERVND", .model = "SOMEDISK"}}); },
         nullptr, "check the vendor{OTHERVND} product{SOMEDISK} is not support."},
        {"hidden NVMe path device",
         [](Testbed &tb) { return tb.AddNvmePathDevice(Controller(tb, 6), 1, {.nsIndex = 1}); },
         nullptr, "the udev device skips because hidden."},
        {"NVMe namespace under an nvme-subsystem",
         [](Testbed &tb) {
             return tb.AddNvmeSubsystemNamespace(tb.AddNvmeSubsystem(7), Controller(tb, 7), {.nsIndex = 1});
         },
         nullptr, "the nvme udev is not indentify."},
        // The model is split before its blanks are trimmed: the product part
        // with its padding must fit 16 characters.
        {"NVMe model padded past the product's width",
         [](Testbed &tb) { return tb.AddNvmeNamespace(Controller(tb, 12, 40), {.nsIndex = 1}); }, nullptr,
         "strcpy_s product{QMESH-NVDISK    "},
        {"CD-ROM", [](Testbed &tb) { return tb.AddCdrom(0); }, nullptr,
         "get the device name{sr0} of udev device is not support."},
        // The scan reads a disk's vendor only after it has enumerated every
        // disk: the next LUN goes then, and its lookup fails.
        {"disk gone between the scan's enumeration and its lookup",
         [](Testbed &tb) {
             BlockDevice first = tb.AddFcDisk({.host = 8, .port = 1, .target = 0, .lun = 0});
             BlockDevice gone = tb.AddFcDisk({.host = 8, .port = 1, .target = 0, .lun = 1});
             tb.OnFirstOpen(first.scsiDevice, "vendor", [&tb, path = gone.syspath] { tb.Remove(path); });
             return gone;
         },
         nullptr, "get device failed devPath:"},

        {"FC disk", [](Testbed &tb) { return tb.AddFcDisk({.host = 2, .port = 7, .target = 1, .lun = 3}); },
         "scsi QMESH VDISK 2:0:1:3", nullptr},
        {"iSCSI disk", [](Testbed &tb) { return tb.AddIscsiDisk({.host = 3, .session = 5, .target = 0, .lun = 1}); },
         "scsi QMESH VDISK 3:0:0:1", nullptr},
        {"local disk", [](Testbed &tb) { return tb.AddLocalDisk({.host = 0, .channel = 1, .target = 4, .lun = 9}); },
         "scsi QMESH VDISK 0:1:4:9", nullptr},
        {"SCSI vendor and model at full width",
         [](Testbed &tb) { return tb.AddLocalDisk({.target = 5, .id = {"QMESHLAB", "VDISK-0123456789"}}); },
         "scsi QMESHLAB VDISK-0123456789 0:0:5:0", nullptr},
        // nvme3n2: host = controller instance, channel = the namespace's own
        // cntlid (none here, so 0, whatever the controller's), target = the
        // namespace index of the name, LUN = nsid.
        {"NVMe namespace without cntlid",
         [](Testbed &tb) { return tb.AddNvmeNamespace(Controller(tb, 3), {.nsIndex = 2}); },
         "nvme QMESH NVDISK 3:0:2:2", nullptr},
        {"NVMe namespace with cntlid and another nsid",
         [](Testbed &tb) { return tb.AddNvmeNamespace(Controller(tb, 4), {.nsIndex = 4, .nsid = "7", .cntlid = "5"}); },
         "nvme QMESH NVDISK 4:5:4:7", nullptr},
        {"NVMe namespace without nsid, blank-padded model",
         [](Testbed &tb) { return tb.AddNvmeNamespace(Controller(tb, 5, 22), {.nsIndex = 1, .nsid = ""}); },
         "nvme QMESH NVDISK 5:0:1:0", nullptr},
    };
    Lab lab({.sandbox = {.vendorConfig = kVendorConfig}});
    std::vector<BlockDevice> disks;
    for (const Row &row : rows) {
        disks.push_back(row.make(lab.testbed()));
    }
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, kEndOfScan)) << d.Stderr();

    std::map<std::string, Requests> adds;
    for (const auto &r : lab.driver().Requests(DriverOp::Add)) {
        adds[r.DevNum()].push_back(r);
    }
    auto trace = lab.TraceLog();
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].name);
        const auto &mine = adds[disks[i].DevNum()];
        if (rows[i].devInfo == nullptr) {
            EXPECT_TRUE(mine.empty()) << mine.front().text;
            EXPECT_GE(IndexOf(trace, rows[i].why), 0) << "no record \"" << rows[i].why << "\"";
            continue;
        }
        ASSERT_EQ(mine.size(), 1u);
        EXPECT_EQ(mine[0].text, disks[i].DevNum() + " " + rows[i].devInfo);
        EXPECT_EQ(mine[0].bufLen, mine[0].text.size() + 1) << "the record carries the text and its NUL";
    }
}

}  // namespace
}  // namespace qmlab::test
