// udev query helpers: enumeration walks, vendor/product of SCSI and NVMe
// disks, the model split and the blank trim.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/udev_support.h"
#include "udev_query.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

struct Ids {
    char vendor[UTIL_VENDOR_LEN];
    char product[UTIL_PRODUCT_LEN];
};

TEST(TrimTrailingSpaces, CutsOnlyTrailingBlanksWithinTheSize)
{
    const char *cases[][2] = {{"ATA     ", "ATA"}, {"  lead", "  lead"}, {"tab\t", "tab\t"},
                              {"    ", ""},        {"in side ", "in side"}};
    for (const auto &c : cases) {
        char buffer[16] = {0};
        std::strcpy(buffer, c[0]);
        UTIL_TrimTrailingSpaces(buffer, sizeof(buffer));
        EXPECT_STREQ(c[1], buffer);
    }
    char unterminated[6] = {'a', ' ', ' ', ' ', 'X', 'X'};
    UTIL_TrimTrailingSpaces(unterminated, 4);
    EXPECT_EQ(0, std::memcmp("a\0\0\0XX", unterminated, 6));
    UTIL_TrimTrailingSpaces(nullptr, 8);
    UTIL_TrimTrailingSpaces(unterminated + 4, 0);
    EXPECT_EQ('X', unterminated[5]);
}

struct QueryCase {
    Opt text;  // the attribute; nullopt: missing
    int ret;
    const char *vendor;  // on success; else the expected log line
    const char *product;
};

void ExpectQuery(const QueryCase &c, int ret, const Ids &out, const LogCapture &log)
{
    ASSERT_EQ(c.ret, ret);
    if (ret == UDEV_RET_OK) {
        EXPECT_STREQ(c.vendor, out.vendor);
        EXPECT_STREQ(c.product, out.product);
    } else {
        EXPECT_TRUE(log.Has(c.vendor));
    }
}

TEST(NvmeModelSplit, SplitsAtTheLastHyphen)
{
    const QueryCase cases[] = {
        {"NOHYPHEN", UDEV_RET_FAIL, "the model info {NOHYPHEN} is invalid.\n", nullptr},
        {"ABCD-EFGH-X1", UDEV_RET_FAIL, "strncpy_s vendor{ABCD-EFGH-X1} fail.\n", nullptr},
        {"A-0123456789ABCDEFG", UDEV_RET_FAIL, "strcpy_s product{A-0123456789ABCDEFG} fail.\n", nullptr},
        {"ABCD-X1", UDEV_RET_OK, "ABCD", "X1"},
        {"ABCDEFGH-0123456789ABCDEF", UDEV_RET_OK, "ABCDEFGH", "0123456789ABCDEF"},
        {"A-B-C", UDEV_RET_OK, "A-B", "C"},
        {"-X1", UDEV_RET_OK, "", "X1"},
        {"ABCD-", UDEV_RET_OK, "ABCD", ""},
        {"AB  -X1 ", UDEV_RET_OK, "AB  ", "X1 "},  // trimming is the caller's
    };
    for (const QueryCase &c : cases) {
        SCOPED_TRACE(*c.text);
        LogCapture log;
        Ids out;
        ExpectQuery(c,
                    UTIL_NvmeParseVendorProductByModel(out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN,
                                                       c.text->c_str()),
                    out, log);
    }
    Ids out;
    EXPECT_EQ(UDEV_RET_FAIL, UTIL_NvmeParseVendorProductByModel(out.vendor, 9, out.product, 17, nullptr));
    EXPECT_EQ(UDEV_RET_FAIL, UTIL_NvmeParseVendorProductByModel(out.vendor, -1, out.product, 17, "A-B"));
}

