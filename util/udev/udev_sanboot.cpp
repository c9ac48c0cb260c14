// SAN-boot command line, the boot disk's WWN and readiness. The WWN, the
// boot partition name and the readiness state are written by the initial
// thread only: the arguments are read before any worker exists and
// UDEV_PutReady runs from the main loop. The handle thread reads the WWN
// (the filter) without a lock.
#include "udev_sanboot.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <climits>
#include <systemd/sd-daemon.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "util_ret.h"

namespace {

constexpr int UDEV_READY_AT_FIRST_TURN = 0;
constexpr int UDEV_READY_WAIT_PART = 1;
constexpr int UDEV_READY_SENT = -1;

constexpr size_t UDEV_READY_CMD_LEN = 128;
constexpr size_t UDEV_READY_LINE_LEN = 128;
constexpr const char *UDEV_BY_UUID_DIR = "/dev/disk/by-uuid";

constexpr int SANBOOT_WWN_TEXT_LEN = 34;  // "0x" and 32 hexadecimal digits
constexpr size_t WWN_MIN_DIGITS = 32;

int g_readyState = UDEV_READY_AT_FIRST_TURN;
char g_bootPartName[UDEV_BOOT_PART_NAME_LEN] = {};
char g_sanbootWwn[UDEV_WWN_LEN] = {0};

bool UDEV_IsHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The length rule here (at least 32) differs from the caller's (exactly 34)
// on purpose.
bool UDEV_IsHexWwn(const char *wwn)
{
    if (wwn == nullptr || strnlen(wwn, WWN_MIN_DIGITS) < WWN_MIN_DIGITS) {
        return false;
    }
    const char *digits = (wwn[0] == '0' && wwn[1] == 'x') ? wwn + 2 : wwn;
    for (; *digits != '\0'; ++digits) {
        if (!UDEV_IsHexDigit(*digits)) {
            return false;
        }
    }
    return true;
}

int ArgLen(const char *arg)
{
    size_t len = std::strlen(arg);
    return len > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(len);
}

int TakeBootPartName(const char *name)
{
    if (!UDEV_IsValidPartName(name)) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "get boot lun part name failed");
        return UDEV_RET_FAIL;
    }
    if (strncpy_s(g_bootPartName, sizeof(g_bootPartName), name, std::strlen(name)) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "get the input parameter partition disk name %s failed.\n", name);
        return UDEV_RET_FAIL;
    }
    g_readyState = UDEV_READY_WAIT_PART;
    return UDEV_RET_OK;
}

void SendReady()
{
    (void)sd_notify(0, "READY=1");
    g_readyState = UDEV_READY_SENT;
}

// Number of by-uuid links whose listing line ends in the partition name;
// 0 when the pipeline cannot be run or says nothing usable.
int CountBootPartLinks(const char *byUuidDir)
{
    char cmd[UDEV_READY_CMD_LEN] = {};
    // With the fixed directory this is "ls -l /dev/disk/by-uuid 2>/dev/null | grep -c %s$".
    if (sprintf_s(cmd, sizeof(cmd), "ls -l %s 2>/dev/null | grep -c %s$", byUuidDir, g_bootPartName) == -1) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "sprintf_s partition disk name string fail");
        return 0;
    }
    PipePtr pipe(popen(cmd, "r"));
    if (!pipe) {
        MPI_Log(MPI_LOG_ERROR, "open {%s} fail.\n", cmd);
        return 0;
    }
    char line[UDEV_READY_LINE_LEN] = {};
    int count = 0;
    if (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        size_t len = std::strlen(line);
        if (len > 1 && line[len - 1] == '\n') {
            line[len - 1] = '\0';
            count = std::atoi(line);
        }
    }
    return count;
}

// Both readiness checks; `func` names the entry point in the records.
void PutReady(const char *byUuidDir, const char *func)
{
    int state = g_readyState;
    if (state == UDEV_READY_AT_FIRST_TURN) {
        MPI_LogAs(func, MPI_LOG_INFO, "%s\n", "qmudev start successfully");
        SendReady();
        return;
    }
    if (state != UDEV_READY_WAIT_PART) {
        return;
    }
    // No time limit and no back-off: the boot partition may take as long as
    // the SAN needs, and each turn looks again.
    if (CountBootPartLinks(byUuidDir) != 0) {
        MPI_LogAs(func, MPI_LOG_INFO, "has already found root dir{%s}.\n", g_bootPartName);
        SendReady();
    }
}

}  // namespace

int UDEV_ProcessSanbootParameter(int argc, char *argv[])
{
    if (argc >= 4) {
        // Logging is not set up yet: this record goes nowhere.
        MPI_Log(MPI_LOG_ERROR, "%s\n", "the number of input parameter is more than 3");
        return UDEV_RET_FAIL;
    }
    UDEV_ClearSyslogMode();
    if (argc <= 1) {
        return UDEV_RET_OK;
    }
    UDEV_SetSyslogMode();
    if (argv == nullptr || argv[1] == nullptr || !UDEV_SetSanbootWwn(argv[1], ArgLen(argv[1]))) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "get the boot lun wwn failed");
        return UDEV_RET_FAIL;
    }
    if (argc == 2) {
        return UDEV_RET_OK;
    }
    return TakeBootPartName(argv[2]);
}

bool UDEV_IsValidPartName(const char *name)
{
    if (name == nullptr) {
        return false;
    }
    for (; *name != '\0'; ++name) {
        bool digit = *name >= '0' && *name <= '9';
        bool lower = *name >= 'a' && *name <= 'z';
        if (!digit && !lower) {
            return false;
        }
    }
    return true;
}

bool UDEV_SetSanbootWwn(const char *wwn, int len)
{
    if (wwn == nullptr || len != SANBOOT_WWN_TEXT_LEN || !UDEV_IsHexWwn(wwn)) {
        return false;
    }
    return strncpy_s(g_sanbootWwn, sizeof(g_sanbootWwn), wwn, sizeof(g_sanbootWwn) - 1) == EOK;
}

bool UDEV_FilterDeviceByWwn(const char *wwn)
{
    if (wwn == nullptr || g_sanbootWwn[0] == '\0' || std::strcmp(g_sanbootWwn, wwn) == 0) {
        return true;
    }
    MPI_Log(MPI_LOG_INFO, "specific the device of wwn{%s} to take over, but current wwn {%s} to filter.\n",
            g_sanbootWwn, wwn);
    return false;
}

void UDEV_PutReady()
{
    PutReady(UDEV_BY_UUID_DIR, __func__);
}

void UDEV_PutReadyIn(const char *byUuidDir)
{
    MPI_AssertNotNull(byUuidDir);
    PutReady(byUuidDir, __func__);
}
