// SCSI protocol handling: SCSI parent, vendor check, host:channel:target:lun,
// FC or iSCSI transport, the devInfo text and the WWN.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/udev_support.h"
#include "udev_scsi.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

// As enrichment hands the node over: device number and protocol word.
NodeHolder Node(const BlockDevice &disk)
{
    return NodeHolder(Device(disk), disk.DevNum(), disk.DevNum() + " scsi ");
}

std::string ParentOf(const std::string &syspath)
{
    return syspath.substr(0, syspath.rfind('/'));
}

// A disk of the supported identity below a SCSI device named as the kernel
// never names one, under `parent`.
BlockDevice OddDisk(Testbed &bed, const std::string &parent, const std::string &scsiName)
{
    static unsigned index = 0;
    std::string scsi = bed.AddDevice("scsi", scsiName, parent, {{"vendor", "QMESH"}, {"model", "VDISK"}},
                                     {{"DEVTYPE", "scsi_device"}});
    ++index;
    return bed.AddBlock({.name = "sdz" + std::to_string(index), .major = 65, .minor = 16 * index, .parent = scsi});
}

class ScsiTest : public ::testing::Test {
protected:
    VendorList vendors_{{"QMESH", "VDISK"}};
    Testbed bed_;
};

TEST_F(ScsiTest, RefusedDisksDropTheAddBeforeAnyNumberIsWritten)
{
    const struct {
        std::string vendor;
        bool withModel;
        std::string log;
    } cases[] = {
        {"OTHER", true, "check the vendor{OTHER} product{VDISK} is not support.\n"},
        {"QUILLMESH", true, "sprintf_s vendor{QUILLMESH} fail.\n"},
        {"QMESH", false, "get product id fail with vendor{QMESH   }.\n"},
    };
    int lun = 0;
    for (const auto &c : cases) {
        BlockDevice disk = bed_.AddFcDisk({.lun = lun++, .id = {.vendor = c.vendor}});
        if (!c.withModel) {
            bed_.RemoveAttribute(disk.scsiDevice, "model");
        }
        NodeHolder holder = Node(disk);
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        EXPECT_TRUE(log.Has(c.log)) << c.log;
        EXPECT_EQ(disk.DevNum() + " scsi ", holder.node.devInfo);
        EXPECT_EQ(-1, holder.node.host);
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST_F(ScsiTest, DiskWithoutScsiParentOrWithBadScsiNameFails)
{
    LogCapture log;
    NodeHolder orphan(Device(bed_.AddBlock({.name = "sdz", .major = 65, .minor = 160})), "65:160");
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(orphan.dev.get(), &orphan.node));
    EXPECT_TRUE(log.Has("get device{65:160} scsi parent fail.\n"));
    std::string target = ParentOf(bed_.AddFcDisk().scsiDevice);
    for (const char *name : {"2:0:1", "2:0:1:x", "a:b:c:d", "host9"}) {
        NodeHolder holder = Node(OddDisk(bed_, target, name));
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("device{" + std::string(holder.node.devNum) + "} path{" + name + "} analysis h:c:t:l fail.\n"))
            << name;
    }
}

