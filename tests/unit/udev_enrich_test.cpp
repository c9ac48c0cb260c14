// Event enrichment and filtering: device number, action, the SAN-boot WWN
// and its filter, and the product's block major from /proc/devices. The
// texts of whole events are proven end to end (lab protocol and SAN-boot
// tests). The WWN and the major are process-wide: each test starts without
// them (a process of its own).
#include <gtest/gtest.h>

#include <cstring>

#include "support/udev_support.h"
#include "udev_enrich.h"
#include "udev_lvm.h"
#include "udev_sanboot.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

const std::string BOOT_WWN = "0x6000c29a1b2c3d4e5f60718293a4b5c6";

class EnrichTest : public ::testing::Test {};

TEST_F(EnrichTest, SanbootWwnIsPrefixedHexOfLength34)
{
    const struct {
        std::string wwn;
        int len;
        bool accepted;
    } cases[] = {
        // Refusals first: an accepted WWN stays stored.
        {"6000c29a1b2c3d4e5f60718293a4b5c6", 32, false},    {"0x6000c29a1b2c3d4e5f60718293a4b5cg", 34, false},
        {"0X6000c29a1b2c3d4e5f60718293a4b5c6", 34, false},  {BOOT_WWN, 0, false},
        {BOOT_WWN, -1, false},                              {BOOT_WWN + "7", 35, false},
        {"0x6000c29a", 34, false},                          {BOOT_WWN, 34, true},
        {"0x6000C29A1B2C3D4E5F60718293A4B5C6", 34, true},   {"0xABCDEFabcdef01234567890123456789", 34, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.wwn + " " + std::to_string(c.len));
        EXPECT_EQ(c.accepted, UDEV_SetSanbootWwn(c.wwn.c_str(), c.len));
        EXPECT_EQ(!c.accepted, UDEV_FilterDeviceByWwn("0x0"));  // a stored WWN filters every other one
    }
    EXPECT_FALSE(UDEV_SetSanbootWwn(nullptr, 34));
}

TEST_F(EnrichTest, FilterComparesExactlyWithTheStoredWwn)
{
    EXPECT_TRUE(UDEV_FilterDeviceByWwn("anything"));
    ASSERT_TRUE(UDEV_SetSanbootWwn(BOOT_WWN.c_str(), 34));
    LogCapture log;
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(nullptr));
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(BOOT_WWN.c_str()));
    EXPECT_FALSE(UDEV_FilterDeviceByWwn("0x6000C29A1B2C3D4E5F60718293A4B5C6"));
    EXPECT_FALSE(UDEV_FilterDeviceByWwn(".0025388b91d0a3b1"));
    EXPECT_TRUE(log.Has("specific the device of wwn{" + BOOT_WWN +
                        "} to take over, but current wwn {.0025388b91d0a3b1} to filter.\n"));
}

TEST_F(EnrichTest, DeviceNumberFromMajorAndMinor)
{
    const struct {
        Opt major, minor;
        const char *result;  // devNum, or the expected log line on failure
    } cases[] = {
        {std::nullopt, "16", "get device major fail.\n"},
        {"8", std::nullopt, "get device minor fail.\n"},
        {std::string(30, '9'), "16", "get device major fail.\n"},  // libudev refuses what is no device number
        {"eight", "16", "get device major fail.\n"},
        {"8", "16", "8:16"},
        {"4095", "1048575", "4095:1048575"},
    };
    Testbed bed;
    unsigned index = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        std::string disk = bed.AddBlock({.name = qmlab::SdName(index), .major = 8, .minor = 16 * index}).syspath;
        ++index;
        for (const auto &[key, value] : {std::pair{"MAJOR", c.major}, std::pair{"MINOR", c.minor}}) {
            value ? bed.SetProperty(disk, key, *value) : bed.RemoveProperty(disk, key);
        }
        NodeHolder holder(Device(disk));
        LogCapture log;
        if (std::strchr(c.result, '\n') != nullptr) {
            EXPECT_EQ(UDEV_RET_FAIL, UDEV_InitDevt(holder.dev.get(), &holder.node));
            EXPECT_TRUE(log.Has(c.result));
        } else {
            EXPECT_EQ(UDEV_RET_OK, UDEV_InitDevt(holder.dev.get(), &holder.node));
            EXPECT_STREQ(c.result, holder.node.devNum);
            EXPECT_EQ(std::string(c.result) + " ", holder.node.devInfo);
        }
    }
}

TEST_F(EnrichTest, EventsAreDroppedForActionDeviceOrNumber)
{
    Testbed bed;
    std::string sd = bed.AddFcDisk().syspath;
    std::string noMinor = bed.AddLocalDisk().syspath;
    bed.RemoveProperty(noMinor, "MINOR");
    const struct {
        std::string path;
        const char *action;  // null: a device not from an event
        const char *log;
    } cases[] = {
        {sd, "move", "udev action{move} is not support.\n"},
        {sd, nullptr, "get udev action fail.\n"},
        {noMinor, "add", "get device minor fail.\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log);
        NodeHolder holder(c.action == nullptr ? Device(c.path) : Event(bed, c.path, c.action));
        ASSERT_TRUE(holder.dev);
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_EnrichAndFilterEventNode(&holder.node));
        EXPECT_TRUE(log.Has(c.log));
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST_F(EnrichTest, MajorIsAskedAgainUntilFoundThenCachedCut)
{
    FakeProcDevices proc;
    proc.Set("252 quillmesh_x\n253 xquillmesh\n254 quillmesh2\n");
    LogCapture log;
    ASSERT_NE(nullptr, UDEV_GetVlunMajorFromFile());
    EXPECT_STREQ("", UDEV_GetVlunMajorFromFile());
    EXPECT_EQ(2, proc.Runs());
    EXPECT_EQ(2u, log.Count("get major{} form /proc/devices.\n"));
    proc.Set("250\tquillmesh\n");
    EXPECT_STREQ("250", UDEV_GetVlunMajorFromFile());
    proc.Set("240 quillmesh\n");
    EXPECT_STREQ("250", UDEV_GetVlunMajorFromFile());
    EXPECT_EQ(3, proc.Runs());
}

TEST_F(EnrichTest, MajorTooLongForTheCacheIsCut)
{
    FakeProcDevices proc;
    proc.Set(std::string(100, '7') + " quillmesh\n");
    const char *major = UDEV_GetVlunMajorFromFile();
    ASSERT_NE(nullptr, major);
    EXPECT_EQ(std::string(UDEV_MAJOR_LEN - 1, '7'), major);
}

}  // namespace
