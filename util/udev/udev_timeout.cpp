// Transport time-outs written after the driver accepted a SCSI disk. The
// values belong to the time-out settings module. The devices are looked up
// in the protocol layer's libudev context, which lives here, its only user:
// made before the worker threads start and dropped after they stop, so it
// needs no lock. Each device is owned here only for one write.
#include "udev_timeout.h"

#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_event.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

namespace {

constexpr size_t TIMEOUT_NAME_LEN = 64;
constexpr uint32_t TIMEOUT_VALUE_LEN = 16;
constexpr size_t TIMEOUT_ATTR_COPY_LEN = 32;

UdevPtr g_protocolUdev;

// Holds the configured value of one setting as text.
struct TimeoutValue {
    char text[TIMEOUT_VALUE_LEN + 1] = {0};
};

// False when the setting cannot be read: the attribute is then left alone
// without a word, as the settings module has already spoken.
bool UDEV_GetTimeoutValue(const char *settingName, TimeoutValue *value)
{
    (void)memset_s(value->text, sizeof(value->text), 0, sizeof(value->text));
    return UDEV_GetQmLinuxCfgValue(settingName, value->text, TIMEOUT_VALUE_LEN) == UDEV_RET_OK;
}

UdevDevicePtr UDEV_LookupDevice(const char *subsystem, const char *sysname)
{
    if (!g_protocolUdev) {
        return nullptr;
    }
    return UdevDevicePtr(udev_device_new_from_subsystem_sysname(g_protocolUdev.get(), subsystem, sysname));
}

}  // namespace

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

void UDEV_SetHbaTimeOut(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    if (eventNode->transportType == UDEV_TRANSPORT_FCP) {
        UDEV_SetFcRportTimeOut(eventNode);
    }
    if (eventNode->transportType == UDEV_TRANSPORT_ISCSI) {
        UDEV_SetIscsiSessionTimeOut(eventNode);
    }
}

void UDEV_SetFcRportTimeOut(UdevEventNode *eventNode)
{
    char portName[TIMEOUT_NAME_LEN] = {0};
    if (sprintf_s(portName, sizeof(portName), "rport-%d:%d-%d", eventNode->host, eventNode->channel,
                  eventNode->transportId) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return;
    }
    UdevDevicePtr port = UDEV_LookupDevice("fc_remote_ports", portName);
    if (!port) {
        MPI_Log(MPI_LOG_ERROR, "device{%s} port{%s} get udev device fail.\n", eventNode->devNum, portName);
        return;
    }
    TimeoutValue value;
    if (!UDEV_GetTimeoutValue("dev_loss_tmo", &value)) {
        return;
    }
    if (UDEV_SetUdevDeviceAttrVal(port.get(), "dev_loss_tmo", value.text) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "device{%s} set rport{%s} dev_loss_tmo fail.\n", eventNode->devNum, portName);
        return;
    }
    // The fast-fail time is only meaningful below an established loss time.
    if (!UDEV_GetTimeoutValue("fast_io_fail_tmo", &value)) {
        return;
    }
    if (UDEV_SetUdevDeviceAttrVal(port.get(), "fast_io_fail_tmo", value.text) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "device{%s} set rport{%s} dev_loss_tmo fail.\n", eventNode->devNum, portName);
    }
}

void UDEV_SetIscsiSessionTimeOut(UdevEventNode *eventNode)
{
    char sessionName[TIMEOUT_NAME_LEN] = {0};
    if (sprintf_s(sessionName, sizeof(sessionName), "session%d", eventNode->transportId) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return;
    }
    UdevDevicePtr session = UDEV_LookupDevice("iscsi_session", sessionName);
    if (!session) {
        MPI_Log(MPI_LOG_ERROR, "dev{%s} get session{%s} udev device fail.\n", eventNode->devNum, sessionName);
        return;
    }
    TimeoutValue value;
    if (!UDEV_GetTimeoutValue("recovery_tmo", &value)) {
        return;
    }
    if (UDEV_SetUdevDeviceAttrVal(session.get(), "recovery_tmo", value.text) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "dev{%s} set session{%s} recovery_tmo fail.\n", eventNode->devNum, sessionName);
    }
}

void UDEV_SetScsiDeviceTimeOut(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    char deviceName[TIMEOUT_NAME_LEN] = {0};
    if (sprintf_s(deviceName, sizeof(deviceName), "%d:%d:%d:%d", eventNode->host, eventNode->channel,
                  eventNode->target, eventNode->lun) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return;
    }
    UdevDevicePtr device = UDEV_LookupDevice("scsi", deviceName);
    if (!device) {
        MPI_Log(MPI_LOG_ERROR, "device{%s,%s} get udev device fail.\n", eventNode->devNum, deviceName);
        return;
    }
    TimeoutValue value;
    if (!UDEV_GetTimeoutValue("scsi_timeout", &value)) {
        return;
    }
    if (UDEV_SetUdevDeviceAttrVal(device.get(), "timeout", value.text) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, "device{%s,%s} set timeout fail.\n", eventNode->devNum, deviceName);
    }
}

int UDEV_SetUdevDeviceAttrVal(struct udev_device *udevDev, const char *attrName, const char *value)
{
    if (udevDev == nullptr || attrName == nullptr || value == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get udev device's attr{%s} to val{%s} fail.\n", (attrName == nullptr) ? "" : attrName,
                (value == nullptr) ? "" : value);
        return UDEV_RET_FAIL;
    }
    char oldValue[TIMEOUT_ATTR_COPY_LEN + 1] = {0};
    char newValue[TIMEOUT_ATTR_COPY_LEN + 1] = {0};
    const char *current = udev_device_get_sysattr_value(udevDev, attrName);
    if (current == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get udev device's attr{%s} to val{%s} fail.\n", attrName, value);
        return UDEV_RET_FAIL;
    }
    if (std::strcmp(current, value) == 0) {
        MPI_Log(MPI_LOG_DEBUG, "get udev device's attr{%s} also is val{%s}.\n", attrName, value);
        return UDEV_RET_OK;
    }
    // The old value is only for the record: an over-long one is not kept.
    if (sprintf_s(oldValue, TIMEOUT_ATTR_COPY_LEN, "%s", current) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s value{%s}.\n", current);
    }
    if (sprintf_s(newValue, TIMEOUT_ATTR_COPY_LEN, "%s", value) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s value{%s} fail.\n", value);
        return UDEV_RET_FAIL;
    }
    int ret = udev_device_set_sysattr_value(udevDev, attrName, newValue);
    if (ret < 0) {
        MPI_Log(MPI_LOG_ERROR, "set udev device's attr{%s} val{%s to %s} fail. error{%d}\n", attrName, oldValue,
                newValue, -ret);
        return UDEV_RET_FAIL;
    }
    MPI_Log(MPI_LOG_INFO, "set udev device's attr{%s} val{%s to %s} success.\n", attrName, oldValue, newValue);
    return UDEV_RET_OK;
}
