// SAN-boot command line, the boot disk's WWN and its filter, and readiness.
#pragma once

#include <cstdint>

constexpr unsigned UDEV_BOOT_PART_NAME_LEN = 32;
constexpr uint32_t UDEV_WWN_LEN = 36;

int UDEV_ProcessSanbootParameter(int argc, char *argv[]);
bool UDEV_IsValidPartName(const char *name);

// The boot disk's WWN: stored once from the command line, before any
// thread exists. With none stored, every device passes the filter.
bool UDEV_SetSanbootWwn(const char *wwn, int len);
bool UDEV_FilterDeviceByWwn(const char *wwn);

// Once a main-loop turn: "READY=1" at once, or (with a boot partition named
// on the command line) as soon as /dev/disk/by-uuid lists a link to it.
void UDEV_PutReady();
// The same against another directory of by-uuid links.
void UDEV_PutReadyIn(const char *byUuidDir);
