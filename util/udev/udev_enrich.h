// Enrichment and filtering of event records: device number, action, the
// protocol's fields, and the SAN-boot WWN filter for an add.
#pragma once

#include <cstdint>

struct udev_device;
struct UdevEventNode;

int UDEV_EnrichAndFilterEventNode(UdevEventNode *eventNode);
int UDEV_InitEventNodeBasicInfo(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitDevt(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitAddEventNode(struct udev_device *udevDev, UdevEventNode *eventNode);
int UDEV_InitRemoveEventNode(UdevEventNode *eventNode);
int UDEV_InitChangeEventNode(UdevEventNode *eventNode);
