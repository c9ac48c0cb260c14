// The start-up scan: reconciling udev's disks with the driver's device
// numbers, the batch it hands over, and the failures that drop the batch.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <umockdev.h>

#include "misc_ioctl.h"
#include "mpi_usr_if.h"
#include "securec.h"
#include "support/trace_capture.h"
#include "udev_config.h"
#include "udev_event.h"
#include "udev_list.h"
#include "udev_scan.h"
#include "util_ret.h"

namespace {

using Event = std::pair<std::string, std::string>;  // action, devNum
using Batch = std::vector<Event>;

Event Add(const char *devNum)
{
    return {"add", devNum};
}

Event Remove(const std::string &devNum)
{
    return {"remove", devNum};
}

Batch ListOf(UdevListHead *head)
{
    Batch batch;
    for (UdevListHead *link = head->next; link != head; link = link->next) {
        UdevEventNode *node = UDEV_NodeOf(link);
        batch.emplace_back(node->action, node->devNum);
    }
    return batch;
}

void Append(UdevListHead *head, const std::string &devNum, const char *action)
{
    UdevEventNode *node =
        UDEV_GetEventNodeByDevNum(devNum.c_str(), static_cast<uint32_t>(devNum.size() + 1), action);
    ASSERT_NE(node, nullptr) << devNum;
    UDEV_ListAddTail(&node->list, head);
}

// ---- the scripted driver and the captured hand-over --------------------------

std::string g_driverList;  // what the fake driver holds
int g_handOvers = 0;
Batch g_handedOver;

int FakeDriver(int, unsigned long request, void *arg)
{
    if (request != MISC_IOCTL_GET_DEVNUMS) {
        return -1;
    }
    auto *param = static_cast<MiscCtrlParam *>(arg);
    auto length = static_cast<uint32_t>(g_driverList.size());
    param->needLen = length;
    if (length + 1 > param->bufLen) {
        param->status = UDEV_RET_BUF_SHORT;
        return 0;
    }
    param->status = UDEV_RET_OK;
    param->dataLen = length;
    std::memcpy(reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN, g_driverList.c_str(), length + 1);
    return 0;
}

int BrokenDriver(int, unsigned long, void *)
{
    return -1;
}

void CaptureHandOver(UdevListHead *list)
{
    g_handOvers++;
    g_handedOver = ListOf(list);
    UDEV_DeleteEventList(list);
}

class ScanListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_driverList.clear();
        g_handOvers = 0;
        g_handedOver.clear();
        UDEV_SetScanHandOverForTest(CaptureHandOver);
        UTIL_MiscSetForTest(kFakeFd, FakeDriver);
    }

    void TearDown() override
    {
        UDEV_DeleteEventList(UDEV_GetScanListForTest());
        UDEV_SetScanHandOverForTest(nullptr);
        UDEV_SetScanIndexBudgetForTest(-1);
        UTIL_MiscSetForTest(-1, nullptr);
    }

    bool TraceHas(const std::string &text) const { return trace_.Has(text); }

    static constexpr int kFakeFd = 1000;
    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

// The whole scan: a umockdev testbed and a vendor list supporting VENDOR/PRODUCT.
class ScanTest : public ScanListTest {
protected:
    void SetUp() override
    {
        ScanListTest::SetUp();
        setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
        testbed_ = umockdev_testbed_new();
        ASSERT_NE(testbed_, nullptr);
        std::string config = dir_.File("qm_plus.conf");
        std::ofstream(config) << "[vendors]\nvendor_id=VENDOR,product_id=PRODUCT\n";
        ASSERT_TRUE(UDEV_InitConfigFromPath(config.c_str()));
    }

    void TearDown() override
    {
        UDEV_ReleaseConfig();
        if (testbed_ != nullptr) {
            g_object_unref(testbed_);
        }
        ScanListTest::TearDown();
    }

    void AddScsiDisk(const char *hctl, const char *name, const char *major, const char *minor,
                     const char *vendor = "VENDOR", const char *model = "PRODUCT")
    {
        gchar *scsi = umockdev_testbed_add_device(testbed_, "scsi", hctl, nullptr, "vendor", vendor, "model", model,
                                                  nullptr, "DEVTYPE", "scsi_device", nullptr);
        ASSERT_NE(scsi, nullptr);
        std::string dev = std::string(major) + ":" + minor;
        gchar *disk = umockdev_testbed_add_device(testbed_, "block", name, scsi, "dev", dev.c_str(), nullptr,
                                                  "DEVTYPE", "disk", "MAJOR", major, "MINOR", minor, nullptr);
        ASSERT_NE(disk, nullptr);
        lastDisk_ = disk;
        g_free(disk);
        g_free(scsi);
    }

