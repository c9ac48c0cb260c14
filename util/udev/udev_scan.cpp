// The start-up scan. g_scanList belongs to this module and to the main
// thread alone; it is empty between scans, and its nodes leave it either all
// at once to the front of the event list or all deleted.
#include "udev_scan.h"

#include <cstring>

#include <malloc.h>
#include <string_view>
#include <unordered_set>

#include <libudev.h>

#include "misc_ioctl.h"
#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_enrich.h"
#include "udev_event.h"
#include "udev_list.h"
#include "udev_query.h"
#include "util_ret.h"

namespace {

UdevListHead g_scanList = {&g_scanList, &g_scanList};

constexpr char SCAN_SUBSYSTEM[] = "block";
constexpr char SCAN_DEVTYPE[] = "disk";
constexpr char SCAN_REMOVE_ACTION[] = "remove";

// Device numbers of the nodes on g_scanList. The driver may report thousands
// of device numbers; a walk of the list for each would make the scan
// quadratic, so the answer of UDEV_InquiryScanNode is kept in a set that
// follows the list as remove nodes are appended.
using DevNumIndex = std::unordered_set<std::string_view>;

const char *TextOrNull(const char *text)
{
    return text != nullptr ? text : "(null)";
}

std::string_view DevNumOf(const UdevEventNode *node)
{
    return {node->devNum, strnlen(node->devNum, UDEV_DEVNUM_LEN)};
}

// False when memory ran out: the caller then walks the list instead.
bool IndexAdd(DevNumIndex *index, const UdevEventNode *node) noexcept
{
    try {
        index->insert(DevNumOf(node));
        return true;
    } catch (...) {
        index->clear();
        return false;
    }
}

bool IndexBuild(DevNumIndex *index, UdevListHead *head) noexcept
{
    for (UdevListHead *link = head->next; link != head; link = link->next) {
        if (!IndexAdd(index, UDEV_NodeOf(link))) {
            return false;
        }
    }
    return true;
}

bool IsOnScanList(const DevNumIndex &index, bool indexed, const char *token, UdevListHead *scanList)
{
    if (indexed) {
        return index.find(std::string_view(token)) != index.end();
    }
    return UDEV_InquiryScanNode(token, scanList) != nullptr;
}

}  // namespace

UdevEventNode *UDEV_InquiryScanNode(const char *devNum, UdevListHead *headNode)
{
    MPI_AssertNotNull(headNode);
    MPI_AssertNotNull(devNum);
    std::string_view wanted(devNum);
    for (UdevListHead *link = headNode->next; link != headNode; link = link->next) {
        if (DevNumOf(UDEV_NodeOf(link)) == wanted) {
            return UDEV_NodeOf(link);
        }
    }
    return nullptr;
}

UdevEventNode *UDEV_GetEventNodeByDevNum(const char *devNum, uint32_t devNumLen, const char *actionType)
{
    MPI_AssertNotNull(devNum);
    MPI_AssertNotNull(actionType);
    MPI_Assert(devNumLen != 0);
    UdevEventNodePtr node(UDEV_AllocEventNode());
    if (!node) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "malloc failed.");
        return nullptr;
    }
    if (sprintf_s(node->action, sizeof(node->action), "%s", actionType) == -1 ||
        sprintf_s(node->devNum, sizeof(node->devNum), "%s", devNum) == -1) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "sprintf_s failed.");
        return nullptr;
    }
    return node.release();
}

