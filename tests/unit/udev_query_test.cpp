// udev query helpers: enumeration walks, SCSI and NVMe vendor/product
// reading, the model split and the blank trim.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/udev_testbed.h"
#include "udev_query.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

struct VendorProduct {
    char vendor[UTIL_VENDOR_LEN];
    char product[UTIL_PRODUCT_LEN];
};

// Poisoned buffers show whether a failed query left usable text behind.
VendorProduct Poisoned()
{
    VendorProduct out;
    std::memset(&out, 'Z', sizeof(out));
    return out;
}

// ---- blank trim -----------------------------------------------------------

struct TrimCase {
    const char *input;
    const char *expected;
};

class TrimTrailingSpaces : public ::testing::TestWithParam<TrimCase> {};

TEST_P(TrimTrailingSpaces, CutsOnlyTrailingBlanks)
{
    char buffer[32] = {0};
    std::strcpy(buffer, GetParam().input);
    UTIL_TrimTrailingSpaces(buffer, sizeof(buffer));
    EXPECT_STREQ(GetParam().expected, buffer);
}

INSTANTIATE_TEST_SUITE_P(Texts, TrimTrailingSpaces,
                         ::testing::Values(TrimCase{"ATA     ", "ATA"}, TrimCase{"  lead", "  lead"},
                                           TrimCase{"tab\t", "tab\t"}, TrimCase{"nl\n", "nl\n"},
                                           TrimCase{"    ", ""}, TrimCase{"", ""},
                                           TrimCase{"in side ", "in side"}));

TEST(TrimTrailingSpacesBounds, NullAndNonPositiveSizeAreLeftAlone)
{
    UTIL_TrimTrailingSpaces(nullptr, 8);
    char text[] = "ab  ";
    UTIL_TrimTrailingSpaces(text, 0);
    UTIL_TrimTrailingSpaces(text, -5);
    EXPECT_STREQ("ab  ", text);
}

TEST(TrimTrailingSpacesBounds, UnterminatedTextIsTrimmedWithinItsSize)
{
    char text[6] = {'a', 'b', ' ', ' ', 'X', 'X'};
    UTIL_TrimTrailingSpaces(text, 4);
    EXPECT_EQ('b', text[1]);
    EXPECT_EQ('\0', text[2]);
    EXPECT_EQ('\0', text[3]);
    EXPECT_EQ('X', text[4]);
}

// ---- model split ----------------------------------------------------------

struct ModelCase {
    const char *model;
    int result;
    const char *vendor;
    const char *product;
    const char *log;
};

class NvmeModelSplit : public ::testing::TestWithParam<ModelCase> {};

