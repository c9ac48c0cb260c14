// The handle thread: the single consumer of the event list.
#pragma once

int UDEV_CreateHandleThread();  // UDEV_RET_OK / UDEV_RET_FAIL
void UDEV_DestoryHandleThread();
void *UDEV_HandleThr(void *arg);
void UDEV_HandleEvent();  // one walk of the working list

// Run state of the handle thread (UDEV_THREAD_*), for diagnostics and tests.
int UDEV_GetHandleThreadState();

// Test seam: where the product driver's block major comes from (default
// UDEV_GetVlunMajorFromFile). A null argument restores the default.
using UdevVlunMajorFn = const char *(*)();
void UDEV_SetVlunMajorForTest(UdevVlunMajorFn source);
