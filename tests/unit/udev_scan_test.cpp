// The start-up scan: the batch made of udev's disks, and its reconciliation
// with the driver's device numbers, through the index and through the linear
// lookup that stands in when the index runs out of memory (operator new of
// the test binary fails on demand).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "misc_ioctl.h"
#include "securec.h"
#include "support/alloc_fail.h"
#include "support/pipeline_support.h"
#include "support/sys_wrap.h"
#include "support/udev_support.h"
#include "udev_event.h"
#include "udev_list.h"
#include "udev_scan.h"
#include "util_ret.h"

namespace {

// Not the whole of qmtest: its Add and Remove are the driver's calls.
using qmtest::AllocationBudget;
using qmtest::BlockDevice;
using qmtest::LogCapture;
using qmtest::ReplaceIoctl;
using qmtest::TakeQueued;
using qmtest::Testbed;
using qmtest::VendorList;
using Batch = std::vector<std::pair<std::string, std::string>>;  // action, devNum

std::pair<std::string, std::string> Add(const std::string &devNum)
{
    return {"add", devNum};
}
std::pair<std::string, std::string> Remove(const std::string &devNum)
{
    return {"remove", devNum};
}

Batch ListOf(UdevListHead *head)
{
    Batch batch;
    for (UdevListHead *link = head->next; link != head; link = link->next) {
        batch.emplace_back(UDEV_NodeOf(link)->action, UDEV_NodeOf(link)->devNum);
    }
    return batch;
}

void AppendAdds(UdevListHead *head, const std::vector<std::string> &devNums)
{
    for (const std::string &devNum : devNums) {
        UdevEventNode *node = UDEV_GetEventNodeByDevNum(devNum.c_str(), devNum.size() + 1, "add");
        ASSERT_NE(node, nullptr) << devNum;
        UDEV_ListAddTail(&node->list, head);
    }
}

std::string g_driverList;  // what the driver answers a GET with

int GetOnlyDriver(int, unsigned long request, void *arg)
{
    auto *param = static_cast<MiscCtrlParam *>(arg);
    if (request != MISC_IOCTL_GET_DEVNUMS || g_driverList.size() + 1 > param->bufLen) {
        return -1;
    }
    param->needLen = param->dataLen = static_cast<uint32_t>(g_driverList.size());
    param->status = UDEV_RET_OK;
    std::memcpy(reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN, g_driverList.c_str(), g_driverList.size() + 1);
    return 0;
}

class ScanTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ReplaceIoctl(GetOnlyDriver);
        ASSERT_EQ(INTF_UTIL_MiscIoctlInitAt("/dev/null"), UDEV_RET_OK);
    }
    void TearDown() override
    {
        INTF_UTIL_MiscIoctlClose();
        ReplaceIoctl(nullptr);
    }
    // What the reconciliation makes of `adds` and the driver's `text`; the
    // index may make `allocations` allocations (negative: any number).
    static Batch Reconcile(const std::vector<std::string> &adds, std::string text, int64_t allocations)
    {
        UdevListHead scanList;
        UDEV_ListInit(&scanList);
        AppendAdds(&scanList, adds);
        {
            AllocationBudget budget(allocations);
            UDEV_SplitHanleDeviceNumberInto(text.data(), &scanList);
        }
        Batch batch = ListOf(&scanList);
        UDEV_DeleteEventList(&scanList);
        return batch;
    }
};

TEST_F(ScanTest, BatchHoldsSupportedDisksThenWhatOnlyTheDriverHolds)
{
    Testbed bed;
    VendorList vendors{{"QMESH", "VDISK"}};
    BlockDevice disk = bed.AddLocalDisk();
    BlockDevice partition = bed.AddPartition(disk, 1);
    BlockDevice unsupported = bed.AddFcDisk({.id = {.vendor = "OTHER"}});
    bed.RemoveProperty(bed.AddIscsiDisk().syspath, "MINOR");  // supported, without a number
    g_driverList = unsupported.DevNum();
    ASSERT_TRUE(UDEV_InitEventList());
    LogCapture log;
    ASSERT_TRUE(UDEV_Scan());
    // Handed to the event list whole: the handle thread's wait takes it.
    UdevListHead taken;
    UDEV_ListInit(&taken);
    ASSERT_TRUE(TakeQueued(&taken));
    EXPECT_EQ(ListOf(&taken), (Batch{Add(disk.DevNum()), Remove(unsupported.DevNum())}));
    EXPECT_TRUE(log.Has("the device type{partition} of {" + partition.syspath + "} is not suppurted.\n"));
    UDEV_DeleteEventList(&taken);
    UDEV_ReleaseEventList();
}

