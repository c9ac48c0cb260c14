// The handle thread: the single consumer of the event list.
#pragma once

int UDEV_CreateHandleThread();  // UDEV_RET_OK / UDEV_RET_FAIL
void UDEV_DestoryHandleThread();
void *UDEV_HandleThr(void *arg);
void UDEV_HandleEvent();  // one walk of the working list
