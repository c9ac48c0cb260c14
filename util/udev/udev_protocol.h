// Protocol dispatch: SCSI ("sd") or NVMe ("nvme") chosen from the kernel
// name, three operations per protocol in a constant table, and the protocol
// layer's own libudev context.
#pragma once

#include <cstdint>

struct udev;
struct udev_device;
struct UdevEventNode;

constexpr uint32_t UDEV_PROTOCOL_SCSI = 0;
constexpr uint32_t UDEV_PROTOCOL_NVME = 1;
constexpr uint32_t UDEV_PROTOCOL_BUTT = 2;

struct UdevProtocolOps {
    const char *(*getWwnByDevice)(struct udev_device *udevDev);
    int (*initAddEventNode)(struct udev_device *udevDev, UdevEventNode *eventNode);
    void (*handleAddFinish)(UdevEventNode *eventNode);
};

extern const UdevProtocolOps *const g_protocolOpsTable[UDEV_PROTOCOL_BUTT];

int UDEV_ProtocolInit(struct udev_device *udevDev, UdevEventNode *eventNode);
const char *UDEV_ProtocolGetWwnByDevice(uint32_t protocol, struct udev_device *udevDev);
int UDEV_ProtocolInitAddEventNode(uint32_t protocol, struct udev_device *udevDev, UdevEventNode *eventNode);
void UDEV_ProtocolHandleAddFinish(uint32_t protocol, UdevEventNode *eventNode);
bool UDEV_ProtocolInitHandle();
void UDEV_ProtocolReleaseHandle();
// The context made by UDEV_ProtocolInitHandle (null outside its life).
struct udev *UDEV_ProtocolUdev();
