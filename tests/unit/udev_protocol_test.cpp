// Protocol dispatch: the choice of protocol by kernel name, the protocol
// word in devInfo, routing of the three operations, and the layer's context.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/udev_testbed.h"
#include "udev_protocol.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

void SetDevInfo(UdevEventNode &node, const std::string &text)
{
    std::memset(node.devInfo, 0, sizeof(node.devInfo));
    std::memcpy(node.devInfo, text.data(), std::min(text.size(), sizeof(node.devInfo)));
}

// ---- protocol choice --------------------------------------------------------

TEST(ProtocolInitByName, OtherDevicesFailAndLeaveTheNodeAlone)
{
    Testbed bed;
    for (const char *name : {"sr0", "vda", "dm-0", "loop0", "SDA", "nvm0n1", "s"}) {
        NodeHolder holder(bed.Device(AddBareBlock(bed, name)));
        ASSERT_TRUE(holder.dev) << name;
        holder.node.protocol = 7;
        SetDevInfo(holder.node, "11:0 ");
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node)) << name;
        EXPECT_TRUE(log.Has("get the device name{" + std::string(name) + "} of udev device is not support.\n"));
        EXPECT_EQ(7u, holder.node.protocol);
        EXPECT_STREQ("11:0 ", holder.node.devInfo);
    }
}

TEST(ProtocolInitByName, FullDevInfoFailsAfterChoosingTheProtocol)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddBareBlock(bed, "nvme0n1")));
    ASSERT_TRUE(holder.dev);
    // Room for "nvm" only: the word and its blank need five bytes.
    SetDevInfo(holder.node, std::string(UDEV_DEVINFO_LEN - 4, 'x'));
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
    EXPECT_EQ(UDEV_PROTOCOL_NVME, holder.node.protocol);
    EXPECT_TRUE(log.Has("sprintf_s protocol{nvme}  to devinfo fail.\n"));
    EXPECT_EQ(std::string(UDEV_DEVINFO_LEN - 4, 'x'), holder.node.devInfo);
}

TEST(ProtocolInitByName, UnterminatedDevInfoIsNotOverrun)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddBareBlock(bed, "sda")));
    ASSERT_TRUE(holder.dev);
    std::memset(holder.node.devInfo, 'x', sizeof(holder.node.devInfo));
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
    EXPECT_EQ(UDEV_PROTOCOL_SCSI, holder.node.protocol);
}

struct NameCase {
    const char *name;
    uint32_t protocol;
    const char *devInfo;
};

class ProtocolInitSupported : public ::testing::TestWithParam<NameCase> {};

TEST_P(ProtocolInitSupported, ChoosesByPrefixAndAppendsTheWord)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddBareBlock(bed, GetParam().name)));
    ASSERT_TRUE(holder.dev);
    holder.node.protocol = 7;
    SetDevInfo(holder.node, "8:0 ");
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
    EXPECT_EQ(GetParam().protocol, holder.node.protocol);
    EXPECT_STREQ(GetParam().devInfo, holder.node.devInfo);
}

INSTANTIATE_TEST_SUITE_P(Names, ProtocolInitSupported,
                         ::testing::Values(NameCase{"sda", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
                                           NameCase{"sdab", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
                                           NameCase{"sdfoo", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
                                           NameCase{"nvme0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "},
                                           NameCase{"nvme0c0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ProtocolInitByName, WordFitsExactlyIntoTheLastBytes)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddBareBlock(bed, "sda")));
    ASSERT_TRUE(holder.dev);
    SetDevInfo(holder.node, std::string(UDEV_DEVINFO_LEN - 6, 'x'));
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
    EXPECT_EQ(std::string(UDEV_DEVINFO_LEN - 6, 'x') + "scsi ", holder.node.devInfo);
}

// ---- routing ----------------------------------------------------------------

TEST(ProtocolRouting, WwnComesFromTheProtocolsOwnProperty)
{
    Testbed bed;
    ScsiDisk scsi = AddScsiDisk(bed);
    NvmeDisk nvme = AddNvmeDisk(bed);
    UdevDevicePtr scsiDev = bed.Device(scsi.block);
    UdevDevicePtr nvmeDev = bed.Device(nvme.block);
    ASSERT_TRUE(scsiDev);
    ASSERT_TRUE(nvmeDev);
    EXPECT_STREQ("0x6000c29a1b2c3d4e5f60718293a4b5c6", UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_SCSI, scsiDev.get()));
    EXPECT_STREQ(".0025388b91d0a3b1", UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_NVME, nvmeDev.get()));
    EXPECT_EQ(nullptr, UDEV_ProtocolGetWwnByDevice(UDEV_PROTOCOL_NVME, scsiDev.get()));
}

TEST(ProtocolRouting, AddEnrichmentFollowsTheProtocol)
{
    Testbed bed;
    VendorList vendors(VendorRule("QUILL", "MESH-DISK") + VendorRule("QUILL", "MESH1"));
    NodeHolder scsi(bed.Device(AddScsiDisk(bed).block));
    NodeHolder nvme(bed.Device(AddNvmeDisk(bed).block));
    ASSERT_TRUE(scsi.dev);
    ASSERT_TRUE(nvme.dev);
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInitAddEventNode(UDEV_PROTOCOL_SCSI, scsi.dev.get(), &scsi.node));
    EXPECT_STREQ("QUILL MESH-DISK 2:0:1:3", scsi.node.devInfo);
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInitAddEventNode(UDEV_PROTOCOL_NVME, nvme.dev.get(), &nvme.node));
    EXPECT_STREQ("QUILL MESH1 3:0:2:2", nvme.node.devInfo);
}

TEST(ProtocolRouting, OnlyTheScsiFinishingStepSetsTimeOuts)
{
    Testbed bed;
    ProtocolHandle handle;
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
}

// ---- context ----------------------------------------------------------------

TEST(ProtocolHandleLife, ContextExistsOnlyBetweenInitAndRelease)
{
    UDEV_ProtocolReleaseHandle();
    EXPECT_EQ(nullptr, UDEV_ProtocolUdev());
    ASSERT_TRUE(UDEV_ProtocolInitHandle());
    EXPECT_NE(nullptr, UDEV_ProtocolUdev());
    UDEV_ProtocolReleaseHandle();
    EXPECT_EQ(nullptr, UDEV_ProtocolUdev());
    UDEV_ProtocolReleaseHandle();
}

}  // namespace