// SCSI: the vendor and model attributes must fit their buffers, then lose
// their padding. NVMe: the controller's model, split and trimmed.
TEST(DiskVendorProduct, ScsiAttributesAndNvmeControllerModel)
{
    enum Kind { ScsiVendor, ScsiModel, NvmeModel };
    const std::vector<std::pair<Kind, QueryCase>> cases = {
        {ScsiVendor, {std::nullopt, UDEV_RET_FAIL, "get vendor id fail.\n", nullptr}},
        {ScsiVendor, {"QUILLMESH", UDEV_RET_FAIL, "sprintf_s vendor{QUILLMESH} fail.\n", nullptr}},
        {ScsiVendor, {"QUILL   ", UDEV_RET_OK, "QUILL", "VDISK"}},
        {ScsiVendor, {"HP  CO  ", UDEV_RET_OK, "HP  CO", "VDISK"}},
        {ScsiVendor, {"\x01\x7f\xfe", UDEV_RET_OK, "\x01\x7f\xfe", "VDISK"}},
        {ScsiModel, {std::nullopt, UDEV_RET_FAIL, "get product id fail with vendor{QMESH   }.\n", nullptr}},
        {ScsiModel, {"0123456789ABCDEFG", UDEV_RET_FAIL, "sprintf_s product{0123456789ABCDEFG} fail.\n", nullptr}},
        {NvmeModel, {std::nullopt, UDEV_RET_FAIL, "sprintf_s product{model} fail.\n", nullptr}},
        {NvmeModel, {"ABCD-" + std::string(36, 'P'), UDEV_RET_FAIL, "sprintf_s product{model} fail.\n", nullptr}},
        {NvmeModel, {"ABCD-EFGH-X1", UDEV_RET_FAIL, "strncpy_s vendor{ABCD-EFGH-X1} fail.\n", nullptr}},
        {NvmeModel, {"ABCD-X1", UDEV_RET_OK, "ABCD", "X1"}},
        {NvmeModel, {"QUILL   -MESH1   ", UDEV_RET_OK, "QUILL", "MESH1"}},
    };
    Testbed bed;
    int index = 0;
    for (const auto &[kind, c] : cases) {
        SCOPED_TRACE(std::to_string(kind) + " " + c.text.value_or("(missing)"));
        // The SCSI device or NVMe controller that holds the attribute.
        std::string holder;
        UdevDevicePtr dev;
        if (kind == NvmeModel) {
            qmlab::NvmeController ctrl = bed.AddNvmeController({.instance = index++, .model = c.text.value_or("")});
            holder = ctrl.syspath;
            dev = Device(bed.AddNvmeNamespace(ctrl));
        } else {
            qmlab::ScsiIdentity id;
            (kind == ScsiVendor ? id.vendor : id.model) = c.text.value_or("");
            holder = bed.AddLocalDisk({.lun = index++, .id = id}).scsiDevice;
            dev = Device(holder);
        }
        if (!c.text) {
            bed.RemoveAttribute(holder, kind == ScsiVendor ? "vendor" : "model");
        }
        LogCapture log;
        Ids out;
        int ret = kind == NvmeModel ? INTF_UTIL_GetNvmeVendorProduct(dev.get(), out.vendor, 9, out.product, 17)
                                    : INTF_UTIL_GetScsiVendorProduct(dev.get(), out.vendor, 9, out.product, 17);
        ExpectQuery(c, ret, out, log);
    }

    UdevDevicePtr scsi = Device(bed.AddLocalDisk({.lun = index}).scsiDevice);
    UdevDevicePtr orphan = Device(bed.AddBlock({.name = "nvme99n1", .major = 259, .minor = 99}));
    LogCapture log;
    Ids out;
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(nullptr, out.vendor, 9, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), nullptr, 9, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, 0, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, 9, out.product, -1));
    EXPECT_EQ(4u, log.Count("the parameter is NULL.\n"));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetNvmeVendorProduct(orphan.get(), out.vendor, 9, out.product, 17));
    EXPECT_TRUE(log.Has("get device nvme device parent fail.\n"));
}

