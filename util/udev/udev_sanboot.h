// SAN-boot command line and readiness.
#pragma once

constexpr unsigned UDEV_BOOT_PART_NAME_LEN = 32;

int UDEV_ProcessSanbootParameter(int argc, char *argv[]);
bool UDEV_IsValidPartName(const char *name);
void UDEV_PutReady();
// For tests: the readiness state (0 wait for first turn, 1 wait for the
// partition, -1 sent) and a reset to the start values.
int UDEV_GetReadyState();
void UDEV_ResetSanbootForTest();
// For tests: list another directory than /dev/disk/by-uuid (null restores
// it; the text must outlive its use), and the stored boot partition name.
void UDEV_SetByUuidDirForTest(const char *dir);
const char *UDEV_GetBootPartNameForTest();
