// Enrichment and filtering of event records: device number, action, the
// protocol's fields; the SAN-boot WWN and its filter; the product's block
// major read from /proc/devices.
#pragma once

#include <cstdint>

struct udev_device;
struct UdevEventNode;

constexpr uint32_t UDEV_WWN_LEN = 36;
constexpr uint32_t UDEV_MAJOR_LEN = 32;

int UDEV_EnrichAndFilterEventNode(UdevEventNode *eventNode);
int UDEV_InitEventNodeBasicInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitDevt(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitAddEventNode(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitRemoveEventNode(UdevEventNode *eventNode);
int UDEV_InitChangeEventNode(UdevEventNode *eventNode);

bool UDEV_FilterDeviceByWwn(const char *wwn);
bool UDEV_SetSanbootWwn(const char *wwn, int len);

// The cached major-number text (possibly empty), or null when the command
// could not be run. Used by the handle thread only.
const char *UDEV_GetVlunMajorFromFile();

// For tests only: forget the SAN-boot WWN and the cached major.
void UDEV_ResetEnrichForTest();
