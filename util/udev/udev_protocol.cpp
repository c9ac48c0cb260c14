// Protocol dispatch. This module owns the protocol layer's libudev context;
// the time-out settings borrow it through UDEV_ProtocolUdev().
#include "udev_protocol.h"

#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_event.h"
#include "udev_nvme.h"
#include "udev_scsi.h"
#include "util_ret.h"

namespace {

constexpr UdevProtocolOps SCSI_OPS = {
    UDEV_ScsiGetWwnByDevice,
    UDEV_ScsiInitAddEventNodeInfo,
    UDEV_ScsiHandleAddFinish,
};

constexpr UdevProtocolOps NVME_OPS = {
    UDEV_NvmeGetWwnByDevice,
    UDEV_NvmeInitAddEventNodeInfo,
    UDEV_NvmeHandleAddFinish,
};

// Created before the worker threads start and dropped after they stop, so
// it needs no lock.
UdevPtr g_protocolUdev;

struct UdevProtocolName {
    const char *prefix;
    size_t prefixLen;
    uint32_t protocol;
    const char *word;
};

// Order matters: "sd" is tested first.
constexpr UdevProtocolName PROTOCOL_NAMES[] = {
    {"sd", 2, UDEV_PROTOCOL_SCSI, "scsi"},
    {"nvme", 4, UDEV_PROTOCOL_NVME, "nvme"},
};

const UdevProtocolName *UDEV_ProtocolFindByName(const char *sysname)
{
    for (const UdevProtocolName &entry : PROTOCOL_NAMES) {
        if (std::strncmp(sysname, entry.prefix, entry.prefixLen) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

const UdevProtocolOps *const g_protocolOpsTable[UDEV_PROTOCOL_BUTT] = {&SCSI_OPS, &NVME_OPS};

int UDEV_ProtocolInit(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    const char *sysname = udev_device_get_sysname(udevDev);
    if (sysname == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the device name of udev device failed");
        return UDEV_RET_FAIL;
    }
    const UdevProtocolName *entry = UDEV_ProtocolFindByName(sysname);
    if (entry == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get the device name{%s} of udev device is not support.\n", sysname);
        return UDEV_RET_FAIL;
    }
    eventNode->protocol = entry->protocol;
    // A devInfo without a terminator leaves no room at all.
    size_t used = strnlen(eventNode->devInfo, sizeof(eventNode->devInfo));
    if (sprintf_s(eventNode->devInfo + used, sizeof(eventNode->devInfo) - used, "%s ", entry->word) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s protocol{%s}  to devinfo fail.\n", entry->word);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

const char *UDEV_ProtocolGetWwnByDevice(uint32_t protocol, struct udev_device *udevDev)
{
    MPI_Assert(protocol < 2);
    return g_protocolOpsTable[protocol]->getWwnByDevice(udevDev);
}

int UDEV_ProtocolInitAddEventNode(uint32_t protocol, struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_Assert(protocol < 2);
    return g_protocolOpsTable[protocol]->initAddEventNode(udevDev, eventNode);
}

void UDEV_ProtocolHandleAddFinish(uint32_t protocol, UdevEventNode *eventNode)
{
    MPI_Assert(protocol < 2);
    g_protocolOpsTable[protocol]->handleAddFinish(eventNode);
}

bool UDEV_ProtocolInitHandle()
{
    g_protocolUdev.reset(udev_new());
    if (!g_protocolUdev) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "udev handle create new udev failed");
        return false;
    }
    return true;
}

void UDEV_ProtocolReleaseHandle()
{
    g_protocolUdev.reset();
}

struct udev *UDEV_ProtocolUdev()
{
    return g_protocolUdev.get();
}
