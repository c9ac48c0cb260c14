// Result codes shared by the daemon, its utilities and the kernel driver.
// One 32-bit code space: the driver answers with its own status words in it.
#pragma once

#include <cstdint>

constexpr int32_t UDEV_RET_OK = 1024;
constexpr int32_t UDEV_RET_INVALID_PARAM = 1026;
constexpr int32_t UDEV_RET_FAIL = 1030;
constexpr int32_t UDEV_RET_NOMEM = 1037;
constexpr int32_t UDEV_RET_BUF_SHORT = 1038;      // driver: data area too small, ask again with needLen
constexpr int32_t UDEV_RET_CALLBACK_FAIL = 1050;  // the line reader's callback refused a line
constexpr int32_t UDEV_RET_NOT_FOUND = 1056;      // setting name unknown; SCSI disk without scsi_device parent
constexpr int32_t UDEV_RET_SKIP = 1058;           // not a device this helper handles; a traversal goes on

// Driver status words that the dispatcher counts as success (their meaning
// belongs to the driver).
constexpr int32_t UDEV_DRV_ADD_DONE_NOFINISH = 1052;
constexpr int32_t UDEV_DRV_REMOVE_DONE_A = 1055;
constexpr int32_t UDEV_DRV_REMOVE_DONE_B = 1056;
constexpr int32_t UDEV_DRV_ADD_DONE = 1061;
