// Transport time-outs written to sysfs after the driver accepted a SCSI add,
// and the protocol layer's libudev context they look devices up in.
//
// The work is split in two: a plan (which sysfs object, which attributes,
// which configured values, and what they hold now), made by reading only,
// and the writes of that plan. The daemon's finishing step does both; the
// administrator's tool shows the plan, so that it tells exactly what the
// daemon would write.
#pragma once

#include <cstdint>

#include "raii.h"

struct udev_device;
struct UdevEventNode;

constexpr uint32_t UDEV_TIMEOUT_NAME_LEN = 64;
constexpr uint32_t UDEV_TIMEOUT_VALUE_LEN = 16;
constexpr uint32_t UDEV_TIMEOUT_MAX_ATTRS = 2;

enum class UdevTimeoutKind { FC_RPORT, ISCSI_SESSION, SCSI_DEVICE };

// One attribute to set, in the order of the writes.
struct UdevTimeoutAttr {
    const char *name = nullptr;                    // "dev_loss_tmo", "timeout", ...
    char value[UDEV_TIMEOUT_VALUE_LEN + 1] = {0};  // the configured value, as text
    const char *current = nullptr;  // what the attribute holds (libudev's copy, lives with the device), or null
};

// One sysfs object of a disk and what is set on it. Owns the device for the
// life of the plan.
struct UdevTimeoutTarget {
    UdevTimeoutKind kind = UdevTimeoutKind::SCSI_DEVICE;
    UdevDevicePtr device;
    char name[UDEV_TIMEOUT_NAME_LEN] = {0};  // kernel name: rport-2:0-7, session5, 2:0:1:3
    UdevTimeoutAttr attrs[UDEV_TIMEOUT_MAX_ATTRS];
    uint32_t attrCount = 0;  // only settings that could be read; none is possible
};

// Everything the finishing step of one accepted SCSI add sets: the
// transport's object (FC remote port or iSCSI session) if the disk has one,
// then the SCSI device. A target whose object cannot be found is left out
// (and logged).
struct UdevTimeoutPlan {
    UdevTimeoutTarget targets[2];
    uint32_t count = 0;
};

// The context lives from before the worker threads start to after they
// stopped. Without it every plan fails its device lookup (and so every
// time-out write).
bool UDEV_ProtocolInitHandle();
void UDEV_ProtocolReleaseHandle();

// The plan of one accepted SCSI add, made by reading only. Its records
// (an object that cannot be found, a name that cannot be formed) are those
// of the daemon's writer below, under the same function names.
void UDEV_PlanScsiTimeOuts(const UdevEventNode *eventNode, UdevTimeoutPlan *plan);

void UDEV_SetHbaTimeOut(UdevEventNode *eventNode);
void UDEV_SetFcRportTimeOut(UdevEventNode *eventNode);
void UDEV_SetIscsiSessionTimeOut(UdevEventNode *eventNode);
void UDEV_SetScsiDeviceTimeOut(UdevEventNode *eventNode);
int UDEV_SetUdevDeviceAttrVal(struct udev_device *udevDev, const char *attrName, const char *value);
