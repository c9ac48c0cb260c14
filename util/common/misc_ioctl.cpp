// The driver's misc control device. One process-wide descriptor, no lock:
// the main thread opens, starts and closes it; the handle thread and the
// start-up scan issue requests concurrently, each with a record of its own,
// and the driver accepts concurrent ioctls on one descriptor.
#include "misc_ioctl.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "util_ret.h"

namespace {

constexpr uint32_t MISC_GET_FIRST_LEN = 1023;  // first GET offers a 1024-byte data area

// -1 closed; 0 also counts as closed. Read by every thread, written only by
// open/close on the main thread.
std::atomic<int> g_miscFd{-1};

int LoadFd()
{
    return g_miscFd.load(std::memory_order_relaxed);
}

bool IsOpen()
{
    return LoadFd() > 0;
}

int IssueIoctl(unsigned long request, void *arg)
{
    return ::ioctl(LoadFd(), request, arg);
}

char *DataOf(MiscCtrlParam *param)
{
    return reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN;
}

const char *DataOf(const MiscCtrlParam *param)
{
    return reinterpret_cast<const char *>(param) + MISC_CTRL_HEAD_LEN;
}

// Fills the data area of a fresh record: the text with its NUL, or zeros.
bool FillCtrlData(MiscCtrlParam *param, const char *text, uint32_t len)
{
    char *data = DataOf(param);
    if (text == nullptr) {
        return memset_s(data, param->bufLen, 0, param->bufLen) == EOK;
    }
    if (memcpy_s(data, param->bufLen, text, len) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "memcpy_s device number failed.");
        return false;
    }
    data[len] = '\0';
    return true;
}

// The add/remove/change requests differ only in request number and the
// action word that their messages carry.
int UTIL_MiscIoctlUdevEvent(unsigned long request, const char *text, const char *action)
{
    MPI_AssertNotNull(text);
    if (!IsOpen()) {
        MPI_Log(MPI_LOG_WARN, "%s{%s} not open /dev/%s.\n", action, text, MISC_DEVICE_NAME);
        return UDEV_RET_FAIL;
    }
    MallocPtr<MiscCtrlParam> param = UTIL_MiscAllocCtrlNode(text, 0);
    if (!param) {
        return UDEV_RET_NOMEM;
    }
    int ret = IssueIoctl(request, param.get());
    if (ret < 0) {
        MPI_Log(MPI_LOG_ERROR, "%s{%s}  fail with ret{%d}.\n", action, text, ret);
        return UDEV_RET_FAIL;
    }
    int status = static_cast<int>(param->status);
    MPI_Log(MPI_LOG_INFO, "device{%s} action{%s} with ret{%d}.\n", text, action, status);
    return status;
}

// A 1038 reply asks for a larger area; the size is the driver's word, so it
// is bounded before it becomes an allocation.
bool NeedLenAcceptable(uint32_t needLen)
{
    if (needLen > MISC_GET_MAX_LEN) {
        MPI_Log(MPI_LOG_ERROR, "get device numbers: driver asks for len{%u}, above the limit{%u}.\n", needLen,
                MISC_GET_MAX_LEN);
        return false;
    }
    return true;
}

// Both opens; `func` names the entry point in the records.
int UTIL_MiscOpen(const char *path, const char *func)
{
    if (IsOpen()) {
        MPI_LogAs(func, MPI_LOG_WARN, "already open /dev/%s.\n", MISC_DEVICE_NAME);
        return UDEV_RET_OK;
    }
    int fd = ::open(path, O_RDWR);
    g_miscFd.store(fd, std::memory_order_relaxed);
    if (fd < 0) {
        MPI_LogAs(func, MPI_LOG_ERROR, "Failed to open /dev/%s.\n", MISC_DEVICE_NAME);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

}  // namespace

int INTF_UTIL_MiscIoctlInit()
{
    return UTIL_MiscOpen(MISC_DEVICE_PATH, __func__);
}

int INTF_UTIL_MiscIoctlInitAt(const char *path)
{
    MPI_AssertNotNull(path);
    return UTIL_MiscOpen(path, __func__);
}

void INTF_UTIL_MiscIoctlClose()
{
    if (!IsOpen()) {
        return;
    }
    ::close(LoadFd());
    g_miscFd.store(-1, std::memory_order_relaxed);
}

int INTF_UTIL_MiscIoctlStart()
{
    if (!IsOpen()) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "misc ioctl device not open.");
        return UDEV_RET_FAIL;
    }
    int ret = IssueIoctl(MISC_IOCTL_START, nullptr);
    if (ret < 0) {
        MPI_Log(MPI_LOG_ERROR, "misc ioctl start fail with ret=%d.\n", ret);
        return UDEV_RET_FAIL;
    }
    MPI_Log(MPI_LOG_INFO, "%s\n", "misc ioctl start success.");
    return UDEV_RET_OK;
}

int INTF_UTIL_MiscIoctlAdd(const char *devInfo)
{
    return UTIL_MiscIoctlUdevEvent(MISC_IOCTL_ADD, devInfo, "add");
}

