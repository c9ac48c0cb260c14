// NVMe protocol handling: the claim filter, vendor/product from the
// controller's model, the address from name and attributes, and the WWN.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/udev_testbed.h"
#include "udev_nvme.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

const std::string SUPPORTED = VendorRule("QUILL", "MESH1") + VendorRule("ABCD", "X1");

NodeHolder NvmeNode(Testbed &bed, const NvmeDiskSpec &spec = {})
{
    NodeHolder holder(bed.Device(AddNvmeDisk(bed, spec).block));
    std::strcpy(holder.node.devNum, "259:2");
    std::strcpy(holder.node.devInfo, "259:2 nvme ");
    return holder;
}

// ---- claim filter -----------------------------------------------------------

struct FilterCase {
    const char *name;
    NvmeDiskSpec spec;
    int result;
    const char *log;
};

NvmeDiskSpec Hidden(const char *value)
{
    NvmeDiskSpec spec;
    spec.hidden = value;
    return spec;
}

NvmeDiskSpec UnderSubsystem()
{
    NvmeDiskSpec spec;
    spec.underSubsystem = true;
    spec.blockName = "nvme0n1";
    return spec;
}

NvmeDiskSpec PathDevice()
{
    NvmeDiskSpec spec;
    spec.controllerName = "nvme0";
    spec.blockName = "nvme0c1n1";
    spec.hidden = "1";
    return spec;
}

NvmeDiskSpec Devtype(std::optional<std::string> devtype, bool underSubsystem)
{
    NvmeDiskSpec spec;
    spec.devtype = std::move(devtype);
    spec.underSubsystem = underSubsystem;
    return spec;
}

class NvmeFilter : public ::testing::TestWithParam<FilterCase> {};

