// NVMe protocol handling: the claim filter, vendor/product from the
// controller's model (split at its last hyphen), the address from name and
// attributes, the WWN.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "support/udev_testbed.h"
#include "udev_nvme.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

NodeHolder Node(Testbed &bed, const NvmeDiskLayout &layout = {})
{
    return NodeHolder(bed.Device(AddNvmeDisk(bed, layout)), "259:2", "259:2 nvme ");
}

TEST(NvmeFilter, ClaimsOnlyVisibleDisksUnderTheirController)
{
    const char *hidden = "the udev device skips because hidden.\n";
    const struct {
        NvmeDiskLayout layout;
        int ret;
        const char *log;  // null: nothing logged
    } cases[] = {
        {{.hidden = "1"}, UDEV_RET_FAIL, hidden},
        {{.hidden = "10"}, UDEV_RET_FAIL, hidden},
        {{.underSubsystem = true}, UDEV_RET_FAIL, "the nvme udev is not indentify.\n"},
        {{.hidden = std::nullopt}, UDEV_RET_OK, nullptr},
        {{.hidden = "\x01\xff"}, UDEV_RET_OK, nullptr},
        {{.underSubsystem = true, .devtype = std::nullopt}, UDEV_RET_OK, nullptr},  // no type: not a disk
        {{.underSubsystem = true, .devtype = "partition"}, UDEV_RET_OK, nullptr},
        {{.underSubsystem = true, .devtype = "dis"}, UDEV_RET_OK, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.layout.block + " hidden=" + c.layout.hidden.value_or("-") + " type=" + c.layout.devtype.value_or("-"));
        Testbed bed;
        UdevDevicePtr dev = bed.Device(AddNvmeDisk(bed, c.layout));
        LogCapture log;
        EXPECT_EQ(c.ret, UDEV_NvmeFilterDevice(dev.get()));
        EXPECT_EQ(c.log == nullptr ? 0u : 1u, log.Lines().size());
        EXPECT_TRUE(c.log == nullptr || log.Has(c.log));
    }
}

TEST(NvmeAdd, RefusedDisksDropTheAdd)
{
    VendorList vendors{{"QUILL", "MESH1"}};
    const struct {
        NvmeDiskLayout layout;
        std::string log;
    } cases[] = {
        {{.hidden = "1"}, " dev{259:2} filter not support.\n"},
        {{.model = "ABCD-EFGH-X1"}, "strncpy_s vendor{ABCD-EFGH-X1} fail.\n"},
        {{.model = std::nullopt}, "sprintf_s product{model} fail.\n"},
        {{.model = "QUILL-MESH2"}, "check the vendor{QUILL} product{MESH2} is not support.\n"},
    };
    for (const auto &c : cases) {
        Testbed bed;
        NodeHolder holder = Node(bed, c.layout);
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        EXPECT_TRUE(log.Has(c.log)) << c.log;
        EXPECT_STREQ("259:2 nvme ", holder.node.devInfo);
        EXPECT_EQ(-1, holder.node.host);
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST(NvmeAdd, VendorWordsStandBeforeTheNumbers)
{
    VendorList vendors{{"ABCD", "X1"}};
    Testbed bed;
    NodeHolder holder = Node(bed, {.model = "ABCD-X1", .cntlid = "1"});
    std::strcpy(holder.node.action, "XXXXX");
    ASSERT_EQ(UDEV_RET_OK, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_STREQ("259:2 nvme ABCD X1 3:1:2:2", holder.node.devInfo);
    EXPECT_STREQ("addXX", holder.node.action);
    EXPECT_EQ(UDEV_TRANSPORT_UNKNOWN, holder.node.transportType);

    std::strcpy(holder.node.devInfo, std::string(UDEV_DEVINFO_LEN - 8, 'x').c_str());  // "ABCD X1 " needs 9
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s vendor{ABCD} product{X1} to devinfo fail.\n"));
}

TEST(NvmeHctl, NumbersFromNameAndNamespaceAttributes)
{
    const struct {
        Opt nsid, cntlid;
        const char *hctl;
        int channel, lun;
    } cases[] = {
        {"2", std::nullopt, "3:0:2:2", 0, 2},
        {std::nullopt, std::nullopt, "3:0:2:0", 0, 0},
        {"abc", "x1", "3:0:2:0", 0, 0},
        {"  12abc", "+4", "3:4:2:12", 4, 12},
        {"-3", "\x01\xff", "3:0:2:-3", 0, -3},
        {"99999999999999999999", "-99999999999999999999", "3:-2147483648:2:2147483647", INT_MIN, INT_MAX},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.hctl);
        Testbed bed;
        NodeHolder holder = Node(bed, {.nsid = c.nsid, .cntlid = c.cntlid});
        ASSERT_EQ(UDEV_RET_OK, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
        EXPECT_EQ(std::string("259:2 nvme ") + c.hctl, holder.node.devInfo);
        EXPECT_EQ(3, holder.node.host);
        EXPECT_EQ(c.channel, holder.node.channel);
        EXPECT_EQ(2, holder.node.target);
        EXPECT_EQ(c.lun, holder.node.lun);
    }
}

TEST(NvmeHctl, NameWithoutTwoNumbersOrFullDevInfoFails)
{
    LogCapture log;
    for (const char *name : {"nvme0c1n1", "nvmeXn1", "nvme3", "nvme3n"}) {
        Testbed bed;
        NodeHolder holder = Node(bed, {.block = name});
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("can not achieve the hostid and channelid for nvme{" + std::string(name) + "}.\n"));
    }
    Testbed bed;
    NodeHolder holder = Node(bed);
    std::strcpy(holder.node.devInfo, std::string(UDEV_DEVINFO_LEN - 7, 'x').c_str());  // "3:0:2:2" needs 8
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for nvme{nvme3n2}.\n"));
}

TEST(NvmeWwn, TailFromTheFirstDot)
{
    const struct {
        Opt wwn;
        const char *expected;  // null: no WWN
        const char *log;       // null: nothing logged
    } cases[] = {
        {"eui.0025388b91d0a3b1", ".0025388b91d0a3b1", nullptr},
        {"nvme.1b4b-3131.2e", ".1b4b-3131.2e", nullptr},
        {"uuid.", ".", nullptr},
        {"0025388b91d0a3b1", nullptr, nullptr},
        {std::nullopt, nullptr, "get the wwn of udev device failed.\n"},
    };
    for (const auto &c : cases) {
        Testbed bed;
        UdevDevicePtr dev = bed.Device(AddNvmeDisk(bed, {.wwn = c.wwn}));
        LogCapture log;
        const char *wwn = UDEV_NvmeGetWwnByDevice(dev.get());
        EXPECT_STREQ(c.expected, wwn);
        EXPECT_EQ(c.log == nullptr ? 0u : 1u, log.Lines().size());
        EXPECT_TRUE(c.log == nullptr || log.Has(c.log));
    }
}

}  // namespace
