// LVM activation: the request armed by the handle thread, its five-tick
// debounce counted by the main loop, and the thread that runs lvm pvscan.
#pragma once

inline constexpr const char *UDEV_LVM_COMMAND = "/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null";

void UDEV_RequestActivateLvm();
void UDEV_ClearActivateLvmRequest();
bool UDEV_ActivateLvmDue();
void UDEV_ActivateLvmTick();
int UDEV_RunActivateLvmCommand();
void *UDEV_ActivateLvmThr(void *arg);
int UDEV_CreateActivateLvm();
void UDEV_DestoryActivateLvm();

// Runs at most six times per request (the first try and five re-arms).
constexpr int UDEV_LVM_MAX_RETRY = 5;
constexpr unsigned UDEV_LVM_DUE_TICKS = 5;

// One check of the LVM thread's loop: if the request is due, clear it, run
// the command, and re-arm on failure while the retry counter allows.
// Returns true when the command ran. retryCount is the thread's counter.
bool UDEV_ActivateLvmCheck(int *retryCount);

// Thread state: 0 created, 2 running, 3 stopped.
int UDEV_GetActivateLvmState();

// Test seam: run `command` instead of UDEV_LVM_COMMAND (null restores it).
// The text must outlive its use.
void UDEV_SetLvmCommandForTest(const char *command);
