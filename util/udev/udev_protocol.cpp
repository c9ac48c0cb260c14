// Protocol dispatch. The table is the only state, and it is constant.
#include "udev_protocol.h"

#include <array>
#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "udev_devinfo.h"
#include "udev_event.h"
#include "udev_nvme.h"
#include "udev_scsi.h"
#include "util_ret.h"

namespace {

using UdevProtocolTable = std::array<UdevProtocolOps, UDEV_PROTOCOL_BUTT>;

constexpr UdevProtocolTable UDEV_MakeProtocolTable()
{
    UdevProtocolTable table{};
    table[UDEV_PROTOCOL_SCSI] = {
        .namePrefix = "sd",
        .word = "scsi",
        .getWwnByDevice = UDEV_ScsiGetWwnByDevice,
        .initAddEventNode = UDEV_ScsiInitAddEventNodeInfo,
        .handleAddFinish = UDEV_ScsiHandleAddFinish,
    };
    table[UDEV_PROTOCOL_NVME] = {
        .namePrefix = "nvme",
        .word = "nvme",
        .getWwnByDevice = UDEV_NvmeGetWwnByDevice,
        .initAddEventNode = UDEV_NvmeInitAddEventNodeInfo,
        .handleAddFinish = UDEV_NvmeHandleAddFinish,
    };
    return table;
}

// Indexed by the protocol number. Kernel names are matched in this order:
// "sd" is tested first.
constexpr UdevProtocolTable g_protocolOpsTable = UDEV_MakeProtocolTable();

// An entry is written whole or not at all; one without its names was left
// out. (Function addresses are no constant expressions under the
// sanitizers, so the names tell.)
constexpr bool UDEV_ProtocolTableIsFull()
{
    for (const UdevProtocolOps &ops : g_protocolOpsTable) {
        if (ops.namePrefix == nullptr || ops.word == nullptr) {
            return false;
        }
    }
    return true;
}
static_assert(UDEV_ProtocolTableIsFull(), "every protocol number has its entry");

// A number at or past the table's end fails the check "protocol < 2" (the
// text the record carries) and holds the calling thread.
static_assert(UDEV_PROTOCOL_BUTT == 2, "the check's text names the table's end");
#define UDEV_PROTOCOL_OPS(protocol)                                   \
    ((protocol) < UDEV_PROTOCOL_BUTT ? g_protocolOpsTable[(protocol)] \
                                     : (MPI_AssertFail(__func__, __LINE__, "protocol < 2"), g_protocolOpsTable[0]))

}  // namespace

int UDEV_ProtocolInit(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    const char *sysname = udev_device_get_sysname(udevDev);
    if (sysname == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the device name of udev device failed");
        return UDEV_RET_FAIL;
    }
    for (uint32_t protocol = 0; protocol < UDEV_PROTOCOL_BUTT; ++protocol) {
        const UdevProtocolOps &ops = g_protocolOpsTable[protocol];
        if (std::strncmp(sysname, ops.namePrefix, std::strlen(ops.namePrefix)) != 0) {
            continue;
        }
        eventNode->protocol = protocol;
        if (!UDEV_AppendDevInfo(eventNode, "%s ", ops.word)) {
            MPI_Log(MPI_LOG_ERROR, "sprintf_s protocol{%s}  to devinfo fail.\n", ops.word);
            return UDEV_RET_FAIL;
        }
        return UDEV_RET_OK;
    }
    MPI_Log(MPI_LOG_ERROR, "get the device name{%s} of udev device is not support.\n", sysname);
    return UDEV_RET_FAIL;
}

const char *UDEV_ProtocolGetWwnByDevice(uint32_t protocol, struct udev_device *udevDev)
{
    return UDEV_PROTOCOL_OPS(protocol).getWwnByDevice(udevDev);
}

int UDEV_ProtocolInitAddEventNode(uint32_t protocol, struct udev_device *udevDev, UdevEventNode *eventNode)
{
    return UDEV_PROTOCOL_OPS(protocol).initAddEventNode(udevDev, eventNode);
}

void UDEV_ProtocolHandleAddFinish(uint32_t protocol, UdevEventNode *eventNode)
{
    UDEV_PROTOCOL_OPS(protocol).handleAddFinish(eventNode);
}