TEST_F(ScsiTest, FullDevInfoFailsEitherAppend)
{
    NodeHolder holder = Node(bed_.AddFcDisk());
    // "QMESH VDISK " needs one byte more than its length, then "2:0:1:3" needs 8.
    const std::string ids = "QMESH VDISK ";
    const std::string noRoomForIds(UDEV_DEVINFO_LEN - ids.size(), 'x');
    const std::string noRoomForHctl(UDEV_DEVINFO_LEN - ids.size() - 7, 'x');
    std::strcpy(holder.node.devInfo, noRoomForIds.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s vendor and product to devinfo for scsidev fail.\n"));
    std::strcpy(holder.node.devInfo, noRoomForHctl.c_str());
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for scsi{2:0:1:3}.\n"));
    EXPECT_EQ(noRoomForHctl + ids, holder.node.devInfo);
}

TEST_F(ScsiTest, AddressAndTransportOfEachTopology)
{
    BlockDevice fc = bed_.AddFcDisk();  // 2:0:1:3 below rport-2:0-7
    std::string target = ParentOf(fc.scsiDevice);
    std::string host = ParentOf(ParentOf(target));
    // Target 2:0:<t> with LUN 3 below a remote port of the given name.
    auto belowRport = [&](const std::string &rport, int t) {
        std::string id = "2:0:" + std::to_string(t);
        return OddDisk(bed_, bed_.AddDevice("scsi", "target" + id, bed_.AddBareDevice(rport, host), {},
                                            {{"DEVTYPE", "scsi_target"}}),
                       id + ":3");
    };
    // HCTL by "%i" (0x and leading-zero octal count); of "rport-%d:%d-%d"
    // the third number is the port.
    const struct {
        BlockDevice disk;
        const char *hctl;
        int host, channel, target, lun, transportType, transportId;
        const char *log;  // the transport found; null: none
    } cases[] = {
        {fc, "2:0:1:3", 2, 0, 1, 3, UDEV_TRANSPORT_FCP, 7, "SCSI target 2:0:1 -> FC rport 2:0-7.\n"},
        {bed_.AddIscsiDisk(), "3:0:0:1", 3, 0, 0, 1, UDEV_TRANSPORT_ISCSI, 5, "SCSI target session{5} in tgt name{session5}.\n"},
        {bed_.AddLocalDisk(), "0:0:0:0", 0, 0, 0, 0, UDEV_TRANSPORT_UNKNOWN, -1, nullptr},
        {OddDisk(bed_, target, "0x2:010:1:0x10"), "2:8:1:16", 2, 8, 1, 16, UDEV_TRANSPORT_FCP, 7, "SCSI target 2:8:1 -> FC rport 2:0-7.\n"},
        {belowRport("rport-12:3-456", 4), "2:0:4:3", 2, 0, 4, 3, UDEV_TRANSPORT_FCP, 456, "SCSI target 2:0:4 -> FC rport 12:3-456.\n"},
        {belowRport("rport-2:0", 5), "2:0:5:3", 2, 0, 5, 3, UDEV_TRANSPORT_UNKNOWN, -1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.disk.syspath);
        NodeHolder holder = Node(c.disk);
        std::strcpy(holder.node.action, "XXXXXXXX");
        LogCapture log;
        ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
        EXPECT_EQ(c.disk.DevNum() + " scsi QMESH VDISK " + c.hctl, holder.node.devInfo);
        EXPECT_EQ((std::vector<int>{c.host, c.channel, c.target, c.lun, c.transportType, c.transportId}),
                  (std::vector<int>{holder.node.host, holder.node.channel, holder.node.target, holder.node.lun,
                                    holder.node.transportType, holder.node.transportId}));
        EXPECT_STREQ("addXXXXX", holder.node.action);  // three bytes only
        EXPECT_TRUE(log.Has("get device{" + c.disk.DevNum() + "} h:c:t:l{" + c.hctl + "}.\n"));
        EXPECT_TRUE(c.log == nullptr ? !log.Contains("rport ") && !log.Contains("session{") : log.Has(c.log));
    }
}

TEST_F(ScsiTest, DiskWithoutTargetKeepsItsTransportFields)
{
    std::string host = ParentOf(ParentOf(bed_.AddLocalDisk().scsiDevice));
    NodeHolder holder(Device(bed_.AddBlock({.name = "sdy", .major = 65, .minor = 128, .parent = host})), "65:128");
    holder.node.transportId = 42;
    LogCapture log;
    UDEV_ScsiInitEventNodeTgtInfo(holder.dev.get(), &holder.node);
    EXPECT_TRUE(log.Has("get device{65:128} scsi target fail.\n"));
    EXPECT_EQ(UDEV_TRANSPORT_UNKNOWN, holder.node.transportType);
    EXPECT_EQ(42, holder.node.transportId);
}

TEST_F(ScsiTest, WwnIsThePropertyAsItStands)
{
    NodeHolder plain = Node(bed_.AddFcDisk({.id = {.wwn = "0X6000C29A-odd text "}}));
    EXPECT_STREQ("0X6000C29A-odd text ", UDEV_ScsiGetWwnByDevice(plain.dev.get()));
    NodeHolder none = Node(bed_.AddFcDisk({.lun = 4, .id = {.wwn = ""}}));
    LogCapture log;
    EXPECT_EQ(nullptr, UDEV_ScsiGetWwnByDevice(none.dev.get()));
    EXPECT_TRUE(log.Has("get the wwn of udev device failed.\n"));
}

}  // namespace
