// libudev enumeration and vendor/product queries. The enumerators and the
// devices made here are owned here and dropped on every path; devices passed
// to a callback are only lent to it for the length of the call.
#include "udev_query.h"

#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "util_ret.h"

namespace {

bool UTIL_VendorProductArgsValid(const struct udev_device *dev, const char *vendor, int32_t vendorLen,
                                 const char *product, int32_t productLen)
{
    if (dev == nullptr || vendor == nullptr || product == nullptr || vendorLen <= 0 || productLen <= 0) {
        MPI_Log(MPI_LOG_ERROR, "the parameter is NULL.\n");
        return false;
    }
    return true;
}

// Which of the two public walkers asks: their match-failure texts differ.
enum class UtilScanCaller { TRAVERSE, GET_DEVICE };

// Enumerator of one subsystem, scanned; null after a logged failure.
UdevEnumeratePtr UTIL_ScanSubsystem(struct udev *udev, const char *subsystem, UtilScanCaller caller)
{
    UdevEnumeratePtr enumerator(udev_enumerate_new(udev));
    if (!enumerator) {
        MPI_Log(MPI_LOG_ERROR, "udev enumerate iterator is NULL.\n");
        return nullptr;
    }
    int ret = udev_enumerate_add_match_subsystem(enumerator.get(), subsystem);
    if (ret != 0) {
        if (caller == UtilScanCaller::TRAVERSE) {
            MPI_Log(MPI_LOG_ERROR, "udev enumerate add match subsys{%s} fail with ret{%d}.\n", subsystem, ret);
        } else {
            MPI_Log(MPI_LOG_ERROR, "udev enumerate add match subsystem{%s} fail with ret{%d}.\n", subsystem, ret);
        }
        return nullptr;
    }
    ret = udev_enumerate_scan_devices(enumerator.get());
    if (ret != 0) {
        MPI_Log(MPI_LOG_ERROR, "udev enumerate scan fail with ret{%d}.\n", ret);
        return nullptr;
    }
    return enumerator;
}

// Every enumerated device in order, made from its path and dropped after
// `visit` (path, device or null when it vanished) has seen it; a false from
// `visit` ends the walk. `func` names the walker in the records.
template <class Visit>
void UTIL_WalkEnumeration(struct udev *udev, struct udev_enumerate *enumerator, const char *func, Visit visit)
{
    struct udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerator))
    {
        const char *path = udev_list_entry_get_name(entry);
        if (path == nullptr) {
            MPI_LogAs(func, MPI_LOG_ERROR, "get device path failed.\n");
            continue;
        }
        UdevDevicePtr device(udev_device_new_from_syspath(udev, path));
        if (!device) {
            MPI_LogAs(func, MPI_LOG_ERROR, "get device failed devPath:%s.\n", path);
        }
        if (!visit(path, device.get())) {
            return;
        }
    }
}

}  // namespace

int INTF_UTIL_TraverseSubsysUdev(struct udev *udev, const char *subsystem, void *ctx, UtilTraverseCallback callback)
{
    if (udev == nullptr || subsystem == nullptr || callback == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "invalid parameter.\n");
        return UDEV_RET_INVALID_PARAM;
    }
    UdevEnumeratePtr enumerator = UTIL_ScanSubsystem(udev, subsystem, UtilScanCaller::TRAVERSE);
    if (!enumerator) {
        return UDEV_RET_FAIL;
    }
    return UTIL_TraverseHandleUdev(udev, enumerator.get(), ctx, callback);
}

int UTIL_TraverseHandleUdev(struct udev *udev, struct udev_enumerate *enumerator, void *ctx,
                            UtilTraverseCallback callback)
{
    int result = UDEV_RET_OK;
    UTIL_WalkEnumeration(udev, enumerator, __func__, [&](const char *, struct udev_device *device) {
        if (device == nullptr) {
            return true;  // vanished: the walk goes on without it
        }
        int ret = callback(device, ctx);
        if (ret != UDEV_RET_OK && ret != UDEV_RET_SKIP) {
            result = ret;
            return false;
        }
        return true;
    });
    return result;
}

int INTF_UTIL_UdevGetDevice(const char *subsystem, UtilForEachCallback callback)
{
    if (subsystem == nullptr || callback == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "invalid parameter.\n");
        return UDEV_RET_INVALID_PARAM;
    }
    // A context of its own, so that any thread may call this.
    UdevPtr udev(udev_new());
    if (!udev) {
        MPI_Log(MPI_LOG_ERROR, "create new udev is fail.\n");
        return UDEV_RET_NOMEM;
    }
    UdevEnumeratePtr enumerator = UTIL_ScanSubsystem(udev.get(), subsystem, UtilScanCaller::GET_DEVICE);
    if (!enumerator) {
        return UDEV_RET_FAIL;
    }
    UTIL_UdevForEach(udev.get(), enumerator.get(), callback);
    return UDEV_RET_OK;
}

void UTIL_UdevForEach(struct udev *udev, struct udev_enumerate *enumerator, UtilForEachCallback callback)
{
    // The callback owns the meaning of a device that vanished.
    UTIL_WalkEnumeration(udev, enumerator, __func__, [&](const char *path, struct udev_device *device) {
        callback(path, device);
        return true;
    });
}

