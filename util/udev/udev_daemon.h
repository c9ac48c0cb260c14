// Start-up, the one-second main loop and shutdown.
#pragma once

inline constexpr const char *UDEV_PID_FILE = "/run/qmudev.pid";

int UDEV_Main(int argc, char *argv[]);  // the whole of main
bool UDEV_Init();
bool UDEV_CheckRunning();  // the lock on UDEV_PID_FILE
// The same single-instance lock on another file.
bool UDEV_CheckRunningAt(const char *path);
int UDEV_LockFile(int fd);
bool UDEV_TriggerAchieveBindInfo();
int UDEV_CreateThreads();
void UDEV_DestroyThreads();
void UDEV_Shutdown();
void UDEV_SetPidBack();
