// What the driver is told about each disk, and which disks it is never told
// about, end to end through the real daemon: the device-information texts of
// SCSI (FC, iSCSI, local) and NVMe disks at start-up and on hot-add, the
// NVMe and vendor filters, and the vendor support list as read from
// /etc/qm_plus.conf.
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// The lab's default rules plus the boundary widths: an 8-character vendor
// with a 16-character SCSI model, and NVMe vendors with a hyphen of their own.
const std::string kVendorConfig = std::string(kDefaultVendorConfig) +
                                  "ruler_name=rule_wide,vendor_id=QMESHLAB,product_id=VDISK-0123456789\n"
                                  "ruler_name=rule_nvme8,vendor_id=QMESHLAB,product_id=NVDISK\n"
                                  "ruler_name=rule_hyphen,vendor_id=QM-LAB,product_id=NVDISK\n";

ScsiIdentity Scsi(const std::string &vendor, const std::string &model)
{
    ScsiIdentity id;
    id.vendor = vendor;
    id.model = model;
    return id;
}

// One disk the daemon must not hand to the driver, and the record that
// says why.
struct Rejected {
    const char *name;
    std::function<BlockDevice(Testbed &)> make;
    const char *why;
};

std::vector<Rejected> RejectedDisks()
{
    return {
        {"unlisted vendor",
         [](Testbed &tb) { return tb.AddFcDisk({.port = 11, .target = 11, .lun = 0, .id = Scsi("OTHERVND", "SOMEDISK")}); },
         "check the vendor{OTHERVND} product{SOMEDISK} is not support."},
        {"vendor in other case",
         [](Testbed &tb) { return tb.AddFcDisk({.port = 12, .target = 12, .lun = 0, .id = Scsi("qmesh", "VDISK")}); },
         "check the vendor{qmesh} product{VDISK} is not support."},
        {"product in other case",
         [](Testbed &tb) { return tb.AddIscsiDisk({.session = 13, .id = Scsi("QMESH", "vdisk")}); },
         "check the vendor{QMESH} product{vdisk} is not support."},
        {"listed vendor, other product",
         [](Testbed &tb) { return tb.AddLocalDisk({.host = 1, .id = Scsi("QMESH", "NVDISK2")}); },
         "check the vendor{QMESH} product{NVDISK2} is not support."},
        {"SCSI vendor of 9 characters",
         [](Testbed &tb) { return tb.AddLocalDisk({.host = 1, .lun = 1, .id = Scsi("QMESHLABS", "VDISK")}); },
         "sprintf_s vendor{QMESHLABS} fail."},
        {"SCSI model of 17 characters",
         [](Testbed &tb) {
             return tb.AddLocalDisk({.host = 1, .lun = 2, .id = Scsi("QMESHLAB", "VDISK-0123456789X")});
         },
         "sprintf_s product{VDISK-0123456789X} fail."},
        {"hidden NVMe path device",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 6});
             return tb.AddNvmePathDevice(c, 1, {.nsIndex = 1});
         },
         "the udev device skips because hidden."},
        {"NVMe namespace under an nvme-subsystem",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 7});
             NvmeSubsystem s = tb.AddNvmeSubsystem(7);
             return tb.AddNvmeSubsystemNamespace(s, c, {.nsIndex = 1});
         },
         "the nvme udev is not indentify."},
        {"NVMe model without hyphen",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 8, .model = "QMESHNVDISK"});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1});
         },
         "the model info {QMESHNVDISK} is invalid."},
        {"NVMe vendor part of 10 characters",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 9, .model = "QMESH-LABS-NVDISK"});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1});
         },
         "strncpy_s vendor{QMESH-LABS-NVDISK} fail."},
        // The model is split before its blanks are trimmed: the product part
        // with its padding must fit 16 characters.
        {"NVMe model padded past the product's width",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 12, .model = "QMESH-NVDISK", .modelPad = 40});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1});
         },
         "strcpy_s product{QMESH-NVDISK    "},
        {"loop device", [](Testbed &tb) { return tb.AddLoop(0); },
         "get the device name{loop0} of udev device is not support."},
        {"device-mapper device", [](Testbed &tb) { return tb.AddDm(0); },
         "get the device name{dm-0} of udev device is not support."},
        {"CD-ROM", [](Testbed &tb) { return tb.AddCdrom(0); },
         "get the device name{sr0} of udev device is not support."},
    };
}

