// The texts of an event node as enrichment and the protocols fill them:
// the action word, appends to the device-information text behind what it
// already holds (bounded by its 128 bytes), and the vendor check that every
// protocol makes before it appends the disk's vendor and product.
#pragma once

#include <cstdint>

#include "udev_query.h"

struct udev_device;
struct UdevEventNode;

// Copies the action word without its terminator (the zero-filled record
// supplies one). A failure is logged in the name of the caller `func`.
int UDEV_SetEventAction(UdevEventNode *eventNode, const char *action, const char *func);

// Appends the formatted text to the node's devInfo; false (nothing
// appended) when it does not fit. A devInfo without a terminator leaves no
// room at all.
bool UDEV_AppendDevInfo(UdevEventNode *eventNode, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Appends "host:channel:target:lun" from the node's fields. A text that does
// not fit is logged for the protocol `word` and the device `name`, in the
// name of the caller `func`.
int UDEV_AppendDevInfoHctl(UdevEventNode *eventNode, const char *word, const char *name, const char *func);

struct UdevVendorProduct {
    char vendor[UTIL_VENDOR_LEN];
    char product[UTIL_PRODUCT_LEN];
};
// How a protocol reads vendor and product (INTF_UTIL_Get*VendorProduct).
using UdevVendorProductReader = int (*)(struct udev_device *udevDev, char *vendor, int32_t vendorLen, char *product,
                                        int32_t productLen);

// Reads the disk's vendor and product into `found` and checks them against
// the vendor support list: UDEV_RET_OK when the product takes the disk over,
// else UDEV_RET_FAIL (a refusal is logged here in the name of the caller
// `func`, a failed read by the reader).
int UDEV_CheckVendorProduct(struct udev_device *udevDev, UdevVendorProductReader read, UdevVendorProduct *found,
                            const char *func);
