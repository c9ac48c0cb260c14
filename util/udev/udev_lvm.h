// LVM activation: the request armed by the handle thread, its five-tick
// debounce counted by the main loop, the thread that runs lvm pvscan, and
// the driver's block major that tells the handle thread a new virtual disk.
#pragma once

#include <cstdint>

inline constexpr const char *UDEV_LVM_COMMAND = "/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null";

void UDEV_RequestActivateLvm();
void UDEV_ClearActivateLvmRequest();
bool UDEV_ActivateLvmDue();
void UDEV_ActivateLvmTick();
int UDEV_RunActivateLvmCommand();
void *UDEV_ActivateLvmThr(void *arg);
int UDEV_CreateActivateLvm();
// The same thread running `command` (which must outlive it) instead of
// UDEV_LVM_COMMAND.
int UDEV_CreateActivateLvmWith(const char *command);
void UDEV_DestoryActivateLvm();

// Runs at most six times per request (the first try and five re-arms).
constexpr int UDEV_LVM_MAX_RETRY = 5;
constexpr unsigned UDEV_LVM_DUE_TICKS = 5;

// One check of the LVM thread's loop: if the request is due, clear it, run
// the command, and re-arm on failure while the retry counter allows.
// Returns true when the command ran. retryCount is the thread's counter.
bool UDEV_ActivateLvmCheck(int *retryCount);
// The same check with another command than UDEV_LVM_COMMAND.
bool UDEV_ActivateLvmCheckWith(int *retryCount, const char *command);

constexpr uint32_t UDEV_MAJOR_LEN = 32;

// The cached major-number text of the product's driver from /proc/devices
// (possibly empty: asked again on the next call), or null when the command
// could not be run. Used by the handle thread only.
const char *UDEV_GetVlunMajorFromFile();