// One disk the daemon hands over, and the text the driver must receive.
struct Described {
    const char *name;
    std::function<BlockDevice(Testbed &)> make;
    const char *devInfo;
};

// Device numbers are fixed by the order of creation: sda 8:0, sdb 8:16, ...,
// and NVMe namespaces take 259:0, 259:1, ... .
std::vector<Described> DescribedDisks()
{
    return {
        {"FC disk", [](Testbed &tb) { return tb.AddFcDisk({.host = 2, .channel = 0, .port = 7, .target = 1, .lun = 3}); },
         "8:0 scsi QMESH VDISK 2:0:1:3"},
        {"iSCSI disk",
         [](Testbed &tb) { return tb.AddIscsiDisk({.host = 3, .session = 5, .channel = 0, .target = 0, .lun = 1}); },
         "8:16 scsi QMESH VDISK 3:0:0:1"},
        {"local disk", [](Testbed &tb) { return tb.AddLocalDisk({.host = 0, .channel = 1, .target = 4, .lun = 9}); },
         "8:32 scsi QMESH VDISK 0:1:4:9"},
        {"SCSI vendor and model at full width",
         [](Testbed &tb) {
             return tb.AddLocalDisk({.host = 0, .channel = 0, .target = 5, .lun = 0,
                                     .id = Scsi("QMESHLAB", "VDISK-0123456789")});
         },
         "8:48 scsi QMESHLAB VDISK-0123456789 0:0:5:0"},
        // nvme3n2: host = controller instance, channel = the namespace's own
        // cntlid (none here, so 0, whatever the controller's), target = the
        // namespace index of the name, LUN = nsid.
        {"NVMe namespace without cntlid",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 3, .cntlid = "1"});
             return tb.AddNvmeNamespace(c, {.nsIndex = 2});
         },
         "259:0 nvme QMESH NVDISK 3:0:2:2"},
        {"NVMe namespace with cntlid and another nsid",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 4});
             return tb.AddNvmeNamespace(c, {.nsIndex = 4, .nsid = "7", .cntlid = "5"});
         },
         "259:1 nvme QMESH NVDISK 4:5:4:7"},
        {"NVMe namespace without nsid, blank-padded model",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 5, .model = "QMESH-NVDISK", .modelPad = 22});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1, .nsid = ""});
         },
         "259:2 nvme QMESH NVDISK 5:0:1:0"},
        {"NVMe vendor of 8 characters",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 10, .model = "QMESHLAB-NVDISK"});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1});
         },
         "259:3 nvme QMESHLAB NVDISK 10:0:1:1"},
        {"NVMe vendor with a hyphen of its own",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 11, .model = "QM-LAB-NVDISK"});
             return tb.AddNvmeNamespace(c, {.nsIndex = 1});
         },
         "259:4 nvme QM-LAB NVDISK 11:0:1:1"},
    };
}

std::set<std::string> AddedDevNums(const DriverEmulator &drv)
{
    std::set<std::string> out;
    for (const auto &r : drv.Requests(DriverOp::Add)) {
        out.insert(r.DevNum());
    }
    return out;
}

// --- Disks the driver never hears of. --------------------------------------

