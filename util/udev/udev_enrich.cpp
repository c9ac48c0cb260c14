// Enrichment and filtering of event records: device number, action and
// the protocol's fields. No state of its own: the SAN-boot WWN belongs to
// udev_sanboot, the protocol table to udev_protocol.
#include "udev_enrich.h"

#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_devinfo.h"
#include "udev_event.h"
#include "udev_protocol.h"
#include "udev_sanboot.h"
#include "util_ret.h"

namespace {

bool UDEV_StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

int UDEV_DispatchAction(struct udev_device *udevDev, UdevEventNode *eventNode, const char *action)
{
    if (std::strcmp(action, "add") == 0) {
        return UDEV_InitAddEventNode(udevDev, eventNode);
    }
    if (std::strcmp(action, "remove") == 0) {
        return UDEV_InitRemoveEventNode(eventNode);
    }
    if (std::strcmp(action, "change") == 0) {
        return UDEV_InitChangeEventNode(eventNode);
    }
    MPI_Log(MPI_LOG_WARN, "udev action{%s} is not support.\n", action);
    return UDEV_RET_FAIL;
}

}  // namespace

int UDEV_EnrichAndFilterEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    // A retried node was enriched on an earlier walk; a node without a
    // device was built complete by the start-up scan.
    if (eventNode->isRetry == 1 || eventNode->udevDev == nullptr) {
        return UDEV_RET_OK;
    }
    struct udev_device *udevDev = eventNode->udevDev;
    if (UDEV_InitEventNodeBasicInfo(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    const char *action = udev_device_get_action(udevDev);
    if (action == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get udev action fail");
        return UDEV_RET_FAIL;
    }
    return UDEV_DispatchAction(udevDev, eventNode, action);
}

int UDEV_InitEventNodeBasicInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(udevDev);
    MPI_AssertNotNull(eventNode);
    if (UDEV_InitDevt(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (UDEV_ProtocolInit(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_InitDevt(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    const char *major = udev_device_get_property_value(udevDev, "MAJOR");
    if (major == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get device major fail");
        return UDEV_RET_FAIL;
    }
    const char *minor = udev_device_get_property_value(udevDev, "MINOR");
    if (minor == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get device minor fail");
        return UDEV_RET_FAIL;
    }
    if (sprintf_s(eventNode->devNum, sizeof(eventNode->devNum), "%s:%s", major, minor) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device num{%s:%s} failed.\n", major, minor);
        return UDEV_RET_FAIL;
    }
    // The trailing blank separates the protocol word that follows.
    if (sprintf_s(eventNode->devInfo, sizeof(eventNode->devInfo), "%s:%s ", major, minor) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device num{%s:%s} of devinfo failed.\n", major, minor);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_InitAddEventNode(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    // A device without a WWN is never filtered by the SAN-boot disk.
    const char *wwn = UDEV_ProtocolGetWwnByDevice(eventNode->protocol, udevDev);
    if (wwn != nullptr && !UDEV_FilterDeviceByWwn(wwn)) {
        return UDEV_RET_FAIL;
    }
    return UDEV_ProtocolInitAddEventNode(eventNode->protocol, udevDev, eventNode);
}

int UDEV_InitRemoveEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    // The driver knows a removed disk by devNum alone.
    return UDEV_SetEventAction(eventNode, "remove", __func__);
}

int UDEV_InitChangeEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(eventNode->udevDev);
    const char *sysname = udev_device_get_sysname(eventNode->udevDev);
    if (sysname == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the device name of udev device failed");
        return UDEV_RET_FAIL;
    }
    if (!UDEV_StartsWith(sysname, "sd") && !UDEV_StartsWith(sysname, "nvme")) {
        MPI_Log(MPI_LOG_DEBUG, "filter change event{%s}.\n", eventNode->devNum);
        return UDEV_RET_FAIL;
    }
    return UDEV_SetEventAction(eventNode, "change", __func__);
}
