// Protocol choice by kernel name and the protocol word in devInfo. The
// routing of each protocol's operations shows in the devInfo texts, WWN
// filter and time-outs the lab's protocol, SAN-boot and timeout tests read.
#include <gtest/gtest.h>

#include <cstring>

#include "support/udev_support.h"
#include "udev_protocol.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

TEST(ProtocolInit, SdFirstThenNvmeByPrefixOtherNamesLeaveTheNodeAlone)
{
    const struct {
        const char *name;
        uint32_t protocol;  // 7: none set
        const char *devInfo;
    } cases[] = {
        {"sr0", 7, "8:0 "},    {"vda", 7, "8:0 "},     {"SDA", 7, "8:0 "},
        {"nvm0n1", 7, "8:0 "}, {"s", 7, "8:0 "},       {"sda", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
        {"sdab", UDEV_PROTOCOL_SCSI, "8:0 scsi "},     {"sdfoo", UDEV_PROTOCOL_SCSI, "8:0 scsi "},
        {"nvme0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "}, {"nvme0c0n1", UDEV_PROTOCOL_NVME, "8:0 nvme "},
    };
    Testbed bed;
    unsigned minor = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        NodeHolder holder(Device(bed.AddBlock({.name = c.name, .major = 8, .minor = minor++})), "8:0", "8:0 ");
        holder.node.protocol = 7;
        LogCapture log;
        bool known = c.protocol != 7;
        EXPECT_EQ(known ? UDEV_RET_OK : UDEV_RET_FAIL, UDEV_ProtocolInit(holder.dev.get(), &holder.node));
        EXPECT_EQ(c.protocol, holder.node.protocol);
        EXPECT_STREQ(c.devInfo, holder.node.devInfo);
        EXPECT_EQ(!known, log.Has("get the device name{" + std::string(c.name) + "} of udev device is not support.\n"));
    }
}

TEST(ProtocolInit, DevInfoWithoutRoomFailsAfterTheProtocolIsSet)
{
    Testbed bed;
    NodeHolder last(Device(bed.AddBlock({.name = "sdx", .major = 8})));
    std::strcpy(last.node.devInfo, std::string(UDEV_DEVINFO_LEN - 6, 'x').c_str());
    EXPECT_EQ(UDEV_RET_OK, UDEV_ProtocolInit(last.dev.get(), &last.node));  // the word fills the last bytes

    NodeHolder holder(Device(bed.AddBlock({.name = "nvme0n1", .major = 259})));
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

}  // namespace
