// Transport time-outs written after the driver accepted a SCSI disk. The
// values belong to the time-out settings module. The devices are looked up
// in the protocol layer's libudev context, which lives here, its only user:
// made before the worker threads start and dropped after they stop, so it
// needs no lock. Each device is owned by a plan for one write. The plan only
// reads, so the administrator's tool shows it with the same code.
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

constexpr size_t TIMEOUT_ATTR_COPY_LEN = 32;

UdevPtr g_protocolUdev;

// The daemon's entry point that plans and writes each kind of object: a
// plan's records carry its name, whoever makes the plan.
const char *WriterName(UdevTimeoutKind kind)
{
    switch (kind) {
        case UdevTimeoutKind::FC_RPORT:
            return "UDEV_SetFcRportTimeOut";
        case UdevTimeoutKind::ISCSI_SESSION:
            return "UDEV_SetIscsiSessionTimeOut";
        case UdevTimeoutKind::SCSI_DEVICE:
            break;
    }
    return "UDEV_SetScsiDeviceTimeOut";
}

UdevDevicePtr LookupDevice(const char *subsystem, const char *sysname)
{
    if (!g_protocolUdev) {
        return nullptr;
    }
    return UdevDevicePtr(udev_device_new_from_subsystem_sysname(g_protocolUdev.get(), subsystem, sysname));
}

// False when the setting cannot be read: the attribute is then left alone
// without a word, as the settings module has already spoken.
bool PlanAttr(UdevTimeoutTarget *target, const char *settingName, const char *attrName)
{
    UdevTimeoutAttr *attr = &target->attrs[target->attrCount];
    attr->name = attrName;
    (void)memset_s(attr->value, sizeof(attr->value), 0, sizeof(attr->value));
    if (UDEV_GetQmLinuxCfgValue(settingName, attr->value, UDEV_TIMEOUT_VALUE_LEN) != UDEV_RET_OK) {
        return false;
    }
    attr->current = udev_device_get_sysattr_value(target->device.get(), attrName);
    target->attrCount++;
    return true;
}

