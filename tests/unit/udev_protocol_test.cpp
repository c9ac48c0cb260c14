// Protocol dispatch: protocol chosen by kernel name, the protocol word in
// devInfo, routing of the three operations, the layer's own context.
#include <gtest/gtest.h>

#include <cstring>

#include "support/udev_testbed.h"
#include "udev_protocol.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

TEST(ProtocolInit, OtherNamesFailAndLeaveTheNodeAlone)
{
    Testbed bed;
    for (const char *name : {"sr0", "vda", "dm-0", "loop0", "SDA", "nvm0n1", "s"}) {
        NodeHolder holder(bed.Device(AddBareBlock(bed, name)), "11:0", "11:0 ");
        holder.node.protocol = 7;
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("get the device name{" + std::string(name) + "} of udev device is not support.\n"));
        EXPECT_EQ(7u, holder.node.protocol);
        EXPECT_STREQ("11:0 ", holder.node.devInfo);
    }
}

TEST(ProtocolInit, FullDevInfoFailsAfterTheProtocolIsSet)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddBareBlock(bed, "nvme0n1")));
    const std::string filler(UDEV_DEVINFO_LEN - 5, 'x');  // "nvme " needs 6 bytes
    std::strcpy(holder.node.devInfo, filler.c_str());
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
    EXPECT_EQ(UDEV_PROTOCOL_NVME, holder.node.protocol);
    EXPECT_TRUE(log.Has("sprintf_s protocol{nvme}  to devinfo fail.\n"));
    EXPECT_EQ(filler, holder.node.devInfo);

    std::memset(holder.node.devInfo, 'x', sizeof(holder.node.devInfo));  // no terminator at all
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
}

TEST(ProtocolInit, SdFirstThenNvmeByPrefix)
{
    const struct {
        const char *name;
        uint32_t protocol;
        const char *devInfo;
    } cases[] = {{"sda", UDEV_PROTOCOL_SCSI, "8:0 scsi "},       {"sdab", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
                 {"sdfoo", UDEV_PROTOCOL_SCSI, "8:0 scsi "},     {"nvme0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "},
                 {"nvme0c0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "}};
    Testbed bed;
    for (const auto &c : cases) {
        NodeHolder holder(bed.Device(AddBareBlock(bed, c.name)), "8:0", "8:0 ");
        holder.node.protocol = 7;
        EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInit(holder.dev.get(), &holder.node)) << c.name;
        EXPECT_EQ(c.protocol, holder.node.protocol) << c.name;
        EXPECT_STREQ(c.devInfo, holder.node.devInfo) << c.name;
    }
    NodeHolder last(bed.Device(AddBareBlock(bed, "sdx")));
    std::strcpy(last.node.devInfo, std::string(UDEV_DEVINFO_LEN - 6, 'x').c_str());
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInit(last.dev.get(), &last.node));  // the word fills the last bytes
}

TEST(ProtocolRouting, EachProtocolUsesItsOwnOperations)
{
    Testbed bed;
    VendorList vendors{{"QUILL", "MESH-DISK"}, {"QUILL", "MESH1"}};
    NodeHolder scsi(bed.Device(AddScsiDisk(bed).block));
    NodeHolder nvme(bed.Device(AddNvmeDisk(bed)));
    EXPECT_STREQ("0x6000c29a1b2c3d4e5f60718293a4b5c6", UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_SCSI, scsi.dev.get()));
    EXPECT_STREQ(".0025388b91d0a3b1", UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_NVME, nvme.dev.get()));
    EXPECT_EQ(nullptr, UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_NVME, scsi.dev.get()));
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInitAddEventNode(UDEV_PROTOCOL_SCSI, scsi.dev.get(), &scsi.node));
    EXPECT_STREQ("QUILL MESH-DISK 2:0:1:3", scsi.node.devInfo);
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInitAddEventNode(UDEV_PROTOCOL_NVME, nvme.dev.get(), &nvme.node));
    EXPECT_STREQ("QUILL MESH1 3:0:2:2", nvme.node.devInfo);
}

TEST(ProtocolRouting, OnlyTheScsiFinishingStepSetsTimeOuts)
{
    Testbed bed;
    ASSERT_TRUE(UDEV_ProtocolInitHandle());
    ScsiDisk disk = AddScsiDisk(bed);
    NodeHolder holder;
    holder.node.host = 2;
    holder.node.channel = 0;
    holder.node.target = 1;
    holder.node.lun = 3;
    holder.node.transportType = UDEV_TRANSPORT_FCP;
    holder.node.transportId = 7;
    UDEV_ProtocolHandleAddFinish(UDEV_PROTOCOL_NVME, &holder.node);
    EXPECT_EQ("30", bed.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_EQ("60", bed.FirstLine(disk.scsi, "timeout"));
    UDEV_ProtocolHandleAddFinish(UDEV_PROTOCOL_SCSI, &holder.node);
    EXPECT_EQ("5", bed.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_EQ("4", bed.FirstLine(disk.portClass, "fast_io_fail_tmo"));
    EXPECT_EQ("30", bed.FirstLine(disk.scsi, "timeout"));
    UDEV_ProtocolReleaseHandle();
    EXPECT_EQ(nullptr, UDEV_ProtocolUdev());
}

}  // namespace
