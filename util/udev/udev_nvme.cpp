// The NVMe member of the protocol table. Parents reached here are borrowed
// from the node's block device and never unreferenced.
#include "udev_nvme.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_devinfo.h"
#include "udev_event.h"
#include "udev_query.h"
#include "util_ret.h"

namespace {

constexpr int NVME_NAME_FIELDS = 2;

bool UDEV_NvmeIsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// atoi's reading of an attribute (leading white space, a sign, then digits;
// 0 when absent or not a number), saturated instead of overflowing since
// sysfs texts are not to be trusted.
int32_t UDEV_NvmeAttrToInt(struct udev_device *udevDev, const char *attrName)
{
    const char *text = udev_device_get_sysattr_value(udevDev, attrName);
    if (text == nullptr) {
        return 0;
    }
    while (UDEV_NvmeIsSpace(*text)) {
        ++text;
    }
    bool negative = (*text == '-');
    if (*text == '-' || *text == '+') {
        ++text;
    }
    int64_t value = 0;
    const int64_t limit = negative ? -static_cast<int64_t>(INT32_MIN) : INT32_MAX;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + (*text - '0');
        if (value >= limit) {
            value = limit;
            break;
        }
    }
    return static_cast<int32_t>(negative ? -value : value);
}

}  // namespace

const char *UDEV_NvmeGetWwnByDevice(struct udev_device *udevDev)
{
    const char *wwn = udev_device_get_property_value(udevDev, "ID_WWN");
    if (wwn == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the wwn of udev device failed");
        return nullptr;
    }
    // The identifier's type word before the dot is not part of the WWN.
    return std::strchr(wwn, '.');
}

int UDEV_NvmeInitAddEventNodeInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(udevDev);
    MPI_AssertNotNull(eventNode);
    if (UDEV_NvmeFilterDevice(udevDev) != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_ERROR, " dev{%s} filter not support.\n", eventNode->devNum);
        return UDEV_RET_FAIL;
    }
    if (UDEV_NvmeInitEventNodeInfo(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    return UDEV_SetEventAction(eventNode, "add", __func__);
}

void UDEV_NvmeHandleAddFinish(UdevEventNode * /* eventNode */)
{
    // NVMe disks get no transport time-outs.
}

int UDEV_NvmeFilterDevice(struct udev_device *udevDev)
{
    MPI_AssertNotNull(udevDev);
    // Path devices of native NVMe multipathing are hidden; the product
    // claims the namespaces itself.
    const char *hidden = udev_device_get_sysattr_value(udevDev, "hidden");
    if (hidden != nullptr && hidden[0] == '1') {
        MPI_Log(MPI_LOG_WARN, "%s.\n", "the udev device skips because hidden");
        return UDEV_RET_FAIL;
    }
    // A device without a type is no disk, and only disks are filtered below.
    const char *devtype = udev_device_get_devtype(udevDev);
    if (devtype == nullptr || std::strncmp(devtype, "disk", 4) != 0) {
        return UDEV_RET_OK;
    }
    if (udev_device_get_parent_with_subsystem_devtype(udevDev, "nvme-subsystem", nullptr) == nullptr) {
        return UDEV_RET_OK;
    }
    MPI_Log(MPI_LOG_WARN, "%s.\n", "the nvme udev is not indentify");
    return UDEV_RET_FAIL;
}

int UDEV_NvmeInitEventNodeInfo(struct udev_device *udevDev, UdevEventNode *udevEventNode)
{
    MPI_AssertNotNull(udevDev);
    MPI_AssertNotNull(udevEventNode);
    if (UDEV_NvmeInitEventNodeManufacturer(udevDev, udevEventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (UDEV_NvmeInitEventNodeHctl(udevDev, udevEventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_NvmeInitEventNodeManufacturer(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    UdevVendorProduct found;
    if (UDEV_CheckVendorProduct(udevDev, INTF_UTIL_GetNvmeVendorProduct, &found, __func__) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (!UDEV_AppendDevInfo(eventNode, "%s %s ", found.vendor, found.product)) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s vendor{%s} product{%s} to devinfo fail.\n", found.vendor, found.product);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_NvmeInitEventNodeHctl(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    const char *name = udev_device_get_sysname(udevDev);
    if (name == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the device name of udev device failed");
        return UDEV_RET_FAIL;
    }
    if (sscanf_s(name, "nvme%dn%d", &eventNode->host, &eventNode->target) != NVME_NAME_FIELDS) {
        MPI_Log(MPI_LOG_ERROR, "can not achieve the hostid and channelid for nvme{%s}.\n", name);
        return UDEV_RET_FAIL;
    }
    // Both come from the namespace itself, not from its controller.
    eventNode->lun = UDEV_NvmeAttrToInt(udevDev, "nsid");
    eventNode->channel = UDEV_NvmeAttrToInt(udevDev, "cntlid");
    return UDEV_AppendDevInfoHctl(eventNode, "nvme", name, __func__);
}
