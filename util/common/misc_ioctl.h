// The product driver's misc control device /dev/misc_qmnv: open, close,
// the start request, add/remove/change of a disk as text, and the list of
// device numbers the driver holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include <linux/ioctl.h>

#include "raii.h"

// Wire record of every request but START. A record for a text of length n
// is one heap block of n + 20 bytes: the 16-byte header, n + 1 bytes of
// data and three spare bytes.
struct MiscCtrlParam {
    uint32_t status;   // driver: result code
    uint32_t bufLen;   // daemon: size of data, NUL included
    uint32_t dataLen;  // driver (GET): length of the returned text
    uint32_t needLen;  // driver (GET): text length it needs
    char data[4];      // bufLen bytes in fact
};
static_assert(sizeof(MiscCtrlParam) == 20);
static_assert(offsetof(MiscCtrlParam, status) == 0);
static_assert(offsetof(MiscCtrlParam, bufLen) == 4);
static_assert(offsetof(MiscCtrlParam, dataLen) == 8);
static_assert(offsetof(MiscCtrlParam, needLen) == 12);
static_assert(offsetof(MiscCtrlParam, data) == 16);

constexpr uint32_t MISC_CTRL_HEAD_LEN = offsetof(MiscCtrlParam, data);
constexpr uint32_t MISC_CTRL_EXTRA_LEN = 20;  // allocation = text length + 20

constexpr unsigned MISC_IOCTL_TYPE = 0xAC;
constexpr unsigned long MISC_IOCTL_ADD = _IOWR(MISC_IOCTL_TYPE, 10, MiscCtrlParam);
constexpr unsigned long MISC_IOCTL_REMOVE = _IOWR(MISC_IOCTL_TYPE, 11, MiscCtrlParam);
constexpr unsigned long MISC_IOCTL_GET_DEVNUMS = _IOWR(MISC_IOCTL_TYPE, 12, MiscCtrlParam);
constexpr unsigned long MISC_IOCTL_START = _IOWR(MISC_IOCTL_TYPE, 13, MiscCtrlParam);
constexpr unsigned long MISC_IOCTL_CHANGE = _IOWR(MISC_IOCTL_TYPE, 14, MiscCtrlParam);
static_assert(MISC_IOCTL_ADD == 0xC014AC0A);
static_assert(MISC_IOCTL_REMOVE == 0xC014AC0B);
static_assert(MISC_IOCTL_GET_DEVNUMS == 0xC014AC0C);
static_assert(MISC_IOCTL_START == 0xC014AC0D);
static_assert(MISC_IOCTL_CHANGE == 0xC014AC0E);

inline constexpr const char *MISC_DEVICE_NAME = "misc_qmnv";
inline constexpr const char *MISC_DEVICE_PATH = "/dev/misc_qmnv";

// GET replies are input from the kernel: a reply that asks for more than
// this is treated as a failed GET.
constexpr uint32_t MISC_GET_MAX_LEN = 16u * 1024u * 1024u;

int INTF_UTIL_MiscIoctlInit();
// The same open of another device node; Init opens MISC_DEVICE_PATH. The
// messages name MISC_DEVICE_NAME whatever the node.
int INTF_UTIL_MiscIoctlInitAt(const char *path);
void INTF_UTIL_MiscIoctlClose();
int INTF_UTIL_MiscIoctlStart();
int INTF_UTIL_MiscIoctlAdd(const char *devInfo);
int INTF_UTIL_MiscIoctlRemove(const char *devNum);
int INTF_UTIL_MiscIoctlChange(const char *devNum);
// The driver's device-number list as one blank-separated text, or null.
MallocPtr<char> INTF_UTIL_MiscIoctlGet();

// Record helpers: the request record and the copy of a GET reply.
MallocPtr<MiscCtrlParam> UTIL_MiscAllocCtrlNode(const char *text, uint32_t len);
// recordSize is the size of the block the reply came in (header included);
// its data area is the bufLen of such a record (recordSize - 19): a dataLen
// beyond it is a bad reply.
MallocPtr<char> UTIL_MiscAllocDeviceNums(const MiscCtrlParam *param, size_t recordSize);
