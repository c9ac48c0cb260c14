// Event enrichment and filtering: device number, action, the SAN-boot WWN
// and its filter, and the product's block major from /proc/devices.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <sys/stat.h>

#include "support/udev_testbed.h"
#include "udev_enrich.h"
#include "udev_protocol.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

const char *const BOOT_WWN = "0x6000c29a1b2c3d4e5f60718293a4b5c6";

class EnrichTest : public ::testing::Test {
protected:
    void SetUp() override { UDEV_ResetEnrichForTest(); }
    void TearDown() override { UDEV_ResetEnrichForTest(); }
};

// ---- SAN-boot WWN -------------------------------------------------------------

struct WwnCase {
    const char *name;
    std::string wwn;
    int len;
    bool accepted;
};

class SanbootWwn : public EnrichTest, public ::testing::WithParamInterface<WwnCase> {};

TEST_P(SanbootWwn, AcceptsOnlyPrefixedHexOfLength34)
{
    const WwnCase &c = GetParam();
    EXPECT_EQ(c.accepted, UDEV_SetSanbootWwn(c.wwn.c_str(), c.len));
    // A stored WWN filters every other one; a refused one filters nothing.
    EXPECT_EQ(!c.accepted, UDEV_FilterDeviceByWwn("0xffffffffffffffffffffffffffffffff"));
    if (c.accepted) {
        EXPECT_TRUE(UDEV_FilterDeviceByWwn(c.wwn.c_str()));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Refused, SanbootWwn,
    ::testing::Values(WwnCase{"NoPrefix32", "6000c29a1b2c3d4e5f60718293a4b5c6", 32, false},
                      WwnCase{"NonHexDigit", "0x6000c29a1b2c3d4e5f60718293a4b5cg", 34, false},
                      WwnCase{"UpperCaseX", "0X6000c29a1b2c3d4e5f60718293a4b5c6", 34, false},
                      WwnCase{"LengthBelowOne", BOOT_WWN, 0, false}, WwnCase{"NegativeLength", BOOT_WWN, -1, false},
                      WwnCase{"Length35", "0x6000c29a1b2c3d4e5f60718293a4b5c67", 35, false},
                      WwnCase{"ShortTextClaims34", "0x6000c29a", 34, false},
                      WwnCase{"InnerBlank", "0x6000c29a1b2c3d4e 5f60718293a4b5c6", 34, false}),
    [](const auto &info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(Accepted, SanbootWwn,
                         ::testing::Values(WwnCase{"LowerHex", BOOT_WWN, 34, true},
                                           WwnCase{"UpperHex", "0x6000C29A1B2C3D4E5F60718293A4B5C6", 34, true},
                                           WwnCase{"MixedHex", "0xABCDEFabcdef01234567890123456789", 34, true}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(EnrichTest, NullWwnIsRefused)
{
    EXPECT_FALSE(UDEV_SetSanbootWwn(nullptr, 34));
}

TEST_F(EnrichTest, FilterTakesEverythingWhileNoWwnIsStored)
{
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(nullptr));
    EXPECT_TRUE(UDEV_FilterDeviceByWwn("anything"));
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(""));
}

TEST_F(EnrichTest, FilterWithStoredWwnIsExactAndCaseSensitive)
{
    ASSERT_TRUE(UDEV_SetSanbootWwn(BOOT_WWN, 34));
    LogCapture log;
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(nullptr));
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(BOOT_WWN));
    EXPECT_FALSE(UDEV_FilterDeviceByWwn("0x6000C29A1B2C3D4E5F60718293A4B5C6"));
    EXPECT_FALSE(UDEV_FilterDeviceByWwn(".0025388b91d0a3b1"));
    EXPECT_TRUE(log.Has(std::string("specific the device of wwn{") + BOOT_WWN +
                        "} to take over, but current wwn {.0025388b91d0a3b1} to filter.\n"));
}

// ---- device number ------------------------------------------------------------

struct DevtCase {
    const char *name;
    std::optional<std::string> major;
    std::optional<std::string> minor;
    const char *log;  // null: success
    const char *devNum;
};

class InitDevt : public EnrichTest, public ::testing::WithParamInterface<DevtCase> {};

TEST_P(InitDevt, WritesDevNumAndFirstDevInfoField)
{
    const DevtCase &c = GetParam();
    Testbed bed;
    ScsiDiskSpec spec;
    spec.major = c.major;
    spec.minor = c.minor;
    NodeHolder holder(bed.Device(AddScsiDisk(bed, spec).block));
    ASSERT_TRUE(holder.dev);
    LogCapture log;
    int ret = UDEV_InitDevt(holder.dev.get(), &holder.node);
    if (c.log != nullptr) {
        EXPECT_EQ(UDEV_RET_FAIL, ret);
        EXPECT_TRUE(log.Has(c.log)) << c.log;
        return;
    }
    EXPECT_EQ(UDEV_RET_OK, ret);
    EXPECT_STREQ(c.devNum, holder.node.devNum);
    EXPECT_EQ(std::string(c.devNum) + " ", holder.node.devInfo);
}

// libudev itself refuses a device number that is no number or out of range,
// so a devNum can never outgrow its 32 bytes through it.
INSTANTIATE_TEST_SUITE_P(
    Failures, InitDevt,
    ::testing::Values(DevtCase{"NoMajor", std::nullopt, "16", "get device major fail.\n", nullptr},
                      DevtCase{"NoMinor", "8", std::nullopt, "get device minor fail.\n", nullptr},
                      DevtCase{"MajorOutOfRange", std::string(30, '9'), "16", "get device major fail.\n", nullptr},
                      DevtCase{"MajorNotANumber", "eight", "16", "get device major fail.\n", nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(Numbers, InitDevt,
                         ::testing::Values(DevtCase{"Plain", "8", "16", nullptr, "8:16"},
                                           DevtCase{"Widest", "4095", "1048575", nullptr, "4095:1048575"}),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- remove and change ----------------------------------------------------------

TEST_F(EnrichTest, RemoveWritesOnlyTheAction)
{
    NodeHolder holder;
    std::strcpy(holder.node.devNum, "8:16");
    EXPECT_EQ(UDEV_RET_OK, UDEV_InitRemoveEventNode(&holder.node));
    EXPECT_STREQ("remove", holder.node.action);
    EXPECT_STREQ("8:16", holder.node.devNum);
    EXPECT_STREQ("", holder.node.devInfo);
}

TEST_F(EnrichTest, ChangeOfOtherDevicesIsDropped)
{
    Testbed bed;
    for (const char *name : {"dm-3", "loop0", "sr0", "vda"}) {
        NodeHolder holder(bed.Device(AddBareBlock(bed, name, "253", "3")));
        ASSERT_TRUE(holder.dev) << name;
        std::strcpy(holder.node.devNum, "253:3");
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_InitChangeEventNode(&holder.node)) << name;
        EXPECT_TRUE(log.Has("filter change event{253:3}.\n"));
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST_F(EnrichTest, ChangeOfScsiAndNvmeDisksIsKept)
{
    Testbed bed;
    for (const char *name : {"sdb", "nvme0n1"}) {
        NodeHolder holder(bed.Device(AddBareBlock(bed, name, "8", "16")));
        ASSERT_TRUE(holder.dev) << name;
        EXPECT_EQ(UDEV_RET_OK, UDEV_InitChangeEventNode(&holder.node)) << name;
        EXPECT_STREQ("change", holder.node.action);
    }
}

// ---- add with the SAN-boot filter ---------------------------------------------------

class InitAddEventNode : public EnrichTest {
protected:
    VendorList vendors_{VendorRule("QUILL", "MESH-DISK") + VendorRule("QUILL", "MESH1")};
};

TEST_F(InitAddEventNode, OtherWwnIsDroppedWhileBootWwnIsSet)
{
    ASSERT_TRUE(UDEV_SetSanbootWwn("0xffffffffffffffffffffffffffffffff", 34));
    Testbed bed;
    NodeHolder holder(bed.Device(AddScsiDisk(bed).block));
    holder.node.protocol = UDEV_PROTOCOL_SCSI;
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_InitAddEventNode(holder.dev.get(), &holder.node));
    EXPECT_TRUE(log.Contains("to take over, but current wwn {0x6000c29a1b2c3d4e5f60718293a4b5c6} to filter"));
    EXPECT_STREQ("", holder.node.action);
}

TEST_F(InitAddEventNode, DottedNvmeWwnNeverMatchesTheBootWwn)
{
    ASSERT_TRUE(UDEV_SetSanbootWwn(BOOT_WWN, 34));
    Testbed bed;
    NodeHolder holder(bed.Device(AddNvmeDisk(bed).block));
    holder.node.protocol = UDEV_PROTOCOL_NVME;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_InitAddEventNode(holder.dev.get(), &holder.node));
}

TEST_F(InitAddEventNode, BootDiskAndDisksWithoutWwnAreTaken)
{
    ASSERT_TRUE(UDEV_SetSanbootWwn(BOOT_WWN, 34));
    Testbed bed;
    NodeHolder boot(bed.Device(AddScsiDisk(bed).block));
    ScsiDiskSpec noWwn;
    noWwn.hostName = "host4";
    noWwn.portName = "rport-4:0-1";
    noWwn.targetName = "target4:0:0";
    noWwn.scsiName = "4:0:0:0";
    noWwn.blockName = "sde";
    noWwn.wwn.reset();
    NodeHolder plain(bed.Device(AddScsiDisk(bed, noWwn).block));
    NvmeDiskSpec nvmeNoDot;
    nvmeNoDot.wwn = "0025388b91d0a3b1";
    NodeHolder nvme(bed.Device(AddNvmeDisk(bed, nvmeNoDot).block));
    nvme.node.protocol = UDEV_PROTOCOL_NVME;
    EXPECT_EQ(UDEV_RET_OK, UDEV_InitAddEventNode(boot.dev.get(), &boot.node));
    EXPECT_EQ(UDEV_RET_OK, UDEV_InitAddEventNode(plain.dev.get(), &plain.node));
    EXPECT_EQ(UDEV_RET_OK, UDEV_InitAddEventNode(nvme.dev.get(), &nvme.node));
    EXPECT_STREQ("add", plain.node.action);
}

// ---- whole enrichment -------------------------------------------------------------

class EnrichAndFilter : public InitAddEventNode {};

TEST_F(EnrichAndFilter, UnsupportedActionsAreDropped)
{
    Testbed bed;
    ScsiDisk disk = AddScsiDisk(bed);
    for (const char *action : {"move", "bind", "online"}) {
        NodeHolder holder(bed.Event(disk.block, action));
        ASSERT_TRUE(holder.dev) << action;
        LogCapture log;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_EnrichAndFilterEventNode(&holder.node)) << action;
        EXPECT_TRUE(log.Has("udev action{" + std::string(action) + "} is not support.\n"));
    }
}

TEST_F(EnrichAndFilter, DeviceWithoutActionIsDropped)
{
    Testbed bed;
    NodeHolder holder(bed.Device(AddScsiDisk(bed).block));
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_EnrichAndFilterEventNode(&holder.node));
    EXPECT_TRUE(log.Has("get udev action fail.\n"));
}

TEST_F(EnrichAndFilter, UnsupportedDeviceIsDroppedWhateverItsAction)
{
    Testbed bed;
    std::string sr0 = AddBareBlock(bed, "sr0");
    for (const char *action : {"add", "remove", "change"}) {
        NodeHolder holder(bed.Event(sr0, action));
        ASSERT_TRUE(holder.dev) << action;
        EXPECT_EQ(UDEV_RET_FAIL, UDEV_EnrichAndFilterEventNode(&holder.node)) << action;
        EXPECT_STREQ("", holder.node.action);
    }
}

TEST_F(EnrichAndFilter, DeviceWithoutMinorIsDropped)
{
    Testbed bed;
    ScsiDiskSpec spec;
    spec.minor.reset();
    NodeHolder holder(bed.Event(AddScsiDisk(bed, spec).block, "add"));
    ASSERT_TRUE(holder.dev);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_EnrichAndFilterEventNode(&holder.node));
    EXPECT_TRUE(log.Has("get device minor fail.\n"));
}

TEST_F(EnrichAndFilter, RetriedAndDevicelessNodesPassUntouched)
{
    Testbed bed;
    NodeHolder retried(bed.Event(AddBareBlock(bed, "sr0"), "add"));
    ASSERT_TRUE(retried.dev);
    retried.node.isRetry = 1;
    NodeHolder scanned;
    EXPECT_EQ(UDEV_RET_OK, UDEV_EnrichAndFilterEventNode(&retried.node));
    EXPECT_EQ(UDEV_RET_OK, UDEV_EnrichAndFilterEventNode(&scanned.node));
    EXPECT_STREQ("", retried.node.devNum);
    EXPECT_STREQ("", retried.node.devInfo);
}

struct ActionCase {
    const char *action;
    const char *devInfo;
};

class EnrichActions : public EnrichAndFilter, public ::testing::WithParamInterface<ActionCase> {};

TEST_P(EnrichActions, FillsTheNodeForItsAction)
{
    Testbed bed;
    NodeHolder holder(bed.Event(AddScsiDisk(bed).block, GetParam().action));
    ASSERT_TRUE(holder.dev);
    EXPECT_EQ(UDEV_RET_OK, UDEV_EnrichAndFilterEventNode(&holder.node));
    EXPECT_STREQ(GetParam().action, holder.node.action);
    EXPECT_STREQ("8:32", holder.node.devNum);
    EXPECT_STREQ(GetParam().devInfo, holder.node.devInfo);
    EXPECT_EQ(UDEV_PROTOCOL_SCSI, holder.node.protocol);
}

INSTANTIATE_TEST_SUITE_P(Actions, EnrichActions,
                         ::testing::Values(ActionCase{"add", "8:32 scsi QUILL MESH-DISK 2:0:1:3"},
                                           ActionCase{"remove", "8:32 scsi "},
                                           ActionCase{"change", "8:32 scsi "}),
                         [](const auto &info) { return std::string(info.param.action); });

TEST_F(EnrichAndFilter, NvmeAddIsEnrichedEndToEnd)
{
    Testbed bed;
    NodeHolder holder(bed.Event(AddNvmeDisk(bed).block, "add"));
    ASSERT_TRUE(holder.dev);
    EXPECT_EQ(UDEV_RET_OK, UDEV_EnrichAndFilterEventNode(&holder.node));
    EXPECT_STREQ("259:2 nvme QUILL MESH1 3:0:2:2", holder.node.devInfo);
    EXPECT_EQ(UDEV_PROTOCOL_NVME, holder.node.protocol);
}

TEST_F(EnrichAndFilter, RemoveAndChangeAreNeverWwnFiltered)
{
    ASSERT_TRUE(UDEV_SetSanbootWwn("0xffffffffffffffffffffffffffffffff", 34));
    Testbed bed;
    std::string block = AddScsiDisk(bed).block;
    for (const char *action : {"remove", "change"}) {
        NodeHolder holder(bed.Event(block, action));
        ASSERT_TRUE(holder.dev);
        EXPECT_EQ(UDEV_RET_OK, UDEV_EnrichAndFilterEventNode(&holder.node)) << action;
    }
}

// ---- driver major ----------------------------------------------------------------

// Puts a fake `cat` first on PATH, so the pipeline reads a /proc/devices of
// the test's making and every run of the command is counted.
class FakeProcDevices {
public:
    FakeProcDevices() : oldPath_(std::getenv("PATH") ? std::getenv("PATH") : "")
    {
        dir_.Write("cat", "#!/bin/sh\necho run >> '" + dir_.Path() + "/runs'\nexec /bin/cat '" + dir_.Path() +
                              "/devices'\n");
        std::string cat = dir_.Path() + "/cat";
        chmod(cat.c_str(), 0755);
        SetDevices("");
        setenv("PATH", (dir_.Path() + ":" + oldPath_).c_str(), 1);
    }
    ~FakeProcDevices() { setenv("PATH", oldPath_.c_str(), 1); }

    void SetDevices(const std::string &text) { dir_.Write("devices", text); }
    int Runs() const
    {
        std::ifstream in(dir_.Path() + "/runs");
        int count = 0;
        for (std::string line; std::getline(in, line);) {
            ++count;
        }
        return count;
    }

private:
    TempDir dir_;
    std::string oldPath_;
};

const char *const DEVICES_HEAD = "Character devices:\n  1 mem\n\nBlock devices:\n  8 sd\n259 blkext\n";

TEST_F(EnrichTest, MajorStaysEmptyAndIsAskedAgainWhileTheDriverIsAbsent)
{
    FakeProcDevices proc;
    proc.SetDevices(std::string(DEVICES_HEAD) + "252 quillmesh_x\n253 xquillmesh\n254 quillmesh2\n");
    LogCapture log;
    const char *first = UDEV_GetVlunMajorFromFile();
    ASSERT_NE(nullptr, first);
    EXPECT_STREQ("", first);
    EXPECT_STREQ("", UDEV_GetVlunMajorFromFile());
    EXPECT_EQ(2, proc.Runs());
    EXPECT_EQ(2u, log.Count("get major{} form /proc/devices.\n"));
}

TEST_F(EnrichTest, MajorIsCachedOnceFound)
{
    FakeProcDevices proc;
    proc.SetDevices(DEVICES_HEAD);
    EXPECT_STREQ("", UDEV_GetVlunMajorFromFile());
    proc.SetDevices(std::string(DEVICES_HEAD) + "252 quillmesh\n");
    EXPECT_STREQ("252", UDEV_GetVlunMajorFromFile());
    proc.SetDevices(std::string(DEVICES_HEAD) + "240 quillmesh\n");
    EXPECT_STREQ("252", UDEV_GetVlunMajorFromFile());
    EXPECT_EQ(2, proc.Runs());
}

TEST_F(EnrichTest, MajorAfterATabIsFound)
{
    FakeProcDevices proc;
    proc.SetDevices(std::string(DEVICES_HEAD) + "250\tquillmesh\n");
    EXPECT_STREQ("250", UDEV_GetVlunMajorFromFile());
}

TEST_F(EnrichTest, OverLongMajorLineIsCutToTheCache)
{
    FakeProcDevices proc;
    proc.SetDevices(std::string(DEVICES_HEAD) + std::string(100, '7') + " quillmesh\n");
    const char *major = UDEV_GetVlunMajorFromFile();
    ASSERT_NE(nullptr, major);
    EXPECT_EQ(std::string(UDEV_MAJOR_LEN - 1, '7'), major);
}

}  // namespace