TEST(ProtocolFilter, StartupScanAddsOnlyWellDescribedDisks)
{
    Lab lab({.sandbox = {.vendorConfig = kVendorConfig}});
    Testbed &tb = lab.testbed();
    BlockDevice goodFc = tb.AddFcDisk({.port = 7, .lun = 3});
    std::vector<BlockDevice> rejected;
    for (const auto &row : RejectedDisks()) {
        rejected.push_back(row.make(tb));
    }
    NvmeController ctrl = tb.AddNvmeController({.instance = 0});
    BlockDevice goodNvme = tb.AddNvmeNamespace(ctrl, {.nsIndex = 1});
    // Held by the driver only: its REMOVE follows every ADD of the scan.
    lab.driver().SetDeviceList({"8:240"});

    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, 1, 30s)) << d.Stderr();

    EXPECT_EQ(AddedDevNums(lab.driver()), (std::set<std::string>{goodFc.DevNum(), goodNvme.DevNum()}));
    auto trace = lab.TraceLog();
    for (const auto &row : RejectedDisks()) {
        EXPECT_TRUE(TraceContains(trace, row.why)) << row.name << ": no record \"" << row.why << "\"";
    }
    // A filtered NVMe device is logged twice: the reason, then the caller.
    EXPECT_EQ(TraceCount(trace, "filter not support."), 2u);
    EXPECT_TRUE(d.Running());
}

TEST(ProtocolFilter, HotAddedDisksAreFilteredAndTheDaemonServesTheNextOne)
{
    Lab lab({.sandbox = {.vendorConfig = kVendorConfig}});
    // A wake-up that reaches the handle thread while it is busy waits for
    // the next two-minute one; accelerated, that is six seconds.
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();

    Testbed &tb = lab.testbed();
    for (const auto &row : RejectedDisks()) {
        SCOPED_TRACE(row.name);
        size_t before = TraceCount(lab.TraceLog(), row.why);
        BlockDevice dev = row.make(tb);
        ASSERT_EQ(tb.Emit(dev.syspath, "add"), 1u);
        EXPECT_TRUE(WaitTraceCount(lab, row.why, before + 1, 30s)) << d.Stderr();
    }
    BlockDevice good = tb.AddFcDisk({.port = 7, .lun = 3});
    ASSERT_EQ(tb.Emit(good.syspath, "add"), 1u);
    ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, good.DevNum(), 30s)) << d.Stderr();
    EXPECT_EQ(AddedDevNums(lab.driver()), std::set<std::string>{good.DevNum()});
    EXPECT_TRUE(d.Running());
}

// --- The text of an ADD. ----------------------------------------------------

TEST(ProtocolDevInfo, StartupScanSendsTheExactTextOfEachKindOfDisk)
{
    Lab lab({.sandbox = {.vendorConfig = kVendorConfig}});
    std::vector<BlockDevice> disks;
    for (const auto &row : DescribedDisks()) {
        disks.push_back(row.make(lab.testbed()));
    }
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, disks.size(), 60s)) << d.Stderr();

    auto texts = AddTexts(lab.driver());
    auto rows = DescribedDisks();
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(texts[disks[i].DevNum()], rows[i].devInfo) << rows[i].name;
    }
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), disks.size()) << "one ADD per disk";
    // The record carries the text and its NUL, nothing more.
    for (const auto &r : lab.driver().Requests(DriverOp::Add)) {
        EXPECT_EQ(r.bufLen, r.text.size() + 1) << r.text;
    }
}

TEST(ProtocolDevInfo, HotAddSendsTheSameTexts)
{
    Lab lab({.sandbox = {.vendorConfig = kVendorConfig}});
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    for (const auto &row : DescribedDisks()) {
        SCOPED_TRACE(row.name);
        BlockDevice disk = row.make(lab.testbed());
        ASSERT_EQ(lab.testbed().Emit(disk.syspath, "add"), 1u);
        ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Add, disk.DevNum(), 30s)) << d.Stderr();
        EXPECT_EQ(AddTexts(lab.driver())[disk.DevNum()], row.devInfo);
    }
}

// --- The vendor support list as the daemon reads it. ------------------------

