// SCSI protocol handling: the SCSI parent, vendor check, host:channel:
// target:lun, the FC or iSCSI transport, the devInfo text and the WWN.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/udev_testbed.h"
#include "udev_scsi.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

const std::string SUPPORTED = VendorRule("QUILL", "MESH-DISK");

// A node as enrichment hands it over: devNum set, devInfo holding the
// device number and the protocol word.
NodeHolder ScsiNode(Testbed &bed, const ScsiDisk &disk)
{
    NodeHolder holder(bed.Device(disk.block));
    std::strcpy(holder.node.devNum, "8:32");
    std::strcpy(holder.node.devInfo, "8:32 scsi ");
    return holder;
}

// ---- failures ---------------------------------------------------------------

TEST(ScsiAddFailures, BlockDeviceWithoutScsiParent)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder(bed.Device(AddBareBlock(bed, "sdz", "65", "160")));
    ASSERT_TRUE(holder.dev);
    std::strcpy(holder.node.devNum, "65:160");
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("get device{65:160} scsi parent fail.\n"));
    EXPECT_STREQ("", holder.node.action);
}

struct VendorFailCase {
    const char *name;
    std::optional<std::string> vendor;
    std::optional<std::string> model;
    const char *log;
};

class ScsiVendorFailures : public ::testing::TestWithParam<VendorFailCase> {};

TEST_P(ScsiVendorFailures, DropTheAddBeforeAnyNumberIsWritten)
{
    const VendorFailCase &c = GetParam();
    Testbed bed;
    VendorList vendors(SUPPORTED);
    ScsiDiskSpec spec;
    spec.vendor = c.vendor;
    spec.model = c.model;
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed, spec));
    ASSERT_TRUE(holder.dev);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has(c.log)) << c.log;
    EXPECT_STREQ("8:32 scsi ", holder.node.devInfo);
    EXPECT_EQ(-1, holder.node.host);
    EXPECT_STREQ("", holder.node.action);
}

INSTANTIATE_TEST_SUITE_P(
    Vendors, ScsiVendorFailures,
    ::testing::Values(
        VendorFailCase{"NotOnList", "OTHER   ", "MESH-DISK       ", "check the vendor{OTHER} product{MESH-DISK} is not support.\n"},
        VendorFailCase{"CaseDiffers", "quill   ", "MESH-DISK       ", "check the vendor{quill} product{MESH-DISK} is not support.\n"},
        VendorFailCase{"NineCharVendor", "QUILLMESH", "MESH-DISK", "sprintf_s vendor{QUILLMESH} fail.\n"},
        VendorFailCase{"MissingVendor", std::nullopt, "MESH-DISK", "get vendor id fail.\n"},
        VendorFailCase{"MissingModel", "QUILL   ", std::nullopt, "get product id fail with vendor{QUILL   }.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ScsiAddFailures, ScsiNameThatIsNotFourNumbers)
{
    VendorList vendors(SUPPORTED);
    for (const char *name : {"2:0:1", "2:0:1:x", "a:b:c:d", "host2"}) {
        Testbed local;
        ScsiDiskSpec spec;
        spec.scsiName = name;
        NodeHolder holder = ScsiNode(local, AddScsiDisk(local, spec));
        ASSERT_TRUE(holder.dev) << name;
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("device{8:32} path{" + std::string(name) + "} analysis h:c:t:l fail.\n")) << name;
    }
}

TEST(ScsiAddFailures, DevInfoTooFullForVendorAndProduct)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed));
    // "QUILL MESH-DISK " needs 16 characters and the terminator.
    std::string filler(UDEV_DEVINFO_LEN - 16, 'x');
    std::strcpy(holder.node.devInfo, filler.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s vendor and product to devinfo for scsidev fail.\n"));
    EXPECT_EQ(filler, holder.node.devInfo);
}

TEST(ScsiAddFailures, DevInfoTooFullForHctl)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed));
    // Vendor and product fit; "2:0:1:3" then finds 6 bytes left.
    std::string filler(UDEV_DEVINFO_LEN - 16 - 6, 'x');
    std::strcpy(holder.node.devInfo, filler.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Has("sprintf_s HCTL to devinfo failed for scsi{2:0:1:3}.\n"));
    EXPECT_EQ(filler + "QUILL MESH-DISK ", holder.node.devInfo);
    EXPECT_EQ(3, holder.node.lun);  // fields already written stay
}

// ---- addresses and transports -----------------------------------------------

struct TopologyCase {
    const char *name;
    ScsiDiskSpec spec;
    const char *devInfo;
    int host, channel, target, lun;
    int transportType, transportId;
};

ScsiDiskSpec Iscsi()
{
    ScsiDiskSpec spec;
    spec.transport = Transport::ISCSI;
    spec.hostName = "host3";
    spec.portName = "session5";
    spec.targetName = "target3:0:0";
    spec.scsiName = "3:0:0:1";
    spec.blockName = "sdd";
    return spec;
}

ScsiDiskSpec Local()
{
    ScsiDiskSpec spec;
    spec.transport = Transport::LOCAL;
    spec.hostName = "host0";
    spec.targetName = "target0:0:0";
    spec.scsiName = "0:0:0:0";
    spec.blockName = "sda";
    return spec;
}

ScsiDiskSpec FcNamed(const char *rport, const char *scsiName)
{
    ScsiDiskSpec spec;
    spec.portName = rport;
    spec.scsiName = scsiName;
    return spec;
}

class ScsiTopology : public ::testing::TestWithParam<TopologyCase> {};