namespace {

// Both reconciliations; `func` names the entry point in the records.
void SplitDeviceNumbers(char *devNumber, UdevListHead *scanList, const char *func)
{
    if (devNumber[0] == '\0') {
        return;
    }
    DevNumIndex index;
    bool indexed = IndexBuild(&index, scanList);
    char *context = nullptr;
    for (char *token = strtok_s(devNumber, " ", &context); token != nullptr;
         token = strtok_s(nullptr, " ", &context)) {
        if (IsOnScanList(index, indexed, token, scanList)) {
            continue;  // udev still has the disk
        }
        UdevEventNode *node =
            UDEV_GetEventNodeByDevNum(token, static_cast<uint32_t>(std::strlen(token) + 1), SCAN_REMOVE_ACTION);
        if (node == nullptr) {
            MPI_LogAs(func, MPI_LOG_ERROR, "get node failed for remove %s.\n", token);
            continue;
        }
        UDEV_ListAddTail(&node->list, scanList);
        if (indexed) {
            indexed = IndexAdd(&index, node);
        }
    }
}

}  // namespace

void UDEV_SplitHanleDeviceNumber(char *devNumber)
{
    MPI_AssertNotNull(devNumber);
    SplitDeviceNumbers(devNumber, &g_scanList, __func__);
}

void UDEV_SplitHanleDeviceNumberInto(char *devNumber, UdevListHead *scanList)
{
    MPI_AssertNotNull(devNumber);
    MPI_AssertNotNull(scanList);
    SplitDeviceNumbers(devNumber, scanList, __func__);
}

bool UDEV_GetDev()
{
    MallocPtr<char> devNumbers = INTF_UTIL_MiscIoctlGet();
    if (devNumbers == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "ioctl inquiry failed");
        return false;
    }
    UDEV_SplitHanleDeviceNumber(devNumbers.get());
    return true;
}

bool UDEV_DispatchEvent(struct udev_device *udevDev)
{
    UdevEventNodePtr node(UDEV_AllocEventNode());
    if (!node) {
        MPI_Log(MPI_LOG_WARN, "%s\n", "get event node by udev device failed.");
        return false;
    }
    // A refused node goes with whatever the fill left in it.
    if (UDEV_InitEventNodeBasicInfo(udevDev, node.get()) != UDEV_RET_OK ||
        UDEV_InitAddEventNode(udevDev, node.get()) != UDEV_RET_OK) {
        return false;
    }
    UDEV_ListAddTail(&node.release()->list, &g_scanList);
    return true;
}

void UDEV_HandBlockDevice(const char *devPath, struct udev_device *udevDev)
{
    if (devPath == nullptr || udevDev == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get device and devPath{%s} fail.\n", TextOrNull(devPath));
        return;
    }
    const char *devType = udev_device_get_devtype(udevDev);
    if (devType == nullptr || std::strcmp(devType, SCAN_DEVTYPE) != 0) {
        MPI_Log(MPI_LOG_WARN, "the device type{%s} of {%s} is not suppurted.\n", TextOrNull(devType), devPath);
        return;
    }
    if (!UDEV_DispatchEvent(udevDev)) {
        MPI_Log(MPI_LOG_DEBUG, "dispatch device failed devPath:%s.\n", devPath);
    }
}

bool UDEV_UpdatePhyDev()
{
    if (INTF_UTIL_UdevGetDevice(SCAN_SUBSYSTEM, UDEV_HandBlockDevice) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "scanning udev failed");
        return false;
    }
    if (!UDEV_GetDev()) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get devices from kernel failed");
        return false;
    }
    return true;
}

// The enumeration held a libudev record of every block device (several KB
// each, tens of MB on a host with thousands of paths), all freed by now.
// The allocator keeps freed memory in this thread's arena, where the worker
// threads (which allocate from arenas of their own) never reuse it: handed
// back here, an event storm after start-up costs memory of its own instead
// of adding to what the scan held.
namespace {
void UDEV_ReleaseScanMemory()
{
    (void)malloc_trim(0);
}
}  // namespace

bool UDEV_Scan()
{
    UDEV_DeleteEventList(&g_scanList);
    UDEV_ListInit(&g_scanList);
    if (!UDEV_UpdatePhyDev()) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "Update physical device failed");
        UDEV_DeleteEventList(&g_scanList);
        UDEV_ReleaseScanMemory();
        return false;
    }
    UDEV_AddEventList(&g_scanList);
    UDEV_ReleaseScanMemory();
    return true;
}
