// The time-out settings table. This module owns g_qmLinuxCfg: only the main
// thread writes it, while /etc/qmLinux.conf is read at start-up; the handle
// thread reads it afterwards without a lock.
#include "udev_qmlinux.h"

#include <cstring>

#include "mpi_usr_if.h"
#include "read_line.h"
#include "securec.h"
#include "udev_config.h"
#include "util_ret.h"

namespace {

// The defaults, overlaid by what the file sets.
QmLinuxCfgItem g_qmLinuxCfg[] = {
    {"dev_loss_tmo", 5, 1, 600},
    {"fast_io_fail_tmo", 4, 0, 599},
    {"recovery_tmo", 5, 0, 600},
    {"scsi_timeout", 30, 1, 600},
};

QmLinuxCfgItem *FindItem(const char *name)
{
    for (auto &item : g_qmLinuxCfg) {
        if (std::strcmp(item.name, name) == 0) {
            return &item;
        }
    }
    return nullptr;
}

// A name without a number is never stored: the number is absent, not 0.
// An unknown name is still reported as such, so that "scsi_timeout 60" (read
// as the one name scsi_timeout60) shows up as the unknown name it is.
void ReportLineWithoutValue(const char *name)
{
    if (FindItem(name) == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get atrr{%s} value is not find.\n", name);
        return;
    }
    MPI_Log(MPI_LOG_WARN, "attr{%s} has no value, line skipped.\n", name);
}

}  // namespace

int UDEV_UpdateQmLinuxCfg(const char *name, int32_t value)
{
    MPI_AssertNotNull(name);
    QmLinuxCfgItem *item = FindItem(name);
    if (item == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get atrr{%s} value{%d} is not find.\n", name, value);
        return UDEV_RET_NOT_FOUND;
    }
    if (item->lowest > value || item->highest < value) {
        MPI_Log(MPI_LOG_ERROR, "get atrr{%s} value{%d} is out range{%d, %d}.\n", name, value, item->lowest,
                item->highest);
        return UDEV_RET_FAIL;
    }
    item->value = value;
    return UDEV_RET_OK;
}

int UDEV_GetQmLinuxCfgValue(const char *name, char *value, uint32_t valueLen)
{
    MPI_AssertNotNull(name);
    const QmLinuxCfgItem *item = FindItem(name);
    if (item == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "get atrr{%s} value is not find.\n", name);
        return UDEV_RET_NOT_FOUND;
    }
    if (sprintf_s(value, valueLen, "%d", item->value) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s attr{%s} value{%d} fail.\n", name, item->value);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_HandQmLinuxCfgReadLine(char *line, uint32_t lineLen, void *ctx)
{
    (void)ctx;
    MPI_AssertNotNull(line);
    // An empty line (length 0) holds the reading thread here, in the
    // cleaner's own length check: that is the file's documented contract.
    (void)UDEV_ClearCharacters(line, lineLen);
    size_t cleanedLen = strnlen(line, lineLen);
    if (cleanedLen == 0) {
        return UDEV_RET_OK;
    }
    // A private, always terminated copy: the scan must not depend on the
    // caller having put a NUL behind lineLen.
    char text[UTIL_LINE_BUF_LEN] = {0};
    if (cleanedLen >= sizeof(text)) {
        cleanedLen = sizeof(text) - 1;
    }
    (void)memcpy_s(text, sizeof(text), line, cleanedLen);
    (void)UDEV_ReplaceCharacters(text, sizeof(text));

    char name[UDEV_QMLINUX_NAME_LEN] = {0};
    int value = 0;
    int ret = sscanf_s(text, "%s %d", name, sizeof(name), &value);
    if (ret == -1) {
        MPI_Log(MPI_LOG_ERROR, "sscanf_s {%s} failed.\n", text);
        return UDEV_RET_OK;
    }
    if (ret < 2) {
        ReportLineWithoutValue(name);
        return UDEV_RET_OK;
    }
    ret = UDEV_UpdateQmLinuxCfg(name, value);
    if (ret != UDEV_RET_OK) {
        MPI_Log(MPI_LOG_WARN, "update attr{%s} to value{%d} fail with ret{%d}.\n", name, value, ret);
    }
    return UDEV_RET_OK;
}

namespace {

// Both reads; `func` names the entry point in the records.
int ReadQmLinuxConfig(const char *path, const char *func)
{
    int ret = INTF_UTIL_ReadFileHandleByLine(path, nullptr, UDEV_HandQmLinuxCfgReadLine);
    if (ret != UDEV_RET_OK) {
        MPI_LogAs(func, MPI_LOG_ERROR, "init qmLinux config fail with ret{%d}.\n", ret);
    }
    return ret;
}

}  // namespace

int UDEV_InitQmLinuxConfig()
{
    return ReadQmLinuxConfig(UDEV_QMLINUX_CONFIG_PATH, __func__);
}

int UDEV_InitQmLinuxConfigFromPath(const char *path)
{
    return ReadQmLinuxConfig(path, __func__);
}
