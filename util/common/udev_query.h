// libudev helpers: enumerate a subsystem, read vendor and product of SCSI
// and NVMe disks, trim trailing blanks.
#pragma once

#include <cstdint>

struct udev;
struct udev_device;
struct udev_enumerate;

constexpr int32_t UTIL_VENDOR_LEN = 9;
constexpr int32_t UTIL_PRODUCT_LEN = 17;
constexpr int32_t UTIL_NVME_MODEL_LEN = 41;

// Traversal callback: (device, caller's context) -> result code.
using UtilTraverseCallback = int (*)(struct udev_device *udevDev, void *ctx);
// For-each callback: (system path, device or null when it vanished).
using UtilForEachCallback = void (*)(const char *devPath, struct udev_device *udevDev);

int INTF_UTIL_TraverseSubsysUdev(struct udev *udev, const char *subsystem, void *ctx, UtilTraverseCallback callback);
int UTIL_TraverseHandleUdev(struct udev *udev, struct udev_enumerate *enumerator, void *ctx,
                            UtilTraverseCallback callback);
int INTF_UTIL_UdevGetDevice(const char *subsystem, UtilForEachCallback callback);
void UTIL_UdevForEach(struct udev *udev, struct udev_enumerate *enumerator, UtilForEachCallback callback);
int INTF_UTIL_GetScsiVendorProduct(struct udev_device *scsiDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen);
int INTF_UTIL_GetNvmeVendorProduct(struct udev_device *nvmeDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen);
int UTIL_NvmeParseVendorProductByModel(char *vendor, int32_t vendorLen, char *product, int32_t productLen,
                                       const char *model);
int INTF_UTIL_CheckVidPidByBlkudev(struct udev_device *blkDev, char *vendor, int32_t vendorLen, char *product,
                                   int32_t productLen);
void UTIL_TrimTrailingSpaces(char *text, int32_t size);
