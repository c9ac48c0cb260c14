// The monitor thread: the daemon's only source of live udev events.
#pragma once

struct udev;
struct udev_device;
struct udev_monitor;

int UDEV_CreateMonitorThread();  // UDEV_RET_OK / UDEV_RET_FAIL
void UDEV_DestoryMonitorThread();
void *UDEV_MonitorThr(void *arg);
int UDEV_Listen();  // always 0
bool UDEV_MonitorInit(struct udev *udev, struct udev_monitor **kernelMonitor, int *monitorFd);
void UDEV_MonitorRelease(struct udev *udev, struct udev_monitor *kernelMonitor);
int UDEV_WaitAndSendEvent(int monitorFd, struct udev_monitor *kernelMonitor);
void UDEV_MonitorObtainEvent(struct udev_monitor *monitor);
void UDEV_MonitorSendEvent(struct udev_device *udevDev);  // takes over the reference

// Receive buffer asked for the monitor socket, as systemd-udevd and
// multipathd do: a storm of events must not overflow the kernel socket.
constexpr int UDEV_MONITOR_RCVBUF_SIZE = 128 * 1024 * 1024;
constexpr int UDEV_MONITOR_POLL_MS = 120000;
