// NVMe protocol handling: the claim filter, vendor/product from the
// controller's model (split at its last hyphen), the address from name and
// attributes, the WWN.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "support/udev_support.h"
#include "udev_nvme.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

using qmlab::NvmeController;

// As enrichment hands the node over: device number and protocol word.
NodeHolder Node(const BlockDevice &ns)
{
    return NodeHolder(Device(ns), ns.DevNum(), ns.DevNum() + " nvme ");
}

TEST(NvmeFilter, ClaimsOnlyVisibleDisksUnderTheirController)
{
    const char *hidden = "the udev device skips because hidden.\n";
    const struct {
        bool underSubsystem;
        Opt hidden, devtype;
        int ret;
        const char *log;  // null: nothing logged
    } cases[] = {
        {false, "1", "disk", UDEV_RET_FAIL, hidden},
        {false, "10", "disk", UDEV_RET_FAIL, hidden},
        {true, "0", "disk", UDEV_RET_FAIL, "the nvme udev is not indentify.\n"},
        {false, std::nullopt, "disk", UDEV_RET_OK, nullptr},
        {false, "\x01\xff", "disk", UDEV_RET_OK, nullptr},
        {true, "0", std::nullopt, UDEV_RET_OK, nullptr},  // no type: not a disk
        {true, "0", "partition", UDEV_RET_OK, nullptr},
        {true, "0", "dis", UDEV_RET_OK, nullptr},
    };
    Testbed bed;
    NvmeController ctrl = bed.AddNvmeController({.instance = 3});
    qmlab::NvmeSubsystem subsys = bed.AddNvmeSubsystem(0);
    int nsIndex = 0;
    for (const auto &c : cases) {
        qmlab::NvmeNamespaceSpec spec{.nsIndex = ++nsIndex, .hidden = c.hidden};
        BlockDevice ns = c.underSubsystem ? bed.AddNvmeSubsystemNamespace(subsys, ctrl, spec)
                                          : bed.AddNvmeNamespace(ctrl, spec);
        c.devtype ? bed.SetProperty(ns.syspath, "DEVTYPE", *c.devtype) : bed.RemoveProperty(ns.syspath, "DEVTYPE");
        SCOPED_TRACE(ns.name + " hidden=" + c.hidden.value_or("-") + " type=" + c.devtype.value_or("-"));
        UdevDevicePtr dev = Device(ns);
        LogCapture log;
        EXPECT_EQ(c.ret, UDEV_NvmeFilterDevice(dev.get()));
        EXPECT_EQ(c.log == nullptr ? 0u : 1u, log.Lines().size());
        EXPECT_TRUE(c.log == nullptr || log.Has(c.log));
    }
}

