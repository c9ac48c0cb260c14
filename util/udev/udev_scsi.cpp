// The SCSI member of the protocol table. Every parent device reached here is
// borrowed from the node's block device (libudev keeps parents alive with
// their child), so none of them is unreferenced.
#include "udev_scsi.h"

#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_devinfo.h"
#include "udev_event.h"
#include "udev_query.h"
#include "udev_timeout.h"
#include "util_ret.h"

namespace {

constexpr int SCSI_HCTL_FIELDS = 4;
constexpr int SCSI_RPORT_FIELDS = 3;
constexpr int SCSI_SESSION_FIELDS = 1;

struct udev_device *UDEV_ScsiFindScsiParent(struct udev_device *udevDev)
{
    for (struct udev_device *dev = udevDev; dev != nullptr; dev = udev_device_get_parent(dev)) {
        const char *subsystem = udev_device_get_subsystem(dev);
        if (subsystem != nullptr && std::strncmp(subsystem, "scsi", 4) == 0) {
            return dev;
        }
    }
    return nullptr;
}

// The remote-port name is the FC transport's "rport-<host>:<channel>-<port>";
// only the port number is kept, the rest is rebuilt from the node.
bool UDEV_ScsiTryFcRport(struct udev_device *scsiTarget, UdevEventNode *eventNode)
{
    struct udev_device *rport = udev_device_get_parent(scsiTarget);
    const char *name = (rport == nullptr) ? nullptr : udev_device_get_sysname(rport);
    if (name == nullptr) {
        return false;
    }
    int rportHost = -1;
    int rportChannel = -1;
    int rportId = -1;
    if (sscanf_s(name, "rport-%d:%d-%d", &rportHost, &rportChannel, &rportId) != SCSI_RPORT_FIELDS) {
        return false;
    }
    MPI_Log(MPI_LOG_DEBUG, "SCSI target %d:%d:%d -> FC rport %d:%d-%d.\n", eventNode->host, eventNode->channel,
            eventNode->target, rportHost, rportChannel, rportId);
    eventNode->transportType = UDEV_TRANSPORT_FCP;
    eventNode->transportId = rportId;
    return true;
}

void UDEV_ScsiTryIscsiSession(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    for (struct udev_device *dev = udevDev; dev != nullptr; dev = udev_device_get_parent(dev)) {
        const char *name = udev_device_get_sysname(dev);
        int session = -1;
        if (name != nullptr && sscanf_s(name, "session%d", &session) == SCSI_SESSION_FIELDS) {
            MPI_Log(MPI_LOG_INFO, "SCSI target session{%d} in tgt name{%s}.\n", session, name);
            eventNode->transportType = UDEV_TRANSPORT_ISCSI;
            eventNode->transportId = session;
            return;
        }
    }
}

int UDEV_ScsiAppendHctl(struct udev_device *scsiDev, UdevEventNode *eventNode)
{
    const char *name = udev_device_get_sysname(scsiDev);
    if (name == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get device{%s} path fail.\n", eventNode->devNum);
        return UDEV_RET_FAIL;
    }
    if (sscanf_s(name, "%i:%i:%i:%i", &eventNode->host, &eventNode->channel, &eventNode->target,
                 &eventNode->lun) != SCSI_HCTL_FIELDS) {
        MPI_Log(MPI_LOG_ERROR, "device{%s} path{%s} analysis h:c:t:l fail.\n", eventNode->devNum, name);
        return UDEV_RET_FAIL;
    }
    MPI_Log(MPI_LOG_DEBUG, "get device{%s} h:c:t:l{%d:%d:%d:%d}.\n", eventNode->devNum, eventNode->host,
            eventNode->channel, eventNode->target, eventNode->lun);
    return UDEV_AppendDevInfoHctl(eventNode, "scsi", name, __func__);
}

}  // namespace

const char *UDEV_ScsiGetWwnByDevice(struct udev_device *udevDev)
{
    const char *wwn = udev_device_get_property_value(udevDev, "ID_WWN_WITH_EXTENSION");
    if (wwn == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the wwn of udev device failed");
    }
    return wwn;
}

int UDEV_ScsiInitAddEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(udevDev);
    MPI_AssertNotNull(eventNode);
    if (UDEV_ScsiInitEventNodeInfo(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    return UDEV_SetEventAction(eventNode, "add", __func__);
}

void UDEV_ScsiHandleAddFinish(UdevEventNode *eventNode)
{
    UDEV_SetHbaTimeOut(eventNode);
    UDEV_SetScsiDeviceTimeOut(eventNode);
}

int UDEV_ScsiInitEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    struct udev_device *scsiDev = UDEV_ScsiFindScsiParent(udevDev);
    if (scsiDev == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get device{%s} scsi parent fail.\n", eventNode->devNum);
        return UDEV_RET_FAIL;
    }
    if (UDEV_ScsiCheckUdevDevIsSupport(scsiDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (UDEV_ScsiAppendHctl(scsiDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    // A disk whose transport is not found is still taken over.
    UDEV_ScsiInitEventNodeTgtInfo(udevDev, eventNode);
    return UDEV_RET_OK;
}

int UDEV_ScsiCheckUdevDevIsSupport(struct udev_device *scsiDev, UdevEventNode *eventNode)
{
    UdevVendorProduct found;
    if (UDEV_CheckVendorProduct(scsiDev, INTF_UTIL_GetScsiVendorProduct, &found, __func__) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (!UDEV_AppendDevInfo(eventNode, "%s %s ", found.vendor, found.product)) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "sprintf_s vendor and product to devinfo for scsidev fail");
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

void UDEV_ScsiInitEventNodeTgtInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    struct udev_device *scsiTarget = udev_device_get_parent_with_subsystem_devtype(udevDev, "scsi", "scsi_target");
    if (scsiTarget == nullptr) {
        MPI_Log(MPI_LOG_WARN, "get device{%s} scsi target fail.\n", eventNode->devNum);
        return;
    }
    if (UDEV_ScsiTryFcRport(scsiTarget, eventNode)) {
        return;
    }
    UDEV_ScsiTryIscsiSession(udevDev, eventNode);
}