int INTF_UTIL_GetScsiVendorProduct(struct udev_device *scsiDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen)
{
    if (!UTIL_VendorProductArgsValid(scsiDev, vendor, vendorLen, product, productLen)) {
        return UDEV_RET_FAIL;
    }
    const char *vendorAttr = udev_device_get_sysattr_value(scsiDev, "vendor");
    if (vendorAttr == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get vendor id fail");
        return UDEV_RET_FAIL;
    }
    if (sprintf_s(vendor, static_cast<size_t>(vendorLen), "%s", vendorAttr) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s vendor{%s} fail.\n", vendorAttr);
        return UDEV_RET_FAIL;
    }
    const char *modelAttr = udev_device_get_sysattr_value(scsiDev, "model");
    if (modelAttr == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get product id fail with vendor{%s}.\n", vendorAttr);
        return UDEV_RET_FAIL;
    }
    if (sprintf_s(product, static_cast<size_t>(productLen), "%s", modelAttr) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s product{%s} fail.\n", modelAttr);
        return UDEV_RET_FAIL;
    }
    // SCSI inquiry texts are blank-padded to their full width; the padding
    // goes only after the copy, so an 8-character vendor still fits 9 bytes.
    UTIL_TrimTrailingSpaces(vendor, vendorLen);
    UTIL_TrimTrailingSpaces(product, productLen);
    MPI_Log(MPI_LOG_DEBUG, "scsi device: find vendor{%s} product{%s}.\n", vendor, product);
    return UDEV_RET_OK;
}

int INTF_UTIL_GetNvmeVendorProduct(struct udev_device *nvmeDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen)
{
    if (!UTIL_VendorProductArgsValid(nvmeDev, vendor, vendorLen, product, productLen)) {
        return UDEV_RET_FAIL;
    }
    // Borrowed from nvmeDev: not to be unreferenced.
    struct udev_device *controller = udev_device_get_parent_with_subsystem_devtype(nvmeDev, "nvme", nullptr);
    if (controller == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get device nvme device parent fail.\n");
        return UDEV_RET_FAIL;
    }
    // A controller without "model" counts as a failed copy: the formatter is
    // never handed a null text.
    const char *modelAttr = udev_device_get_sysattr_value(controller, "model");
    char model[UTIL_NVME_MODEL_LEN] = {0};
    if (modelAttr == nullptr || sprintf_s(model, sizeof(model), "%s", modelAttr) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s product{%s} fail.\n", "model");
        return UDEV_RET_FAIL;
    }
    if (UTIL_NvmeParseVendorProductByModel(vendor, vendorLen, product, productLen, model) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    UTIL_TrimTrailingSpaces(vendor, vendorLen);
    UTIL_TrimTrailingSpaces(product, productLen);
    MPI_Log(MPI_LOG_DEBUG, "nvme device: find vendor{%s} product{%s}.\n", vendor, product);
    return UDEV_RET_OK;
}

int UTIL_NvmeParseVendorProductByModel(char *vendor, int32_t vendorLen, char *product, int32_t productLen,
                                       const char *model)
{
    // The vendor's own name may hold hyphens; the product never does.
    const char *hyphen = (model == nullptr) ? nullptr : std::strrchr(model, '-');
    if (hyphen == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "the model info {%s} is invalid.\n", (model == nullptr) ? "" : model);
        return UDEV_RET_FAIL;
    }
    // A negative size turns into a huge size_t, which the bounded routines
    // refuse as out of range.
    size_t vendorChars = static_cast<size_t>(hyphen - model);
    if (strncpy_s(vendor, static_cast<size_t>(vendorLen), model, vendorChars) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "strncpy_s vendor{%s} fail.\n", model);
        return UDEV_RET_FAIL;
    }
    if (strcpy_s(product, static_cast<size_t>(productLen), hyphen + 1) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "strcpy_s product{%s} fail.\n", model);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int INTF_UTIL_CheckVidPidByBlkudev(struct udev_device *blkDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen)
{
    if (!UTIL_VendorProductArgsValid(blkDev, vendor, vendorLen, product, productLen)) {
        return UDEV_RET_FAIL;
    }
    const char *name = udev_device_get_sysname(blkDev);
    if (name == nullptr) {
        MPI_Log(MPI_LOG_WARN, "device name is NULL.\n");
        return UDEV_RET_SKIP;
    }
    if (std::strncmp(name, "sd", 2) == 0) {
        struct udev_device *scsiDev = udev_device_get_parent_with_subsystem_devtype(blkDev, "scsi", "scsi_device");
        if (scsiDev == nullptr) {
            MPI_Log(MPI_LOG_ERROR, "get device scsi_device parent fail.\n");
            return UDEV_RET_NOT_FOUND;
        }
        return INTF_UTIL_GetScsiVendorProduct(scsiDev, vendor, vendorLen, product, productLen);
    }
    if (std::strncmp(name, "nvme", 4) == 0) {
        return INTF_UTIL_GetNvmeVendorProduct(blkDev, vendor, vendorLen, product, productLen);
    }
    MPI_Log(MPI_LOG_DEBUG, "unknown device name{%s}.\n", name);
    return UDEV_RET_SKIP;
}

void UTIL_TrimTrailingSpaces(char *text, int32_t size)
{
    if (text == nullptr || size <= 0) {
        return;
    }
    // A text without a terminator inside `size` is trimmed from its last
    // byte in the buffer, never beyond it.
    size_t length = strnlen(text, static_cast<size_t>(size));
    for (size_t i = length; i > 0 && text[i - 1] == ' '; --i) {
        text[i - 1] = '\0';
    }
}