TEST(NvmeAdd, RefusedDisksDropTheAdd)
{
    VendorList vendors{{"QMESH", "NVDISK"}};
    const struct {
        Opt model;  // of the controller
        std::string hidden;
        std::string log;  // %s: the node's devNum
    } cases[] = {
        {"QMESH-NVDISK", "1", " dev{%s} filter not support.\n"},
        {"ABCD-EFGH-X1", "0", "strncpy_s vendor{ABCD-EFGH-X1} fail.\n"},
        {std::nullopt, "0", "sprintf_s product{model} fail.\n"},
        {"QMESH-NVDISK2", "0", "check the vendor{QMESH} product{NVDISK2} is not support.\n"},
    };
    Testbed bed;
    int instance = 0;
    for (const auto &c : cases) {
        NvmeController ctrl = bed.AddNvmeController({.instance = instance++, .model = c.model.value_or("")});
        if (!c.model) {
            bed.RemoveAttribute(ctrl.syspath, "model");
        }
        NodeHolder holder = Node(bed.AddNvmeNamespace(ctrl, {.hidden = c.hidden}));
        const std::string devInfo = holder.node.devInfo;
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        char line[128];
        std::snprintf(line, sizeof(line), c.log.c_str(), holder.node.devNum);
        EXPECT_TRUE(log.Has(line)) << line;
        EXPECT_EQ(devInfo, holder.node.devInfo);
        EXPECT_EQ(-1, holder.node.host);
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST(NvmeAdd, VendorWordsStandBeforeTheNumbers)
{
    VendorList vendors{{"ABCD", "X1"}};
    Testbed bed;
    NvmeController ctrl = bed.AddNvmeController({.instance = 3, .model = "ABCD-X1"});
    NodeHolder holder = Node(bed.AddNvmeNamespace(ctrl, {.nsIndex = 2, .cntlid = "1", .devNum = {{259, 2}}}));
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
        int nsIndex;
        std::string nsid;  // "": no attribute
        Opt cntlid;
        const char *hctl;
        int channel, lun;
    } cases[] = {
        {2, "2", std::nullopt, "3:0:2:2", 0, 2},
        {3, "", std::nullopt, "3:0:3:0", 0, 0},
        {4, "abc", "x1", "3:0:4:0", 0, 0},
        {5, "  12abc", "+4", "3:4:5:12", 4, 12},
        {6, "-3", "\x01\xff", "3:0:6:-3", 0, -3},
        {7, "99999999999999999999", "-99999999999999999999", "3:-2147483648:7:2147483647", INT_MIN, INT_MAX},
    };
    Testbed bed;
    NvmeController ctrl = bed.AddNvmeController({.instance = 3});  // its own cntlid is "1"
    for (const auto &c : cases) {
        SCOPED_TRACE(c.hctl);
        NodeHolder holder = Node(bed.AddNvmeNamespace(ctrl, {.nsIndex = c.nsIndex, .nsid = c.nsid, .cntlid = c.cntlid}));
        ASSERT_EQ(UDEV_RET_OK, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
        EXPECT_EQ(std::string(holder.node.devNum) + " nvme " + c.hctl, holder.node.devInfo);
        EXPECT_EQ(3, holder.node.host);
        EXPECT_EQ(c.channel, holder.node.channel);
        EXPECT_EQ(c.nsIndex, holder.node.target);
        EXPECT_EQ(c.lun, holder.node.lun);
    }
}

TEST(NvmeHctl, NameWithoutTwoNumbersOrFullDevInfoFails)
{
    Testbed bed;
    NvmeController ctrl = bed.AddNvmeController({.instance = 3});
    LogCapture log;
    unsigned minor = 100;
    for (const char *name : {"nvme0c1n1", "nvmeXn1", "nvme3", "nvme3n"}) {
        NodeHolder holder = Node(bed.AddBlock({.name = name, .major = 259, .minor = minor++, .parent = ctrl.syspath}));
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("can not achieve the hostid and channelid for nvme{" + std::string(name) + "}.\n"));
    }
    NodeHolder holder = Node(bed.AddNvmeNamespace(ctrl, {.nsIndex = 2}));
    std::strcpy(holder.node.devInfo, std::string(UDEV_DEVINFO_LEN - 7, 'x').c_str());  // "3:0:2:2" needs 8
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_NvmeInitEventNodeHctl(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for nvme{nvme3n2}.\n"));
}

TEST(NvmeWwn, TailFromTheFirstDot)
{
    const struct {
        std::string wwn;       // "": no ID_WWN
        const char *expected;  // null: no WWN
        const char *log;       // null: nothing logged
    } cases[] = {
        {"eui.0025388b91d0a3b1", ".0025388b91d0a3b1", nullptr},
        {"nvme.1b4b-3131.2e", ".1b4b-3131.2e", nullptr},
        {"uuid.", ".", nullptr},
        {"0025388b91d0a3b1", nullptr, nullptr},
        {"", nullptr, "get the wwn of udev device failed.\n"},
    };
    Testbed bed;
    NvmeController ctrl = bed.AddNvmeController();
    int nsIndex = 0;
    for (const auto &c : cases) {
        UdevDevicePtr dev = Device(bed.AddNvmeNamespace(ctrl, {.nsIndex = ++nsIndex, .wwn = c.wwn}));
        LogCapture log;
        const char *wwn = UDEV_NvmeGetWwnByDevice(dev.get());
        EXPECT_STREQ(c.expected, wwn);
        EXPECT_EQ(c.log == nullptr ? 0u : 1u, log.Lines().size());
        EXPECT_TRUE(c.log == nullptr || log.Has(c.log));
    }
}

}  // namespace