TEST(CheckVidPidByBlkudev, RoutesByNameAndSkipsOthers)
{
    Testbed bed;
    Ids out;
    unsigned minor = 0;
    for (const char *name : {"sr0", "vda", "dm-0", "loop0"}) {
        UdevDevicePtr dev = Device(bed.AddBlock({.name = name, .major = 11, .minor = minor++}));
        EXPECT_EQ(UDEV_RET_SKIP, INTF_UTIL_CheckVidPidByBlkudev(dev.get(), out.vendor, 9, out.product, 17)) << name;
    }
    UdevDevicePtr orphan = Device(bed.AddBlock({.name = "sdq", .major = 65}));
    EXPECT_EQ(UDEV_RET_NOT_FOUND, INTF_UTIL_CheckVidPidByBlkudev(orphan.get(), out.vendor, 9, out.product, 17));
    UdevDevicePtr sd = Device(bed.AddLocalDisk());
    ASSERT_EQ(UDEV_RET_OK, INTF_UTIL_CheckVidPidByBlkudev(sd.get(), out.vendor, 9, out.product, 17));
    EXPECT_STREQ("VDISK", out.product);
    UdevDevicePtr nvme = Device(bed.AddNvmeNamespace(bed.AddNvmeController()));
    ASSERT_EQ(UDEV_RET_OK, INTF_UTIL_CheckVidPidByBlkudev(nvme.get(), out.vendor, 9, out.product, 17));
    EXPECT_STREQ("NVDISK", out.product);
}

int g_calls = 0;
int g_failAt = 0;  // 1-based call whose callback fails; 0: none
int g_okResult = UDEV_RET_OK;

int CountingCallback(struct udev_device *, void *)
{
    return (++g_calls == g_failAt) ? UDEV_RET_FAIL : g_okResult;
}

TEST(TraverseSubsysUdev, StopsOnlyOnAFailingCallback)
{
    Testbed bed;
    for (int instance : {0, 1, 2}) {
        bed.AddNvmeController({.instance = instance});
    }
    UdevPtr udev(udev_new());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(nullptr, "nvme", nullptr, CountingCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(udev.get(), nullptr, nullptr, CountingCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(udev.get(), "nvme", nullptr, nullptr));
    EXPECT_EQ(3u, log.Count("invalid parameter.\n"));
    const struct {
        int failAt, okResult, ret, calls;
    } cases[] = {
        {2, UDEV_RET_OK, UDEV_RET_FAIL, 2}, {0, UDEV_RET_SKIP, UDEV_RET_OK, 3}, {0, UDEV_RET_OK, UDEV_RET_OK, 3}};
    for (const auto &c : cases) {
        g_calls = 0;
        g_failAt = c.failAt;
        g_okResult = c.okResult;
        EXPECT_EQ(c.ret, INTF_UTIL_TraverseSubsysUdev(udev.get(), "nvme", nullptr, CountingCallback));
        EXPECT_EQ(c.calls, g_calls);
    }
}

Testbed *g_bed = nullptr;
std::vector<std::string> g_controllers;
std::vector<std::pair<std::string, bool>> g_visits;  // path, had a device

void RemovingCallback(const char *devPath, struct udev_device *dev)
{
    g_visits.emplace_back(devPath, dev != nullptr);
    if (g_visits.size() == 1) {
        g_bed->Remove(g_controllers[1]);  // vanishes between enumeration and lookup
    }
}

TEST(UdevGetDevice, VanishedDeviceReachesTheCallbackWithNull)
{
    Testbed bed;
    for (int instance : {0, 1, 2}) {
        g_controllers.push_back(bed.AddNvmeController({.instance = instance}).syspath);
    }
    g_bed = &bed;
    LogCapture log;
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_UdevGetDevice(nullptr, RemovingCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_UdevGetDevice("nvme", nullptr));
    EXPECT_EQ(UDEV_RET_OK, INTF_UTIL_UdevGetDevice("nvme", RemovingCallback));
    const decltype(g_visits) expected = {{g_controllers[0], true}, {g_controllers[1], false}, {g_controllers[2], true}};
    EXPECT_EQ(expected, g_visits);
    EXPECT_TRUE(log.Has("get device failed devPath:" + g_controllers[1] + ".\n"));
}

}  // namespace
