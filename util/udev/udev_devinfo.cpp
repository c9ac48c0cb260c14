// The texts of an event node. Written by the thread that holds the node
// (the start-up scan or the handle thread), so no lock.
#include "udev_devinfo.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "mpi_usr_if.h"
#include "securec.h"
#include "udev_config.h"
#include "udev_event.h"
#include "util_ret.h"

int UDEV_SetEventAction(UdevEventNode *eventNode, const char *action, const char *func)
{
    MPI_AssertNotNull(eventNode);
    if (memcpy_s(eventNode->action, sizeof(eventNode->action), action, std::strlen(action)) != EOK) {
        MPI_LogAs(func, MPI_LOG_ERROR, "memcpy_s action{%s} failed.\n", action);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

bool UDEV_AppendDevInfo(UdevEventNode *eventNode, const char *format, ...)
{
    MPI_AssertNotNull(eventNode);
    size_t used = strnlen(eventNode->devInfo, sizeof(eventNode->devInfo));
    size_t room = sizeof(eventNode->devInfo) - used;
    va_list argList;
    va_start(argList, format);
    // sprintf_s's rule: a text that does not fit whole is not appended, and
    // a full buffer (room 0) is refused by the bounded routine itself.
    int ret = vsnprintf_s(eventNode->devInfo + used, room, SIZE_MAX, format, argList);
    va_end(argList);
    return ret != -1;
}

int UDEV_AppendDevInfoHctl(UdevEventNode *eventNode, const char *word, const char *name, const char *func)
{
    if (!UDEV_AppendDevInfo(eventNode, "%d:%d:%d:%d", eventNode->host, eventNode->channel, eventNode->target,
                            eventNode->lun)) {
        MPI_LogAs(func, MPI_LOG_ERROR, "sprintf_s HCTL to devinfo failed for %s{%s}.\n", word, name);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_CheckVendorProduct(struct udev_device *udevDev, UdevVendorProductReader read, UdevVendorProduct *found,
                            const char *func)
{
    MPI_AssertNotNull(found);
    *found = {};
    if (read(udevDev, found->vendor, UTIL_VENDOR_LEN, found->product, UTIL_PRODUCT_LEN) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (!UDEV_DeviceIsSupport(found->vendor, found->product)) {
        MPI_LogAs(func, MPI_LOG_ERROR, "check the vendor{%s} product{%s} is not support.\n", found->vendor,
                  found->product);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}
