// The time-out settings: four named values with defaults and inclusive
// ranges, overlaid once at start-up by /etc/qmLinux.conf.
#pragma once

#include <cstdint>

inline constexpr const char *UDEV_QMLINUX_CONFIG_PATH = "/etc/qmLinux.conf";
constexpr uint32_t UDEV_QMLINUX_NAME_LEN = 64;

struct QmLinuxCfgItem {
    char name[UDEV_QMLINUX_NAME_LEN];
    int32_t value;
    int32_t lowest;
    int32_t highest;
};

int UDEV_InitQmLinuxConfig();  // from UDEV_QMLINUX_CONFIG_PATH
// The same from another file, over the values in force.
int UDEV_InitQmLinuxConfigFromPath(const char *path);
int UDEV_GetQmLinuxCfgValue(const char *name, char *value, uint32_t valueLen);
int UDEV_UpdateQmLinuxCfg(const char *name, int32_t value);
int UDEV_HandQmLinuxCfgReadLine(char *line, uint32_t lineLen, void *ctx);