TEST_P(NvmeFilter, ClaimsOnlyVisibleDisksUnderTheirController)
{
    const FilterCase &c = GetParam();
    Testbed bed;
    UdevDevicePtr dev = bed.Device(AddNvmeDisk(bed, c.spec).block);
    ASSERT_TRUE(dev);
    LogCapture log;
    EXPECT_EQ(c.result, UDEV_NvmeFilterDevice(dev.get()));
    if (c.log != nullptr) {
        EXPECT_TRUE(log.Has(c.log)) << c.log;
    } else {
        EXPECT_TRUE(log.Lines().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Filtered, NvmeFilter,
    ::testing::Values(
        FilterCase{"HiddenOne", Hidden("1"), UDEV_RET_FAIL, "the udev device skips because hidden.\n"},
        FilterCase{"HiddenStartsWithOne", Hidden("10"), UDEV_RET_FAIL, "the udev device skips because hidden.\n"},
        FilterCase{"PathDevice", PathDevice(), UDEV_RET_FAIL, "the udev device skips because hidden.\n"},
        FilterCase{"BelowNvmeSubsystem", UnderSubsystem(), UDEV_RET_FAIL, "the nvme udev is not indentify.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Claimed, NvmeFilter,
    ::testing::Values(FilterCase{"Visible", Hidden("0"), UDEV_RET_OK, nullptr},
                      FilterCase{"NoHiddenAttribute", NvmeDiskSpec{.hidden = std::nullopt}, UDEV_RET_OK, nullptr},
                      FilterCase{"HiddenEmpty", Hidden(""), UDEV_RET_OK, nullptr},
                      FilterCase{"HiddenBinary", Hidden("\x01\xff"), UDEV_RET_OK, nullptr},
                      FilterCase{"NoDevtypeBelowSubsystem", Devtype(std::nullopt, true), UDEV_RET_OK, nullptr},
                      FilterCase{"PartitionBelowSubsystem", Devtype("partition", true), UDEV_RET_OK, nullptr},
                      FilterCase{"ShortDevtypeBelowSubsystem", Devtype("dis", true), UDEV_RET_OK, nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(NvmeAddFailures, FilteredDeviceIsLoggedTwice)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = NvmeNode(bed, Hidden("1"));
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("the udev device skips because hidden.\n"));
    EXPECT_TRUE(log.Has(" dev{259:2} filter not support.\n"));
    EXPECT_STREQ("259:2 nvme ", holder.node.devInfo);
    EXPECT_STREQ("", holder.node.action);
}

// ---- vendor and product -------------------------------------------------------

struct ModelCase {
    const char *name;
    std::optional<std::string> model;
    const char *log;
};

class NvmeModelFailures : public ::testing::TestWithParam<ModelCase> {};

TEST_P(NvmeModelFailures, DropTheAdd)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NvmeDiskSpec spec;
    spec.model = GetParam().model;
    NodeHolder holder = NvmeNode(bed, spec);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has(GetParam().log)) << GetParam().log;
    EXPECT_STREQ("259:2 nvme ", holder.node.devInfo);
    EXPECT_EQ(-1, holder.node.host);
}

INSTANTIATE_TEST_SUITE_P(
    Models, NvmeModelFailures,
    ::testing::Values(ModelCase{"VendorTooLong", "ABCD-EFGH-X1", "strncpy_s vendor{ABCD-EFGH-X1} fail.\n"},
                      ModelCase{"Missing", std::nullopt, "sprintf_s product{model} fail.\n"},
                      ModelCase{"NoHyphen", "QUILLMESH1", "the model info {QUILLMESH1} is invalid.\n"},
                      ModelCase{"OverLong", std::string(4000, 'M') + "-X", "sprintf_s product{model} fail.\n"},
                      ModelCase{"NotOnList", "QUILL-MESH2", "check the vendor{QUILL} product{MESH2} is not support.\n"},
                      ModelCase{"EmptyVendor", "-X1", "check the vendor{} product{X1} is not support.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(NvmeManufacturer, DevInfoTooFullForVendorAndProduct)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = NvmeNode(bed);
    std::string filler(UDEV_DEVINFO_LEN - 12, 'x');  // "QUILL MESH1 " needs 13 bytes
    std::strcpy(holder.node.devInfo, filler.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeManufacturer(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s vendor{QUILL} product{MESH1} to devinfo fail.\n"));
}

// ---- address ----------------------------------------------------------------

struct HctlCase {
    const char *name;
    NvmeDiskSpec spec;
    const char *devInfoTail;
    int host, channel, target, lun;
};

NvmeDiskSpec Attrs(std::optional<std::string> nsid, std::optional<std::string> cntlid)
{
    NvmeDiskSpec spec;
    spec.nsid = std::move(nsid);
    spec.cntlid = std::move(cntlid);
    return spec;
}

class NvmeHctl : public ::testing::TestWithParam<HctlCase> {};

TEST_P(NvmeHctl, NumbersFromNameAndNamespaceAttributes)
{
    const HctlCase &c = GetParam();
    Testbed bed;
    NodeHolder holder = NvmeNode(bed, c.spec);
    ASSERT_TRUE(holder.dev);
    ASSERT_EQ(UDEV_RET_OK, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
    EXPECT_EQ(std::string("259:2 nvme ") + c.devInfoTail, holder.node.devInfo);
    EXPECT_EQ(c.host, holder.node.host);
    EXPECT_EQ(c.channel, holder.node.channel);
    EXPECT_EQ(c.target, holder.node.target);
    EXPECT_EQ(c.lun, holder.node.lun);
}

INSTANTIATE_TEST_SUITE_P(
    Namespaces, NvmeHctl,
    ::testing::Values(HctlCase{"NsidNoCntlid", Attrs("2", std::nullopt), "3:0:2:2", 3, 0, 2, 2},
                      HctlCase{"Both", Attrs("7", "5"), "3:5:2:7", 3, 5, 2, 7},
                      HctlCase{"NeitherAttribute", Attrs(std::nullopt, std::nullopt), "3:0:2:0", 3, 0, 2, 0},
                      HctlCase{"NotANumber", Attrs("abc", "x1"), "3:0:2:0", 3, 0, 2, 0},
                      HctlCase{"LeadingDigitsCount", Attrs("  12abc", "+4"), "3:4:2:12", 3, 4, 2, 12},
                      HctlCase{"Negative", Attrs("-3", "-0"), "3:0:2:-3", 3, 0, 2, -3},
                      HctlCase{"Overflow", Attrs("99999999999999999999", "-99999999999999999999"),
                               "3:-2147483648:2:2147483647", 3, INT_MIN, 2, INT_MAX},
                      HctlCase{"Binary", Attrs("\x01\xff", "\x7f"), "3:0:2:0", 3, 0, 2, 0}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(NvmeHctlFailures, NameWithoutTwoNumbers)
{
    for (const char *name : {"nvme0c1n1", "nvmeXn1", "nvme3", "nvme3n"}) {
        Testbed bed;
        NvmeDiskSpec spec;
        spec.blockName = name;
        NodeHolder holder = NvmeNode(bed, spec);
        ASSERT_TRUE(holder.dev) << name;
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("can not achieve the hostid and channelid for nvme{" + std::string(name) + "}.\n"));
    }
}

TEST(NvmeHctlFailures, DevInfoTooFull)
{
    Testbed bed;
    NodeHolder holder = NvmeNode(bed);
    std::memset(holder.node.devInfo, 'x', sizeof(holder.node.devInfo) - 7);  // "3:0:2:2" needs 8
    holder.node.devInfo[sizeof(holder.node.devInfo) - 7] = '\0';
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for nvme{nvme3n2}.\n"));
}

// ---- whole add ----------------------------------------------------------------

TEST(NvmeAdd, VendorWordsStandBeforeTheNumbers)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NvmeDiskSpec spec;
    spec.model = "ABCD-X1";
    spec.cntlid = "1";
    NodeHolder holder = NvmeNode(bed, spec);
    std::strcpy(holder.node.action, "XXXXX");
    ASSERT_EQ(UDEV_RET_OK, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_STREQ("259:2 nvme ABCD X1 3:1:2:2", holder.node.devInfo);
    EXPECT_STREQ("addXX", holder.node.action);
    EXPECT_EQ(15, holder.node.transportType);
    EXPECT_EQ(-1, holder.node.transportId);
}

TEST(NvmeAdd, FinishingStepChangesNothing)
{
    NodeHolder holder;
    holder.node.host = 3;
    UdevEventNode before = holder.node;
    UDEV_NvmeHandleAddFinish(&holder.node);
    EXPECT_EQ(0, std::memcmp(&before, &holder.node, sizeof(before)));
}

// ---- WWN --------------------------------------------------------------------

TEST(NvmeWwn, MissingPropertyIsNullAndLogged)
{
    Testbed bed;
    UdevDevicePtr dev = bed.Device(AddNvmeDisk(bed, NvmeDiskSpec{.wwn = std::nullopt}).block);
    LogCapture log;
    EXPECT_EQ(nullptr, UDEV_NvmeGetWwnByDevice(dev.get()));
    EXPECT_TRUE(log.Has("get the wwn of udev device failed.\n"));
}

struct WwnCase {
    const char *wwn;
    const char *expected;  // null: no WWN
};

class NvmeWwnTail : public ::testing::TestWithParam<WwnCase> {};

TEST_P(NvmeWwnTail, TailFromTheFirstDot)
{
    Testbed bed;
    UdevDevicePtr dev = bed.Device(AddNvmeDisk(bed, NvmeDiskSpec{.wwn = GetParam().wwn}).block);
    LogCapture log;
    const char *wwn = UDEV_NvmeGetWwnByDevice(dev.get());
    if (GetParam().expected == nullptr) {
        EXPECT_EQ(nullptr, wwn);
        EXPECT_TRUE(log.Lines().empty());
    } else {
        EXPECT_STREQ(GetParam().expected, wwn);
    }
}

INSTANTIATE_TEST_SUITE_P(Ids, NvmeWwnTail,
                         ::testing::Values(WwnCase{"eui.0025388b91d0a3b1", ".0025388b91d0a3b1"},
                                           WwnCase{"nvme.1b4b-3131.2e", ".1b4b-3131.2e"},
                                           WwnCase{"uuid.", "."}, WwnCase{".x", ".x"},
                                           WwnCase{"0025388b91d0a3b1", nullptr}));

}  // namespace