    std::string lastDisk_;
    UMockdevTestbed *testbed_ = nullptr;
};

// ---- failures drop the whole batch ---------------------------------------------

TEST_F(ScanTest, DriverFailureDropsWholeBatch)
{
    AddScsiDisk("0:0:0:0", "sda", "8", "0");
    for (bool closed : {false, true}) {
        SCOPED_TRACE(closed ? "closed channel" : "GET fails");
        UTIL_MiscSetForTest(closed ? -1 : kFakeFd, closed ? nullptr : BrokenDriver);
        EXPECT_FALSE(UDEV_Scan());
        EXPECT_EQ(g_handOvers, 0);
        EXPECT_TRUE(UDEV_ListEmpty(UDEV_GetScanListForTest()));
        EXPECT_TRUE(TraceHas("Update physical device failed.\n"));
    }
    EXPECT_TRUE(TraceHas("ioctl inquiry failed.\n"));
    EXPECT_TRUE(TraceHas("get devices from kernel failed.\n"));
}

TEST_F(ScanListTest, GetDevFailsWithoutTouchingTheList)
{
    UTIL_MiscSetForTest(kFakeFd, BrokenDriver);
    Append(UDEV_GetScanListForTest(), "8:0", "add");
    EXPECT_FALSE(UDEV_GetDev());
    EXPECT_EQ(ListOf(UDEV_GetScanListForTest()), Batch{Add("8:0")});
}

// ---- the whole scan --------------------------------------------------------------

TEST_F(ScanTest, AddsInEnumerationOrderThenRemovesInDriverOrder)
{
    AddScsiDisk("0:0:0:0", "sda", "8", "0");
    AddScsiDisk("0:0:0:1", "sdb", "8", "16");
    g_driverList = "8:16  8:32";

    ASSERT_TRUE(UDEV_Scan());
    EXPECT_EQ(g_handOvers, 1);
    EXPECT_EQ(g_handedOver, (Batch{Add("8:0"), Add("8:16"), Remove("8:32")}));
    EXPECT_TRUE(UDEV_ListEmpty(UDEV_GetScanListForTest()));
}

TEST_F(ScanTest, BatchGoesToTheEventListInOneHandOver)
{
    UDEV_SetScanHandOverForTest(nullptr);
    ASSERT_TRUE(UDEV_InitEventList());
    AddScsiDisk("0:0:0:0", "sda", "8", "0");
    g_driverList = "8:32";
    uint64_t signalsBefore = UDEV_GetEventSignalCountForTest();

    ASSERT_TRUE(UDEV_Scan());
    EXPECT_EQ(UDEV_GetEventSignalCountForTest(), signalsBefore + 1);
    EXPECT_TRUE(UDEV_ListEmpty(UDEV_GetScanListForTest()));
    UDEV_ReleaseEventList();  // the two nodes go with the list
}

TEST_F(ScanTest, NoDisksAndEmptyDriverHandsOverEmptyBatch)
{
    ASSERT_TRUE(UDEV_Scan());
    EXPECT_EQ(g_handOvers, 1);
    EXPECT_TRUE(g_handedOver.empty());
}

TEST_F(ScanTest, SkipsPartitionsUnsupportedDisksAndDisksWithoutNumber)
{
    AddScsiDisk("0:0:0:0", "sda", "8", "0");
    gchar *part = umockdev_testbed_add_device(testbed_, "block", "sda1", lastDisk_.c_str(), "dev", "8:1", nullptr,
                                              "DEVTYPE", "partition", "MAJOR", "8", "MINOR", "1", nullptr);
    ASSERT_NE(part, nullptr);
    std::string partPath = part;
    g_free(part);
    AddScsiDisk("0:0:0:2", "sdc", "8", "32", "OTHER", "PRODUCT");
    gchar *scsi = umockdev_testbed_add_device(testbed_, "scsi", "0:0:0:3", nullptr, "vendor", "VENDOR", "model",
                                              "PRODUCT", nullptr, "DEVTYPE", "scsi_device", nullptr);
    g_free(umockdev_testbed_add_device(testbed_, "block", "sdd", scsi, nullptr, "DEVTYPE", "disk", nullptr));
    g_free(scsi);
    g_driverList = "8:32";

    ASSERT_TRUE(UDEV_Scan());
    EXPECT_EQ(g_handedOver, (Batch{Add("8:0"), Remove("8:32")}));
    EXPECT_TRUE(TraceHas("the device type{partition} of {" + partPath + "} is not suppurted.\n"));
}