TEST_P(NvmeModelSplit, SplitsAtLastHyphen)
{
    const ModelCase &c = GetParam();
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(c.result, UTIL_NvmeParseVendorProductByModel(out.vendor, UTIL_VENDOR_LEN, out.product,
                                                           UTIL_PRODUCT_LEN, c.model));
    if (c.result == UDEV_RET_OK) {
        EXPECT_STREQ(c.vendor, out.vendor);
        EXPECT_STREQ(c.product, out.product);
    }
    if (c.log != nullptr) {
        EXPECT_TRUE(log.Has(c.log)) << c.log;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, NvmeModelSplit,
    ::testing::Values(ModelCase{"NOHYPHEN", UDEV_RET_FAIL, nullptr, nullptr, "the model info {NOHYPHEN} is invalid.\n"},
                      ModelCase{"", UDEV_RET_FAIL, nullptr, nullptr, "the model info {} is invalid.\n"},
                      ModelCase{"ABCD-EFGH-X1", UDEV_RET_FAIL, nullptr, nullptr,
                                "strncpy_s vendor{ABCD-EFGH-X1} fail.\n"},
                      ModelCase{"ABCD-0123456789ABCDEFG", UDEV_RET_FAIL, nullptr, nullptr,
                                "strcpy_s product{ABCD-0123456789ABCDEFG} fail.\n"}));

INSTANTIATE_TEST_SUITE_P(
    Splits, NvmeModelSplit,
    ::testing::Values(ModelCase{"ABCD-X1", UDEV_RET_OK, "ABCD", "X1", nullptr},
                      ModelCase{"ABCDEFGH-0123456789ABCDEF", UDEV_RET_OK, "ABCDEFGH", "0123456789ABCDEF", nullptr},
                      ModelCase{"A-B-C", UDEV_RET_OK, "A-B", "C", nullptr},
                      ModelCase{"-X1", UDEV_RET_OK, "", "X1", nullptr},
                      ModelCase{"ABCD-", UDEV_RET_OK, "ABCD", "", nullptr},
                      ModelCase{"AB  -X1  ", UDEV_RET_OK, "AB  ", "X1  ", nullptr}));

TEST(NvmeModelSplitArgs, NullModelFailsWithoutReadingIt)
{
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(UDEV_RET_FAIL,
              UTIL_NvmeParseVendorProductByModel(out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN, nullptr));
    EXPECT_TRUE(log.Has("the model info {} is invalid.\n"));
}

TEST(NvmeModelSplitArgs, NonPositiveSizesFail)
{
    VendorProduct out = Poisoned();
    EXPECT_EQ(UDEV_RET_FAIL, UTIL_NvmeParseVendorProductByModel(out.vendor, 0, out.product, UTIL_PRODUCT_LEN, "A-B"));
    EXPECT_EQ(UDEV_RET_FAIL, UTIL_NvmeParseVendorProductByModel(out.vendor, UTIL_VENDOR_LEN, out.product, -1, "A-B"));
}

// ---- SCSI vendor/product ----------------------------------------------------

struct ScsiQueryCase {
    const char *name;
    std::optional<std::string> vendor;
    std::optional<std::string> model;
    int result;
    const char *expectVendor;
    const char *expectProduct;
    const char *log;
};

class ScsiVendorProduct : public ::testing::TestWithParam<ScsiQueryCase> {};

TEST_P(ScsiVendorProduct, ReadsFitsAndTrims)
{
    const ScsiQueryCase &c = GetParam();
    Testbed bed;
    ScsiDiskSpec spec;
    spec.vendor = c.vendor;
    spec.model = c.model;
    ScsiDisk disk = AddScsiDisk(bed, spec);
    UdevDevicePtr scsi = bed.Device(disk.scsi);
    ASSERT_TRUE(scsi);
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(c.result,
              INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    if (c.result == UDEV_RET_OK) {
        EXPECT_STREQ(c.expectVendor, out.vendor);
        EXPECT_STREQ(c.expectProduct, out.product);
    }
    if (c.log != nullptr) {
        EXPECT_TRUE(log.Has(c.log)) << c.log;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, ScsiVendorProduct,
    ::testing::Values(
        ScsiQueryCase{"NoVendor", std::nullopt, "MESH", UDEV_RET_FAIL, nullptr, nullptr, "get vendor id fail.\n"},
        ScsiQueryCase{"NineCharVendor", "QUILLMESH", "MESH", UDEV_RET_FAIL, nullptr, nullptr,
                      "sprintf_s vendor{QUILLMESH} fail.\n"},
        ScsiQueryCase{"LongVendor", std::string(300, 'V'), "MESH", UDEV_RET_FAIL, nullptr, nullptr, nullptr},
        ScsiQueryCase{"NoModel", "QUILL   ", std::nullopt, UDEV_RET_FAIL, nullptr, nullptr,
                      "get product id fail with vendor{QUILL   }.\n"},
        ScsiQueryCase{"SeventeenCharModel", "QUILL", "0123456789ABCDEFG", UDEV_RET_FAIL, nullptr, nullptr,
                      "sprintf_s product{0123456789ABCDEFG} fail.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Reads, ScsiVendorProduct,
    ::testing::Values(
        ScsiQueryCase{"PaddedToFullWidth", "QUILL   ", "MESH-DISK       ", UDEV_RET_OK, "QUILL", "MESH-DISK", nullptr},
        ScsiQueryCase{"EightAndSixteen", "ABCDEFGH", "0123456789ABCDEF", UDEV_RET_OK, "ABCDEFGH", "0123456789ABCDEF",
                      nullptr},
        ScsiQueryCase{"InnerBlanksKept", "HP  CO  ", "A B             ", UDEV_RET_OK, "HP  CO", "A B", nullptr},
        ScsiQueryCase{"BinaryBytes", "\x01\x7f\xfe", "\xff\x80", UDEV_RET_OK, "\x01\x7f\xfe", "\xff\x80", nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ScsiVendorProductArgs, MissingArgumentsFailWithOneMessage)
{
    Testbed bed;
    UdevDevicePtr scsi = bed.Device(AddScsiDisk(bed).scsi);
    ASSERT_TRUE(scsi);
    VendorProduct out = Poisoned();
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(nullptr, out.vendor, 9, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), nullptr, 9, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, 9, nullptr, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, 0, out.product, 17));
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_GetScsiVendorProduct(scsi.get(), out.vendor, 9, out.product, -1));
    EXPECT_EQ(5u, log.Count("the parameter is NULL.\n"));
}

// ---- NVMe vendor/product ----------------------------------------------------

struct NvmeQueryCase {
    const char *name;
    std::optional<std::string> model;
    int result;
    const char *expectVendor;
    const char *expectProduct;
    const char *log;
};

class NvmeVendorProduct : public ::testing::TestWithParam<NvmeQueryCase> {};

TEST_P(NvmeVendorProduct, ReadsControllerModel)
{
    const NvmeQueryCase &c = GetParam();
    Testbed bed;
    NvmeDiskSpec spec;
    spec.model = c.model;
    UdevDevicePtr ns = bed.Device(AddNvmeDisk(bed, spec).block);
    ASSERT_TRUE(ns);
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(c.result,
              INTF_UTIL_GetNvmeVendorProduct(ns.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    if (c.result == UDEV_RET_OK) {
        EXPECT_STREQ(c.expectVendor, out.vendor);
        EXPECT_STREQ(c.expectProduct, out.product);
    }
    if (c.log != nullptr) {
        EXPECT_TRUE(log.Has(c.log)) << c.log;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, NvmeVendorProduct,
    ::testing::Values(
        NvmeQueryCase{"NoModel", std::nullopt, UDEV_RET_FAIL, nullptr, nullptr, "sprintf_s product{model} fail.\n"},
        NvmeQueryCase{"FortyOneChars", "ABCD-" + std::string(36, 'P'), UDEV_RET_FAIL, nullptr, nullptr,
                      "sprintf_s product{model} fail.\n"},
        // Forty characters fit the model buffer and fail only in the split.
        NvmeQueryCase{"FortyChars", "ABCD-" + std::string(35, 'P'), UDEV_RET_FAIL, nullptr, nullptr,
                      "strcpy_s product{ABCD-PPPPPPPPPPPPPPPPPPPPPPPPPPPPPPPPPPP} fail.\n"},
        NvmeQueryCase{"VendorTooLong", "ABCD-EFGH-X1", UDEV_RET_FAIL, nullptr, nullptr,
                      "strncpy_s vendor{ABCD-EFGH-X1} fail.\n"},
        NvmeQueryCase{"NoHyphen", "QUILLMESH1", UDEV_RET_FAIL, nullptr, nullptr,
                      "the model info {QUILLMESH1} is invalid.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Reads, NvmeVendorProduct,
    ::testing::Values(NvmeQueryCase{"Plain", "ABCD-X1", UDEV_RET_OK, "ABCD", "X1", nullptr},
                      NvmeQueryCase{"BlanksTrimmedAfterSplit", "QUILL   -MESH1   ", UDEV_RET_OK, "QUILL", "MESH1",
                                    nullptr},
                      NvmeQueryCase{"HyphenatedVendor", "AB-CD-MESH1", UDEV_RET_OK, "AB-CD", "MESH1", nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(NvmeVendorProductTopology, NamespaceWithoutControllerFails)
{
    Testbed bed;
    UdevDevicePtr orphan = bed.Device(AddBareBlock(bed, "nvme9n1", "259", "9"));
    ASSERT_TRUE(orphan);
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(UDEV_RET_FAIL,
              INTF_UTIL_GetNvmeVendorProduct(orphan.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    EXPECT_TRUE(log.Has("get device nvme device parent fail.\n"));
}

// ---- by block device --------------------------------------------------------

TEST(CheckVidPidByBlkudev, OtherDeviceNamesAreSkipped)
{
    Testbed bed;
    for (const char *name : {"sr0", "vda", "dm-0", "loop0"}) {
        UdevDevicePtr dev = bed.Device(AddBareBlock(bed, name));
        ASSERT_TRUE(dev) << name;
        VendorProduct out = Poisoned();
        EXPECT_EQ(UDEV_RET_SKIP,
                  INTF_UTIL_CheckVidPidByBlkudev(dev.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN))
            << name;
    }
}

TEST(CheckVidPidByBlkudev, ScsiDiskWithoutScsiDeviceParentIsNotFound)
{
    Testbed bed;
    UdevDevicePtr dev = bed.Device(AddBareBlock(bed, "sdq", "65", "0"));
    ASSERT_TRUE(dev);
    LogCapture log;
    VendorProduct out = Poisoned();
    EXPECT_EQ(UDEV_RET_NOT_FOUND,
              INTF_UTIL_CheckVidPidByBlkudev(dev.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    EXPECT_TRUE(log.Has("get device scsi_device parent fail.\n"));
}

TEST(CheckVidPidByBlkudev, RoutesByNamePrefix)
{
    Testbed bed;
    UdevDevicePtr sd = bed.Device(AddScsiDisk(bed).block);
    UdevDevicePtr nvme = bed.Device(AddNvmeDisk(bed).block);
    ASSERT_TRUE(sd);
    ASSERT_TRUE(nvme);
    VendorProduct out = Poisoned();
    EXPECT_EQ(UDEV_RET_OK,
              INTF_UTIL_CheckVidPidByBlkudev(sd.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    EXPECT_STREQ("QUILL", out.vendor);
    EXPECT_STREQ("MESH-DISK", out.product);
    EXPECT_EQ(UDEV_RET_OK,
              INTF_UTIL_CheckVidPidByBlkudev(nvme.get(), out.vendor, UTIL_VENDOR_LEN, out.product, UTIL_PRODUCT_LEN));
    EXPECT_STREQ("QUILL", out.vendor);
    EXPECT_STREQ("MESH1", out.product);
}

// ---- enumeration ------------------------------------------------------------

struct WalkState {
    std::vector<std::string> seen;
    int failAt = -1;  // index of the device whose callback fails
    int skipAll = 0;
};

int RecordingCallback(struct udev_device *dev, void *ctx)
{
    auto *state = static_cast<WalkState *>(ctx);
    state->seen.emplace_back(udev_device_get_sysname(dev));
    if (static_cast<int>(state->seen.size()) - 1 == state->failAt) {
        return UDEV_RET_FAIL;
    }
    return state->skipAll ? UDEV_RET_SKIP : UDEV_RET_OK;
}

void AddThreeNvmeControllers(Testbed &bed)
{
    for (const char *name : {"nvme0", "nvme1", "nvme2"}) {
        bed.Add("nvme", name, "");
    }
}

TEST(TraverseSubsysUdev, MissingArgumentsAreInvalid)
{
    Testbed bed;
    UdevPtr udev(udev_new());
    WalkState state;
    LogCapture log;
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(nullptr, "nvme", &state, RecordingCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(udev.get(), nullptr, &state, RecordingCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_TraverseSubsysUdev(udev.get(), "nvme", &state, nullptr));
    EXPECT_EQ(3u, log.Count("invalid parameter.\n"));
    EXPECT_TRUE(state.seen.empty());
}

TEST(TraverseSubsysUdev, FailingCallbackStopsTheWalkAndIsReturned)
{
    Testbed bed;
    AddThreeNvmeControllers(bed);
    UdevPtr udev(udev_new());
    WalkState state;
    state.failAt = 1;
    EXPECT_EQ(UDEV_RET_FAIL, INTF_UTIL_TraverseSubsysUdev(udev.get(), "nvme", &state, RecordingCallback));
    EXPECT_EQ(2u, state.seen.size());
}

TEST(TraverseSubsysUdev, SkipAndOkVisitEveryDevice)
{
    Testbed bed;
    AddThreeNvmeControllers(bed);
    bed.Add("block", "sda", "");
    UdevPtr udev(udev_new());
    for (int skip : {0, 1}) {
        WalkState state;
        state.skipAll = skip;
        EXPECT_EQ(UDEV_RET_OK, INTF_UTIL_TraverseSubsysUdev(udev.get(), "nvme", &state, RecordingCallback));
        EXPECT_EQ((std::vector<std::string>{"nvme0", "nvme1", "nvme2"}), state.seen);
    }
}

TEST(TraverseSubsysUdev, EmptySubsystemIsOk)
{
    Testbed bed;
    UdevPtr udev(udev_new());
    WalkState state;
    EXPECT_EQ(UDEV_RET_OK, INTF_UTIL_TraverseSubsysUdev(udev.get(), "no_such_subsystem", &state, RecordingCallback));
    EXPECT_TRUE(state.seen.empty());
}

// For-each callbacks carry no context of their own.
struct ForEachState {
    Testbed *bed = nullptr;
    std::string removeOnFirst;
    std::vector<std::pair<std::string, bool>> calls;  // path, had a device
};
ForEachState g_forEach;

void ForEachCallback(const char *devPath, struct udev_device *dev)
{
    g_forEach.calls.emplace_back(devPath, dev != nullptr);
    if (g_forEach.calls.size() == 1 && !g_forEach.removeOnFirst.empty()) {
        g_forEach.bed->Remove(g_forEach.removeOnFirst);
    }
}

TEST(UdevGetDevice, MissingArgumentsAreInvalid)
{
    LogCapture log;
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_UdevGetDevice(nullptr, ForEachCallback));
    EXPECT_EQ(UDEV_RET_INVALID_PARAM, INTF_UTIL_UdevGetDevice("block", nullptr));
    EXPECT_EQ(2u, log.Count("invalid parameter.\n"));
}

TEST(UdevGetDevice, VanishedDeviceStillReachesTheCallbackWithNull)
{
    Testbed bed;
    AddThreeNvmeControllers(bed);
    g_forEach = ForEachState{&bed, "/sys/devices/nvme1", {}};
    LogCapture log;
    EXPECT_EQ(UDEV_RET_OK, INTF_UTIL_UdevGetDevice("nvme", ForEachCallback));
    ASSERT_EQ(3u, g_forEach.calls.size());
    EXPECT_TRUE(g_forEach.calls[0].second);
    EXPECT_EQ("/sys/devices/nvme1", g_forEach.calls[1].first);
    EXPECT_FALSE(g_forEach.calls[1].second);
    EXPECT_TRUE(g_forEach.calls[2].second);
    EXPECT_TRUE(log.Has("get device failed devPath:/sys/devices/nvme1.\n"));
    g_forEach = ForEachState{};
}

}  // namespace