TEST(ProtocolVendorList, MissingFileStopsTheStart)
{
    Lab lab({.sandbox = {.vendorConfig = std::nullopt}});
    lab.testbed().AddFcDisk();
    Daemon &d = lab.Start();
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon kept running";
    EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
    EXPECT_TRUE(lab.WaitTrace("open file failed.", 10s));
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u);
    EXPECT_EQ(lab.driver().Count(DriverOp::Get), 0u) << "no scan without the list";
}

TEST(ProtocolVendorList, FileWithoutVendorsSectionSupportsNothing)
{
    Lab lab({.sandbox = {.vendorConfig = "ruler_name=r,vendor_id=QMESH,product_id=VDISK\n[Vendors]\n"
                                         "ruler_name=r,vendor_id=QMESH,product_id=VDISK\n"}});
    lab.testbed().AddFcDisk();
    lab.driver().SetDeviceList({"8:240"});
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    // The scan's remove of what only the driver holds comes after the adds.
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, 1, 30s));
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u);
    EXPECT_TRUE(lab.WaitTrace("list is NULL.", 10s));
}

TEST(ProtocolVendorList, RulesMatchExactlyAsTheFileGrammarReadsThem)
{
    struct Row {
        const char *vendor;
        const char *model;
        bool added;
        const char *why;
    };
    const std::vector<Row> rows = {
        {"EARLY", "BEFORE", false, "a rule above the [vendors] header is ignored"},
        {"VENDA", "PRODA", true, "quotes, blanks and semicolons are layout; a backslash joins two lines"},
        {"FIVE", "PAIRS", false, "a line of five pairs is dropped whole"},
        {"FOUR", "PAIRS", true, "a line of four pairs is kept"},
        {"CASE", "Mixed", true, "the rule as written"},
        {"case", "Mixed", false, "vendor compared case-sensitively"},
        {"CASE", "MIXED", false, "product compared case-sensitively"},
        {"CAS", "Mixed", false, "no prefix match on the vendor"},
        {"CASE", "Mixe", false, "no prefix match on the product"},
        {"LATER", "ALSO", true, "another section header does not end the list"},
        {"LAST", "NONL", false, "a last line without a newline is never read"},
    };
    const std::string config =
        "ruler_name=early,vendor_id=EARLY,product_id=BEFORE\n"
        "[ vendors ]\n"
        "ruler_name = \"rule_a\", vendor_id = \"VENDA\", \\\n"
        "product_id = \"PRODA\", driver = \"drv\";\n"
        "ruler_name=five,vendor_id=FIVE,product_id=PAIRS,driver=d,extra=x\n"
        "ruler_name=four,vendor_id=FOUR,product_id=PAIRS,driver=d\n"
        "\n"
        "ruler_name=case,vendor_id=CASE,product_id=Mixed\n"
        "[others]\n"
        "ruler_name=later,vendor_id=LATER,product_id=ALSO\n"
        "ruler_name=last,vendor_id=LAST,product_id=NONL";
    Lab lab({.sandbox = {.vendorConfig = config}});
    std::vector<BlockDevice> disks;
    for (size_t i = 0; i < rows.size(); ++i) {
        disks.push_back(lab.testbed().AddLocalDisk(
            {.host = 0, .target = static_cast<int>(i), .id = Scsi(rows[i].vendor, rows[i].model)}));
    }
    size_t expected = static_cast<size_t>(std::count_if(rows.begin(), rows.end(), [](const Row &r) { return r.added; }));
    // A device the driver holds and udev has not: its REMOVE comes after
    // every ADD of the scan, so it marks the end of the batch.
    lab.driver().SetDeviceList({"8:240"});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, 1, 60s)) << d.Stderr();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, expected, 10s));

    auto added = AddedDevNums(lab.driver());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(added.count(disks[i].DevNum()) == 1, rows[i].added)
            << rows[i].vendor << "/" << rows[i].model << ": " << rows[i].why;
    }
    EXPECT_TRUE(lab.WaitTrace("more than buffer length.", 10s));
}

}  // namespace
}  // namespace qmlab::test