int INTF_UTIL_MiscIoctlRemove(const char *devNum)
{
    return UTIL_MiscIoctlUdevEvent(MISC_IOCTL_REMOVE, devNum, "remove");
}

int INTF_UTIL_MiscIoctlChange(const char *devNum)
{
    return UTIL_MiscIoctlUdevEvent(MISC_IOCTL_CHANGE, devNum, "change");
}

MallocPtr<char> INTF_UTIL_MiscIoctlGet()
{
    if (!IsOpen()) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "misc ioctl device not open.");
        return nullptr;
    }
    uint32_t reqLen = MISC_GET_FIRST_LEN;
    MallocPtr<MiscCtrlParam> param;
    size_t recordSize = 0;
    // No limit on the rounds: a driver that keeps answering 1038 keeps the
    // scan here, as the driver contract has it.
    for (;;) {
        param.reset();
        param = UTIL_MiscAllocCtrlNode(nullptr, reqLen);
        if (!param) {
            MPI_Log(MPI_LOG_ERROR, "malloc memery len{%u} failed.\n", reqLen);
            return nullptr;
        }
        recordSize = static_cast<size_t>(reqLen) + MISC_CTRL_EXTRA_LEN;
        int ret = IssueIoctl(MISC_IOCTL_GET_DEVNUMS, param.get());
        if (ret < 0) {
            param.reset();
            MPI_Log(MPI_LOG_ERROR, "get device numbers fail with ret=%d.\n", ret);
            return nullptr;
        }
        reqLen = param->needLen;
        if (param->status != static_cast<uint32_t>(UDEV_RET_BUF_SHORT)) {
            break;
        }
        if (!NeedLenAcceptable(reqLen)) {
            return nullptr;
        }
    }
    return UTIL_MiscAllocDeviceNums(param.get(), recordSize);
}

MallocPtr<MiscCtrlParam> UTIL_MiscAllocCtrlNode(const char *text, uint32_t len)
{
    if (text != nullptr) {
        size_t textLen = std::strlen(text);
        if (textLen > MISC_GET_MAX_LEN) {
            MPI_Log(MPI_LOG_ERROR, "misc text len{%zu} above the limit{%u}.\n", textLen, MISC_GET_MAX_LEN);
            return nullptr;
        }
        len = static_cast<uint32_t>(textLen);
    }
    MPI_Assert(len != 0);
    // bufLen = len + 1 must not wrap; the allocation is computed in size_t.
    if (len > UINT32_MAX - MISC_CTRL_EXTRA_LEN) {
        MPI_Log(MPI_LOG_ERROR, "misc record len{%u} too large.\n", len);
        return nullptr;
    }
    MallocPtr<MiscCtrlParam> param(
        static_cast<MiscCtrlParam *>(std::malloc(static_cast<size_t>(len) + MISC_CTRL_EXTRA_LEN)));
    if (!param) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "malloc ctrlParam failed.");
        return nullptr;
    }
    param->bufLen = len + 1;
    if (!FillCtrlData(param.get(), text, len)) {
        return nullptr;
    }
    return param;
}

MallocPtr<char> UTIL_MiscAllocDeviceNums(const MiscCtrlParam *param, size_t recordSize)
{
    MPI_AssertNotNull(param);
    // A block without a whole header has no status or dataLen to read.
    if (recordSize < MISC_CTRL_HEAD_LEN) {
        MPI_Log(MPI_LOG_ERROR, "alloc devnums: reply block of {%zu} bytes has no header.\n", recordSize);
        return nullptr;
    }
    if (param->status != static_cast<uint32_t>(UDEV_RET_OK)) {
        MPI_Log(MPI_LOG_ERROR, "alloc devnums fail with ret{%d}.\n", static_cast<int>(param->status));
        return nullptr;
    }
    // Only the bufLen bytes offered to the driver were zeroed and may hold its
    // text; the three spare bytes behind them are uninitialised heap.
    uint32_t dataLen = param->dataLen;
    size_t dataArea = recordSize >= MISC_CTRL_EXTRA_LEN ? recordSize - MISC_CTRL_EXTRA_LEN + 1 : 0;
    if (dataLen > dataArea || dataLen > MISC_GET_MAX_LEN) {
        MPI_Log(MPI_LOG_ERROR, "alloc devnums: reply dataLen{%u} exceeds its data area{%zu}.\n", dataLen,
                dataArea);
        return nullptr;
    }
    size_t copyLen = static_cast<size_t>(dataLen) + 1;
    MallocPtr<char> devNums(static_cast<char *>(std::malloc(copyLen)));
    if (!devNums) {
        MPI_Log(MPI_LOG_ERROR, "malloc memery len{%u} failed.\n", dataLen + 1);
        return nullptr;
    }
    (void)memset_s(devNums.get(), copyLen, 0, copyLen);
    if (dataLen == 0) {
        return devNums;
    }
    if (memcpy_s(devNums.get(), copyLen, DataOf(param), dataLen) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "memcpy_s failed.\n");
        return nullptr;
    }
    return devNums;
}
