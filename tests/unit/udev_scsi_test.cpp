// SCSI protocol handling: SCSI parent, vendor check, host:channel:target:lun,
// FC or iSCSI transport, the devInfo text and the WWN.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/udev_testbed.h"
#include "udev_scsi.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

// As enrichment hands the node over: device number and protocol word.
NodeHolder Node(Testbed &bed, const ScsiDiskLayout &layout = {})
{
    return NodeHolder(bed.Device(AddScsiDisk(bed, layout).block), "8:32", "8:32 scsi ");
}

class ScsiTest : public ::testing::Test {
protected:
    VendorList vendors_{{"QUILL", "MESH-DISK"}};
};

TEST_F(ScsiTest, RefusedDisksDropTheAddBeforeAnyNumberIsWritten)
{
    const struct {
        ScsiDiskLayout layout;
        std::string log;
    } cases[] = {
        {{.vendor = "OTHER   "}, "check the vendor{OTHER} product{MESH-DISK} is not support.\n"},
        {{.vendor = "QUILLMESH"}, "sprintf_s vendor{QUILLMESH} fail.\n"},
        {{.model = std::nullopt}, "get product id fail with vendor{QUILL   }.\n"},
    };
    for (const auto &c : cases) {
        Testbed bed;
        NodeHolder holder = Node(bed, c.layout);
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        EXPECT_TRUE(log.Has(c.log)) << c.log;
        EXPECT_STREQ("8:32 scsi ", holder.node.devInfo);
        EXPECT_EQ(-1, holder.node.host);
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST_F(ScsiTest, DiskWithoutScsiParentOrWithBadScsiNameFails)
{
    LogCapture log;
    {
        Testbed bed;
        NodeHolder orphan(bed.Device(AddBareBlock(bed, "sdz")), "65:160");
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(orphan.dev.get(), &orphan.node));
        EXPECT_TRUE(log.Has("get device{65:160} scsi parent fail.\n"));
    }
    for (const char *name : {"2:0:1", "2:0:1:x", "a:b:c:d", "host9"}) {
        Testbed bed;
        NodeHolder holder = Node(bed, {.scsi = name});
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("device{8:32} path{" + std::string(name) + "} analysis h:c:t:l fail.\n")) << name;
    }
}

TEST_F(ScsiTest, FullDevInfoFailsEitherAppend)
{
    Testbed bed;
    NodeHolder holder = Node(bed);
    // "QUILL MESH-DISK " needs 17 bytes, then "2:0:1:3" needs 8.
    const std::string noRoomForIds(UDEV_DEVINFO_LEN - 16, 'x');
    const std::string noRoomForHctl(UDEV_DEVINFO_LEN - 16 - 7, 'x');
    std::strcpy(holder.node.devInfo, noRoomForIds.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s vendor and product to devinfo for scsidev fail.\n"));
    std::strcpy(holder.node.devInfo, noRoomForHctl.c_str());
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for scsi{2:0:1:3}.\n"));
    EXPECT_EQ(noRoomForHctl + "QUILL MESH-DISK ", holder.node.devInfo);
}

TEST_F(ScsiTest, AddressAndTransportOfEachTopology)
{
    // HCTL by "%i" (0x and leading-zero octal count); of "rport-%d:%d-%d"
    // the third number is the port.
    const struct {
        ScsiDiskLayout layout;
        const char *hctl;
        int host, channel, target, lun, transportType, transportId;
        const char *log;  // the transport found; null: none
    } cases[] = {
        {{}, "2:0:1:3", 2, 0, 1, 3, UDEV_TRANSPORT_FCP, 7, "SCSI target 2:0:1 -> FC rport 2:0-7.\n"},
        {IscsiLayout(), "3:0:0:1", 3, 0, 0, 1, UDEV_TRANSPORT_ISCSI, 5, "SCSI target session{5} in tgt name{session5}.\n"},
        {LocalLayout(), "0:0:0:0", 0, 0, 0, 0, UDEV_TRANSPORT_UNKNOWN, -1, nullptr},
        {{.scsi = "0x2:010:1:0x10"}, "2:8:1:16", 2, 8, 1, 16, UDEV_TRANSPORT_FCP, 7, "SCSI target 2:8:1 -> FC rport 2:0-7.\n"},
        {{.port = "rport-12:3-456"}, "2:0:1:3", 2, 0, 1, 3, UDEV_TRANSPORT_FCP, 456, "SCSI target 2:0:1 -> FC rport 12:3-456.\n"},
        {{.port = "rport-2:0"}, "2:0:1:3", 2, 0, 1, 3, UDEV_TRANSPORT_UNKNOWN, -1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.layout.port + " " + c.layout.scsi);
        Testbed bed;
        NodeHolder holder = Node(bed, c.layout);
        std::strcpy(holder.node.action, "XXXXXXXX");
        LogCapture log;
        ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        EXPECT_EQ(std::string("8:32 scsi QUILL MESH-DISK ") + c.hctl, holder.node.devInfo);
        EXPECT_EQ((std::vector<int>{c.host, c.channel, c.target, c.lun, c.transportType, c.transportId}),
                  (std::vector<int>{holder.node.host, holder.node.channel, holder.node.target, holder.node.lun,
                                    holder.node.transportType, holder.node.transportId}));
        EXPECT_STREQ("addXXXXX", holder.node.action);  // three bytes only
        EXPECT_TRUE(log.Has(std::string("get device{8:32} h:c:t:l{") + c.hctl + "}.\n"));
        EXPECT_TRUE(c.log == nullptr ? !log.Contains("rport ") && !log.Contains("session{") : log.Has(c.log));
    }
}

TEST_F(ScsiTest, DiskWithoutTargetKeepsItsTransportFields)
{
    Testbed bed;
    std::string host = bed.Add("scsi_host", "host9", "");
    NodeHolder holder(bed.Device(bed.Add("block", "sdy", bed.Dir(host, "block"), {},
                                           {{"DEVTYPE", "disk"}, {"MAJOR", "65"}, {"MINOR", "128"}})),
                      "65:128");
    holder.node.transportId = 42;
    LogCapture log;
    UDEV_ScsiInitEventNodeTgtInfo(holder.dev.get(), &holder.node);
    EXPECT_TRUE(log.Has("get device{65:128} scsi target fail.\n"));
    EXPECT_EQ(UDEV_TRANSPORT_UNKNOWN, holder.node.transportType);
    EXPECT_EQ(42, holder.node.transportId);
}

TEST_F(ScsiTest, WwnIsThePropertyAsItStands)
{
    {
        Testbed bed;
        NodeHolder plain = Node(bed, {.wwn = "0X6000C29A-odd text "});
        EXPECT_STREQ("0X6000C29A-odd text ", UDEV_ScsiGetWwnByDevice(plain.dev.get()));
    }
    Testbed bed;
    NodeHolder none = Node(bed, {.wwn = std::nullopt});
    LogCapture log;
    EXPECT_EQ(nullptr, UDEV_ScsiGetWwnByDevice(none.dev.get()));
    EXPECT_TRUE(log.Has("get the wwn of udev device failed.\n"));
}

}  // namespace