// Each planner returns false when there is nothing to write on its object
// (the name cannot be formed, the object is not found: logged).
bool PlanFcRport(const UdevEventNode *eventNode, UdevTimeoutTarget *target)
{
    *target = UdevTimeoutTarget{};
    target->kind = UdevTimeoutKind::FC_RPORT;
    const char *func = WriterName(target->kind);
    if (sprintf_s(target->name, sizeof(target->name), "rport-%d:%d-%d", eventNode->host, eventNode->channel,
                  eventNode->transportId) == -1) {
        MPI_LogAs(func, MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return false;
    }
    target->device = LookupDevice("fc_remote_ports", target->name);
    if (!target->device) {
        MPI_LogAs(func, MPI_LOG_ERROR, "device{%s} port{%s} get udev device fail.\n", eventNode->devNum,
                  target->name);
        return false;
    }
    if (PlanAttr(target, "dev_loss_tmo", "dev_loss_tmo")) {
        (void)PlanAttr(target, "fast_io_fail_tmo", "fast_io_fail_tmo");
    }
    return true;
}

bool PlanIscsiSession(const UdevEventNode *eventNode, UdevTimeoutTarget *target)
{
    *target = UdevTimeoutTarget{};
    target->kind = UdevTimeoutKind::ISCSI_SESSION;
    const char *func = WriterName(target->kind);
    if (sprintf_s(target->name, sizeof(target->name), "session%d", eventNode->transportId) == -1) {
        MPI_LogAs(func, MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return false;
    }
    target->device = LookupDevice("iscsi_session", target->name);
    if (!target->device) {
        MPI_LogAs(func, MPI_LOG_ERROR, "dev{%s} get session{%s} udev device fail.\n", eventNode->devNum,
                  target->name);
        return false;
    }
    (void)PlanAttr(target, "recovery_tmo", "recovery_tmo");
    return true;
}

// The transport's object: an FC remote port or an iSCSI session, or none.
bool PlanHba(const UdevEventNode *eventNode, UdevTimeoutTarget *target)
{
    if (eventNode->transportType == UDEV_TRANSPORT_FCP) {
        return PlanFcRport(eventNode, target);
    }
    if (eventNode->transportType == UDEV_TRANSPORT_ISCSI) {
        return PlanIscsiSession(eventNode, target);
    }
    return false;
}

bool PlanScsiDevice(const UdevEventNode *eventNode, UdevTimeoutTarget *target)
{
    *target = UdevTimeoutTarget{};
    target->kind = UdevTimeoutKind::SCSI_DEVICE;
    const char *func = WriterName(target->kind);
    if (sprintf_s(target->name, sizeof(target->name), "%d:%d:%d:%d", eventNode->host, eventNode->channel,
                  eventNode->target, eventNode->lun) == -1) {
        MPI_LogAs(func, MPI_LOG_ERROR, "sprintf_s device{%s} rport fail.\n", eventNode->devNum);
        return false;
    }
    target->device = LookupDevice("scsi", target->name);
    if (!target->device) {
        MPI_LogAs(func, MPI_LOG_ERROR, "device{%s,%s} get udev device fail.\n", eventNode->devNum, target->name);
        return false;
    }
    (void)PlanAttr(target, "scsi_timeout", "timeout");
    return true;
}

// Writes the plan of one object in order and stops at the first attribute
// that does not end up holding its value: the fast-fail time of an FC port
// is only meaningful below an established loss time.
void WriteTimeOut(const UdevEventNode *eventNode, const UdevTimeoutTarget &target)
{
    const char *func = WriterName(target.kind);
    for (uint32_t i = 0; i < target.attrCount; i++) {
        const UdevTimeoutAttr &attr = target.attrs[i];
        if (UDEV_SetUdevDeviceAttrVal(target.device.get(), attr.name, attr.value) == UDEV_RET_OK) {
            continue;
        }
        switch (target.kind) {
            case UdevTimeoutKind::FC_RPORT:  // one text for both of the port's attributes
                MPI_LogAs(func, MPI_LOG_ERROR, "device{%s} set rport{%s} dev_loss_tmo fail.\n", eventNode->devNum,
                          target.name);
                break;
            case UdevTimeoutKind::ISCSI_SESSION:
                MPI_LogAs(func, MPI_LOG_ERROR, "dev{%s} set session{%s} recovery_tmo fail.\n", eventNode->devNum,
                          target.name);
                break;
            case UdevTimeoutKind::SCSI_DEVICE:
                MPI_LogAs(func, MPI_LOG_ERROR, "device{%s,%s} set timeout fail.\n", eventNode->devNum, target.name);
                break;
        }
        return;
    }
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

void UDEV_PlanScsiTimeOuts(const UdevEventNode *eventNode, UdevTimeoutPlan *plan)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(plan);
    plan->count = 0;
    if (PlanHba(eventNode, &plan->targets[plan->count])) {
        plan->count++;
    }
    if (PlanScsiDevice(eventNode, &plan->targets[plan->count])) {
        plan->count++;
    }
}

void UDEV_SetHbaTimeOut(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    UdevTimeoutTarget target;
    if (PlanHba(eventNode, &target)) {
        WriteTimeOut(eventNode, target);
    }
}

void UDEV_SetFcRportTimeOut(UdevEventNode *eventNode)
{
    UdevTimeoutTarget target;
    if (PlanFcRport(eventNode, &target)) {
        WriteTimeOut(eventNode, target);
    }
}

void UDEV_SetIscsiSessionTimeOut(UdevEventNode *eventNode)
{
    UdevTimeoutTarget target;
    if (PlanIscsiSession(eventNode, &target)) {
        WriteTimeOut(eventNode, target);
    }
}

void UDEV_SetScsiDeviceTimeOut(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    UdevTimeoutTarget target;
    if (PlanScsiDevice(eventNode, &target)) {
        WriteTimeOut(eventNode, target);
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
