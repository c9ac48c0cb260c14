// Protocol dispatch: SCSI ("sd") or NVMe ("nvme") chosen from the kernel
// name, and the three operations of each protocol in one constant table.
#pragma once

#include <cstdint>

struct udev_device;
struct UdevEventNode;

enum UdevProtocol : uint32_t {
    UDEV_PROTOCOL_SCSI = 0,
    UDEV_PROTOCOL_NVME = 1,
    UDEV_PROTOCOL_BUTT,  // the table's end: every protocol number is below it
};

struct UdevProtocolOps {
    const char *namePrefix;  // of the block device's kernel name
    const char *word;        // in devInfo, behind the device number
    const char *(*getWwnByDevice)(struct udev_device *udevDev);
    int (*initAddEventNode)(struct udev_device *udevDev, UdevEventNode *eventNode);
    void (*handleAddFinish)(UdevEventNode *eventNode);
};

int UDEV_ProtocolInit(struct udev_device *udevDev, UdevEventNode *eventNode);
const char *UDEV_ProtocolGetWwnByDevice(uint32_t protocol, struct udev_device *udevDev);
int UDEV_ProtocolInitAddEventNode(uint32_t protocol, struct udev_device *udevDev, UdevEventNode *eventNode);
void UDEV_ProtocolHandleAddFinish(uint32_t protocol, UdevEventNode *eventNode);
