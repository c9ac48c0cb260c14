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