TEST_F(ScanTest, DriverNumbersNotOnTheListBecomeRemovesInTheirOrder)
{
    const std::string k31(31, '1');
    const std::string k32(32, '2');
    const struct {
        std::vector<std::string> adds;
        std::string driver;
        Batch batch;
        std::string log;
    } cases[] = {
        {{"8:0"}, "", {Add("8:0")}, ""},
        {{"8:0"}, "   ", {Add("8:0")}, ""},
        {{"8:0", "8:16"}, "8:16  8:0", {Add("8:0"), Add("8:16")}, ""},
        {{}, "  8:48 8:32 8:64 ", {Remove("8:48"), Remove("8:32"), Remove("8:64")}, ""},
        {{}, "8:32 8:32", {Remove("8:32")}, ""},
        {{"8:16"}, "8:1", {Add("8:16"), Remove("8:1")}, ""},      // a prefix is no match
        {{"8:16"}, "08:16", {Add("8:16"), Remove("08:16")}, ""},  // nor a leading zero
        {{"8:16"}, "8:16\t8:32", {Add("8:16"), Remove("8:16\t8:32")}, ""},
        {{}, k31, {Remove(k31)}, ""},
        {{"8:0"}, "8:0 " + k32 + " 8:48", {Add("8:0"), Remove("8:48")}, "get node failed for remove " + k32 + ".\n"},
    };
    for (const auto &c : cases) {
        for (int64_t budget : {-1, 0}) {  // 0: the index fails at once, the linear lookup answers
            SCOPED_TRACE("{" + c.driver + "} budget " + std::to_string(budget));
            LogCapture log;
            EXPECT_EQ(Reconcile(c.adds, c.driver, budget), c.batch);
            EXPECT_TRUE(c.log.empty() || log.Has(c.log));
        }
    }
}

// The reference: the same token walk over the linear lookup alone.
Batch LinearReconcile(const std::vector<std::string> &adds, std::string text)
{
    UdevListHead reference;
    UDEV_ListInit(&reference);
    AppendAdds(&reference, adds);
    char *context = nullptr;
    for (char *token = strtok_s(text.data(), " ", &context); token != nullptr;
         token = strtok_s(nullptr, " ", &context)) {
        UdevEventNode *node = UDEV_InquiryScanNode(token, &reference) != nullptr
                                  ? nullptr
                                  : UDEV_GetEventNodeByDevNum(token, std::strlen(token) + 1, "remove");
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
    int kind = static_cast<int>(random() % 20);
    int number = static_cast<int>(random() % 41);
    if (kind == 0) {
        return std::string(32 + number, '7');  // does not fit a devNum
    }
    if (kind == 1) {
        return "0" + std::to_string(number) + ":" + std::to_string(random() % 41);
    }
    return std::to_string(number % 4 + 8) + ":" + std::to_string((random() % 41) * 16);
}

TEST_F(ScanTest, IndexedLookupEqualsLinearLookup)
{
    // Thousands of paths, half of them known to udev only, half to the
    // driver only.
    std::vector<std::string> adds;
    std::string text;
    for (int i = 0; i < 4000; i++) {
        adds.push_back("8:" + std::to_string(i * 16));
        text += "8:" + std::to_string((i + 2000) * 16) + " ";
    }
    ASSERT_EQ(Reconcile(adds, text, -1), LinearReconcile(adds, text));

    std::mt19937 random(4242);
    for (int round = 0; round < 200; round++) {
        adds.clear();
        for (int i = random() % 121; i > 0; i--) {
            std::string devNum = RandomDevNum(random);
            if (devNum.size() < UDEV_DEVNUM_LEN) {
                adds.push_back(devNum);
            }
        }
        text = std::string(random() % 3, ' ');
        for (int i = random() % 121; i > 0; i--) {
            text += RandomDevNum(random) + std::string(1 + random() % 3, ' ');
        }
        // Every third round the index runs out of memory part-way.
        int64_t budget = (round % 3 == 0) ? static_cast<int64_t>(random() % 121) : -1;
        ASSERT_EQ(Reconcile(adds, text, budget), LinearReconcile(adds, text))
            << "round " << round << " budget " << budget << " text {" << text << "}";
    }
}

TEST_F(ScanTest, NodeByDevNumFitsTheFieldsAndStartsFresh)
{
    const struct {
        std::string devNum, action;
        bool built;
    } cases[] = {
        {std::string(32, '1'), "remove", false}, {"8:32", std::string(16, 'a'), false},
        {std::string(31, '1'), "remove", true},  {"8:32", std::string(15, 'a'), true},
        {"", "remove", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.devNum + " " + c.action);
        LogCapture log;
        UdevEventNode *node = UDEV_GetEventNodeByDevNum(c.devNum.c_str(), c.devNum.size() + 1, c.action.c_str());
        ASSERT_EQ(node != nullptr, c.built);
        if (node == nullptr) {
            EXPECT_TRUE(log.Has("sprintf_s failed.\n"));
            continue;
        }
        EXPECT_EQ(node->devNum, c.devNum);
        EXPECT_EQ(node->action, c.action);
        EXPECT_STREQ(node->devInfo, "");
        EXPECT_TRUE(node->udevDev == nullptr && node->isRetry == 0 && node->retryTime == 0 && node->protocol == 0);
        EXPECT_EQ((std::vector<int32_t>{node->host, node->channel, node->target, node->lun, node->transportId}),
                  std::vector<int32_t>(5, -1));
        EXPECT_EQ(node->transportType, UDEV_TRANSPORT_UNKNOWN);
        EXPECT_TRUE(UDEV_ListEmpty(&node->list));
        UDEV_DeleteEventNode(node);
    }
}

}  // namespace