TEST_P(ScsiTopology, FillsAddressTransportAndDevInfo)
{
    const TopologyCase &c = GetParam();
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed, c.spec));
    ASSERT_TRUE(holder.dev);
    LogCapture log;
    ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_STREQ(c.devInfo, holder.node.devInfo);
    EXPECT_EQ(c.host, holder.node.host);
    EXPECT_EQ(c.channel, holder.node.channel);
    EXPECT_EQ(c.target, holder.node.target);
    EXPECT_EQ(c.lun, holder.node.lun);
    EXPECT_EQ(c.transportType, holder.node.transportType);
    EXPECT_EQ(c.transportId, holder.node.transportId);
    EXPECT_STREQ("add", holder.node.action);
    EXPECT_FALSE(log.Contains("scsi target fail"));
}

INSTANTIATE_TEST_SUITE_P(
    Disks, ScsiTopology,
    ::testing::Values(
        TopologyCase{"FcRemotePort", ScsiDiskSpec{}, "8:32 scsi QUILL MESH-DISK 2:0:1:3", 2, 0, 1, 3, 0, 7},
        TopologyCase{"IscsiSession", Iscsi(), "8:32 scsi QUILL MESH-DISK 3:0:0:1", 3, 0, 0, 1, 5, 5},
        TopologyCase{"LocalDisk", Local(), "8:32 scsi QUILL MESH-DISK 0:0:0:0", 0, 0, 0, 0, 15, -1},
        TopologyCase{"HexAndOctalNumbers", FcNamed("rport-2:0-7", "0x2:010:1:0x10"),
                     "8:32 scsi QUILL MESH-DISK 2:8:1:16", 2, 8, 1, 16, 0, 7},
        TopologyCase{"PortNumberIsTheThirdField", FcNamed("rport-12:3-456", "12:3:0:9"),
                     "8:32 scsi QUILL MESH-DISK 12:3:0:9", 12, 3, 0, 9, 0, 456},
        TopologyCase{"UnparsablePortIsNoTransport", FcNamed("rport-2:0", "2:0:1:3"),
                     "8:32 scsi QUILL MESH-DISK 2:0:1:3", 2, 0, 1, 3, 15, -1}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ScsiTransport, LocalDiskLogsNothingAboutItsTransport)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed, Local()));
    LogCapture log;
    ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_FALSE(log.Contains("session"));
    EXPECT_FALSE(log.Contains("rport"));
}

TEST(ScsiTransport, FoundTransportsAreLogged)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder fc = ScsiNode(bed, AddScsiDisk(bed));
    NodeHolder iscsi = ScsiNode(bed, AddScsiDisk(bed, Iscsi()));
    LogCapture log;
    ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(fc.dev.get(), &fc.node));
    ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(iscsi.dev.get(), &iscsi.node));
    EXPECT_TRUE(log.Has("SCSI target 2:0:1 -> FC rport 2:0-7.\n"));
    EXPECT_TRUE(log.Has("SCSI target session{5} in tgt name{session5}.\n"));
    EXPECT_TRUE(log.Has("get device{8:32} h:c:t:l{2:0:1:3}.\n"));
}

TEST(ScsiTransport, MissingTargetLeavesTransportUntouched)
{
    Testbed bed;
    ScsiDisk disk = AddScsiDisk(bed);
    // A block device hung straight under the SCSI host has no scsi_target.
    NodeHolder holder(bed.Device(bed.Add("block", "sdy", bed.Dir(disk.host, "block"), {},
                                         {{"DEVTYPE", "disk"}, {"MAJOR", "65"}, {"MINOR", "128"}})));
    ASSERT_TRUE(holder.dev);
    std::strcpy(holder.node.devNum, "65:128");
    holder.node.transportId = 42;
    LogCapture log;
    UDEV_ScsiInitEventNodeTgtInfo(holder.dev.get(), &holder.node);
    EXPECT_TRUE(log.Has("get device{65:128} scsi target fail.\n"));
    EXPECT_EQ(15, holder.node.transportType);
    EXPECT_EQ(42, holder.node.transportId);
}

TEST(ScsiAction, OnlyTheFirstThreeBytesAreWritten)
{
    Testbed bed;
    VendorList vendors(SUPPORTED);
    NodeHolder holder = ScsiNode(bed, AddScsiDisk(bed));
    std::strcpy(holder.node.action, "XXXXXXXX");
    ASSERT_EQ(UDEV_RET_OK, UDEV_ScsiInitAddEventNodeInfo(holder.dev.get(), &holder.node));
    EXPECT_STREQ("addXXXXX", holder.node.action);
}

// ---- WWN --------------------------------------------------------------------

TEST(ScsiWwn, MissingPropertyIsNullAndLogged)
{
    Testbed bed;
    ScsiDiskSpec spec;
    spec.wwn.reset();
    UdevDevicePtr dev = bed.Device(AddScsiDisk(bed, spec).block);
    LogCapture log;
    EXPECT_EQ(nullptr, UDEV_ScsiGetWwnByDevice(dev.get()));
    EXPECT_TRUE(log.Has("get the wwn of udev device failed.\n"));
}

TEST(ScsiWwn, PropertyIsReturnedAsItStands)
{
    Testbed bed;
    ScsiDiskSpec spec;
    spec.wwn = "0X6000C29A-odd text ";
    UdevDevicePtr dev = bed.Device(AddScsiDisk(bed, spec).block);
    EXPECT_STREQ("0X6000C29A-odd text ", UDEV_ScsiGetWwnByDevice(dev.get()));
}

}  // namespace
