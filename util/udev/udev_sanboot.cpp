// SAN-boot command line and readiness. The boot partition name and the
// readiness state belong to the initial thread: the arguments are read
// before any worker exists and UDEV_PutReady runs from the main loop only.
#include "udev_sanboot.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <climits>
#include <systemd/sd-daemon.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_enrich.h"
#include "udev_log.h"
#include "util_ret.h"

namespace {

constexpr int UDEV_READY_AT_FIRST_TURN = 0;
constexpr int UDEV_READY_WAIT_PART = 1;
constexpr int UDEV_READY_SENT = -1;

constexpr size_t UDEV_READY_CMD_LEN = 128;
constexpr size_t UDEV_READY_LINE_LEN = 128;
constexpr const char *UDEV_BY_UUID_DIR = "/dev/disk/by-uuid";

// Atomic only so that the sanitizer build sees no race if a test or the
// lab reads it from another thread; the daemon writes it from one thread.
std::atomic<int> g_readyState{UDEV_READY_AT_FIRST_TURN};
char g_bootPartName[UDEV_BOOT_PART_NAME_LEN] = {};
const char *g_byUuidDir = UDEV_BY_UUID_DIR;

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
    g_readyState.store(UDEV_READY_WAIT_PART, std::memory_order_relaxed);
    return UDEV_RET_OK;
}

void SendReady()
{
    (void)sd_notify(0, "READY=1");
    g_readyState.store(UDEV_READY_SENT, std::memory_order_relaxed);
}

// Number of by-uuid links whose listing line ends in the partition name;
// 0 when the pipeline cannot be run or says nothing usable.
int CountBootPartLinks()
{
    char cmd[UDEV_READY_CMD_LEN] = {};
    // With the fixed directory this is "ls -l /dev/disk/by-uuid 2>/dev/null | grep -c %s$".
    if (sprintf_s(cmd, sizeof(cmd), "ls -l %s 2>/dev/null | grep -c %s$", g_byUuidDir, g_bootPartName) == -1) {
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

void UDEV_PutReady()
{
    int state = g_readyState.load(std::memory_order_relaxed);
    if (state == UDEV_READY_AT_FIRST_TURN) {
        MPI_Log(MPI_LOG_INFO, "%s\n", "qmudev start successfully");
        SendReady();
        return;
    }
    if (state != UDEV_READY_WAIT_PART) {
        return;
    }
    // No time limit and no back-off: the boot partition may take as long as
    // the SAN needs, and each turn looks again.
    if (CountBootPartLinks() != 0) {
        MPI_Log(MPI_LOG_INFO, "has already found root dir{%s}.\n", g_bootPartName);
        SendReady();
    }
}

int UDEV_GetReadyState()
{
    return g_readyState.load(std::memory_order_relaxed);
}

void UDEV_ResetSanbootForTest()
{
    g_readyState.store(UDEV_READY_AT_FIRST_TURN, std::memory_order_relaxed);
    (void)memset_s(g_bootPartName, sizeof(g_bootPartName), 0, sizeof(g_bootPartName));
    g_byUuidDir = UDEV_BY_UUID_DIR;
}

void UDEV_SetByUuidDirForTest(const char *dir)
{
    g_byUuidDir = dir != nullptr ? dir : UDEV_BY_UUID_DIR;
}

const char *UDEV_GetBootPartNameForTest()
{
    return g_bootPartName;
}