// ---- the reconciliation of the two lists -------------------------------------------

struct SplitCase {
    const char *name;
    std::vector<std::string> adds;
    std::string driver;
    Batch batch;
    std::string trace = "";
};

class SplitTest : public ScanListTest, public ::testing::WithParamInterface<SplitCase> {};

TEST_P(SplitTest, AppendsRemovesForUnknownNumbers)
{
    UdevListHead *scanList = UDEV_GetScanListForTest();
    for (const std::string &devNum : GetParam().adds) {
        Append(scanList, devNum, "add");
    }
    std::string text = GetParam().driver;
    UDEV_SplitHanleDeviceNumber(text.data());
    EXPECT_EQ(ListOf(scanList), GetParam().batch);
    EXPECT_TRUE(TraceHas(GetParam().trace));
}

const std::string k31(31, '1');
const std::string k32(32, '2');
const SplitCase kSplitCases[] = {
    {"EmptyText", {"8:0"}, "", {Add("8:0")}},
    {"BlanksOnly", {"8:0"}, "   ", {Add("8:0")}},
    {"TwoBlanks", {"8:0", "8:16"}, "8:16  8:32", {Add("8:0"), Add("8:16"), Remove("8:32")}},
    {"OuterBlanks", {}, "  8:32 ", {Remove("8:32")}},
    {"DriverOrderKept", {}, "8:48 8:32 8:64", {Remove("8:48"), Remove("8:32"), Remove("8:64")}},
    {"AllKnown", {"8:0", "8:16"}, "8:16 8:0", {Add("8:0"), Add("8:16")}},
    {"RepeatedTokenOneRemove", {}, "8:32 8:32", {Remove("8:32")}},
    {"PrefixIsNotAMatch", {"8:16"}, "8:1", {Add("8:16"), Remove("8:1")}},
    {"LeadingZeroIsNotAMatch", {"8:16"}, "08:16", {Add("8:16"), Remove("08:16")}},
    {"TabIsPartOfToken", {"8:16"}, "8:16\t8:32", {Add("8:16"), Remove("8:16\t8:32")}},
    {"Token31Kept", {}, k31, {Remove(k31)}},
    {"Token32RefusedWalkGoesOn", {"8:0"}, "8:0 " + k32 + " 8:48", {Add("8:0"), Remove("8:48")},
     "get node failed for remove " + k32 + ".\n"},
};
INSTANTIATE_TEST_SUITE_P(Lists, SplitTest, ::testing::ValuesIn(kSplitCases),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- the indexed lookup gives the linear lookup's answer ------------------------

// Reference: the same token walk over the linear lookup.
Batch LinearReconcile(const std::vector<std::string> &adds, std::string text)
{
    UdevListHead reference;
    UDEV_ListInit(&reference);
    for (const std::string &devNum : adds) {
        Append(&reference, devNum, "add");
    }
    char *context = nullptr;
    for (char *token = strtok_s(text.data(), " ", &context); token != nullptr;
         token = strtok_s(nullptr, " ", &context)) {
        if (UDEV_InquiryScanNode(token, &reference) != nullptr) {
            continue;
        }
        UdevEventNode *node =
            UDEV_GetEventNodeByDevNum(token, static_cast<uint32_t>(std::strlen(token) + 1), "remove");
        if (node != nullptr) {
            UDEV_ListAddTail(&node->list, &reference);
        }
    }
    Batch batch = ListOf(&reference);
    UDEV_DeleteEventList(&reference);
    return batch;
}

std::string RandomDevNum(std::mt19937 &random)
{
    std::uniform_int_distribution<int> kind(0, 19);
    std::uniform_int_distribution<int> number(0, 40);
    int k = kind(random);
    if (k == 0) {
        return std::string(32 + number(random), '7');  // does not fit a devNum
    }
    if (k == 1) {
        return "0" + std::to_string(number(random)) + ":" + std::to_string(number(random));
    }
    return std::to_string(number(random) % 4 + 8) + ":" + std::to_string(number(random) * 16);
}

TEST_F(ScanListTest, IndexedLookupEqualsLinearLookup)
{
    std::mt19937 random(4242);
    std::uniform_int_distribution<int> count(0, 120);
    std::uniform_int_distribution<int> blanks(1, 3);
    for (int round = 0; round < 200; round++) {
        std::vector<std::string> adds;
        for (int i = count(random); i > 0; i--) {
            std::string devNum = RandomDevNum(random);
            if (devNum.size() < UDEV_DEVNUM_LEN) {
                adds.push_back(devNum);
            }
        }
        std::string text(blanks(random) - 1, ' ');
        for (int i = count(random); i > 0; i--) {
            text += RandomDevNum(random) + std::string(blanks(random), ' ');
        }

        // Every third round the index runs out of memory part-way.
        int64_t budget = (round % 3 == 0) ? count(random) : -1;
        UDEV_SetScanIndexBudgetForTest(budget);

        UdevListHead *scanList = UDEV_GetScanListForTest();
        for (const std::string &devNum : adds) {
            Append(scanList, devNum, "add");
        }
        std::string copy = text;
        UDEV_SplitHanleDeviceNumber(copy.data());
        ASSERT_EQ(ListOf(scanList), LinearReconcile(adds, text))
            << "round " << round << " budget " << budget << " text {" << text << "}";
        UDEV_DeleteEventList(scanList);
    }
}

TEST_F(ScanListTest, ThousandsOfPathsReconcile)
{
    std::vector<std::string> adds;
    std::string text;
    for (int i = 0; i < 4000; i++) {
        adds.push_back("8:" + std::to_string(i * 16));
        text += "8:" + std::to_string((i + 2000) * 16) + " ";
    }
    UdevListHead *scanList = UDEV_GetScanListForTest();
    for (const std::string &devNum : adds) {
        Append(scanList, devNum, "add");
    }
    UDEV_SplitHanleDeviceNumber(text.data());
    Batch batch = ListOf(scanList);
    ASSERT_EQ(batch.size(), 6000u);
    EXPECT_EQ(batch[3999], Add("8:63984"));
    EXPECT_EQ(batch[4000], Remove("8:64000"));
    EXPECT_EQ(batch.back(), Remove("8:95984"));
}

// ---- the node helpers -------------------------------------------------------------

struct NodeCase {
    const char *name;
    std::string devNum;
    std::string action;
    bool built;
};

class NodeByDevNumTest : public ScanListTest, public ::testing::WithParamInterface<NodeCase> {};

TEST_P(NodeByDevNumTest, BuildsWithinFieldSizes)
{
    const NodeCase &c = GetParam();
    UdevEventNode *node =
        UDEV_GetEventNodeByDevNum(c.devNum.c_str(), static_cast<uint32_t>(c.devNum.size() + 1), c.action.c_str());
    ASSERT_EQ(node != nullptr, c.built);
    if (node == nullptr) {
        EXPECT_TRUE(TraceHas("sprintf_s failed.\n"));
        return;
    }
    EXPECT_EQ(std::string(node->devNum), c.devNum);
    EXPECT_EQ(std::string(node->action), c.action);
    EXPECT_EQ(node->udevDev, nullptr);
    EXPECT_EQ(node->devInfo[0], '\0');
    EXPECT_TRUE(UDEV_ListEmpty(&node->list));
    UDEV_DeleteEventNode(node);
}

const NodeCase kNodeCases[] = {
    {"Remove", "8:32", "remove", true},
    {"DevNum31", std::string(31, '1'), "remove", true},
    {"DevNum32", std::string(32, '1'), "remove", false},
    {"Action15", "8:32", std::string(15, 'a'), true},
    {"Action16", "8:32", std::string(16, 'a'), false},
    {"EmptyDevNum", "", "remove", true},
};
INSTANTIATE_TEST_SUITE_P(Fields, NodeByDevNumTest, ::testing::ValuesIn(kNodeCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ScanListTest, InquiryFindsFirstEqualNode)
{
    UdevListHead list;
    UDEV_ListInit(&list);
    EXPECT_EQ(UDEV_InquiryScanNode("8:0", &list), nullptr);
    Append(&list, "8:16", "add");
    Append(&list, "8:0", "add");
    Append(&list, "8:0", "remove");

    UdevEventNode *found = UDEV_InquiryScanNode("8:0", &list);
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->action, "add");
    EXPECT_EQ(UDEV_InquiryScanNode("8:1", &list), nullptr);
    EXPECT_EQ(UDEV_InquiryScanNode("8:0 ", &list), nullptr);
    EXPECT_EQ(UDEV_InquiryScanNode("", &list), nullptr);
    UDEV_DeleteEventList(&list);
}

}  // namespace
