// LVM activation of the product's new virtual disks.
//
// The handle thread arms a request for every "add" of a disk on the
// driver's own major; the main loop counts one tick per one-second turn
// while a request is armed; the LVM thread runs "lvm pvscan" once the
// request has stood for five ticks. Re-arming restarts the count, so a
// burst of new disks leads to one activation five seconds after the last.
//
// Three threads touch the request without a lock (handle arms, main
// ticks, LVM tests, clears and re-arms). The fields are relaxed atomics and
// the tick is one atomic increment: a tick read before an add's restart can
// never be stored after it (which would make the run come at once instead of
// five seconds after the add), so a race shifts the run by a tick at most.
//
// A failed run re-arms the request; the retry counter belongs to the
// thread and is not reset by a success, so failures add up across requests
// until the sixth since the last reset gives up.
//
// The driver's block major, which tells a new virtual disk, is read from
// /proc/devices here too and cached for the handle thread, its only reader.
#include "udev_lvm.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_thread.h"
#include "util_ret.h"

namespace {

std::atomic<uint8_t> g_lvmRequest{0};
std::atomic<unsigned> g_lvmTicks{0};
UdevWorker g_lvmWorker;

const char *const VLUN_MAJOR_COMMAND =
    "cat /proc/devices 2>/dev/null | grep '[[:blank:]]quillmesh$' | awk -F ' ' '{print $1}'";
char g_vlunMajor[UDEV_MAJOR_LEN] = {0};  // handle thread only

// Every run's record names UDEV_RunActivateLvmCommand, whichever command ran.
int RunLvmCommand(const char *command)
{
    int status = 0;
    {
        // lvm may take long; a shutdown must not wait for it.
        UdevCancelPoint cancelPoint;
        status = std::system(command);
    }
    if (status == 0) {
        return UDEV_RET_OK;
    }
    MPI_LogAs("UDEV_RunActivateLvmCommand", MPI_LOG_ERROR, "run command{%s} failed.\n", command);
    return UDEV_RET_FAIL;
}

// Both checks and the thread's; `func` names the entry point in the records.
bool CheckLvmRequest(int *retryCount, const char *command, const char *func)
{
    if (!UDEV_ActivateLvmDue()) {
        return false;
    }
    UDEV_ClearActivateLvmRequest();
    int ret = RunLvmCommand(command);
    if (ret != UDEV_RET_OK && *retryCount <= UDEV_LVM_MAX_RETRY) {
        UDEV_RequestActivateLvm();  // the next try comes five ticks later
        ++*retryCount;
    }
    if (*retryCount > UDEV_LVM_MAX_RETRY) {
        MPI_LogAs(func, MPI_LOG_ERROR, "%s", "the maximum number of retries has been reached.\n");
        *retryCount = 0;
        UDEV_ClearActivateLvmRequest();  // drops the re-arm made just before
    }
    return true;
}

}  // namespace

void UDEV_RequestActivateLvm()
{
    g_lvmRequest.store(1, std::memory_order_relaxed);
    g_lvmTicks.store(0, std::memory_order_relaxed);
}

void UDEV_ClearActivateLvmRequest()
{
    g_lvmRequest.store(0, std::memory_order_relaxed);
    g_lvmTicks.store(0, std::memory_order_relaxed);
}

bool UDEV_ActivateLvmDue()
{
    return g_lvmRequest.load(std::memory_order_relaxed) == 1 &&
           g_lvmTicks.load(std::memory_order_relaxed) >= UDEV_LVM_DUE_TICKS;
}

void UDEV_ActivateLvmTick()
{
    if (g_lvmRequest.load(std::memory_order_relaxed) == 1) {
        g_lvmTicks.fetch_add(1, std::memory_order_relaxed);
    }
}

int UDEV_RunActivateLvmCommand()
{
    return RunLvmCommand(UDEV_LVM_COMMAND);
}

bool UDEV_ActivateLvmCheck(int *retryCount)
{
    MPI_AssertNotNull(retryCount);
    return CheckLvmRequest(retryCount, UDEV_LVM_COMMAND, __func__);
}

bool UDEV_ActivateLvmCheckWith(int *retryCount, const char *command)
{
    MPI_AssertNotNull(retryCount);
    MPI_AssertNotNull(command);
    return CheckLvmRequest(retryCount, command, __func__);
}

// `arg` is the command to run (UDEV_LVM_COMMAND unless the creator gave
// another); it outlives the thread.
void *UDEV_ActivateLvmThr(void *arg)
{
    const char *command = arg != nullptr ? static_cast<const char *>(arg) : UDEV_LVM_COMMAND;
    UDEV_DisableCancel();
    // Cancelled in sleep or system, the thread still reports its end.
    UdevThreadStopGuard stopOnExit(g_lvmWorker.state);
    g_lvmWorker.state.store(UDEV_THREAD_RUNNING, std::memory_order_release);
    int retryCount = 0;
    while (!UDEV_IsStop()) {
        (void)CheckLvmRequest(&retryCount, command, "UDEV_ActivateLvmCheck");
        UdevCancelPoint cancelPoint;
        (void)sleep(1);
    }
    MPI_Log(MPI_LOG_WARN, "%s", "activate Lvm thread exit.\n");
    UDEV_SetStop();  // the end of this thread ends the daemon
    return nullptr;
}

namespace {

// The thread's argument is its command, a constant or the creator's text.
int CreateLvmThread(const char *command, const char *func)
{
    return UDEV_CreateWorker(g_lvmWorker, UDEV_ActivateLvmThr, const_cast<char *>(command), "activate Lvm thread",
                             func);
}

}  // namespace

int UDEV_CreateActivateLvm()
{
    return CreateLvmThread(UDEV_LVM_COMMAND, __func__);
}

int UDEV_CreateActivateLvmWith(const char *command)
{
    MPI_AssertNotNull(command);
    return CreateLvmThread(command, __func__);
}

// No wait: the thread only sleeps or runs lvm, and holds nothing that the
// rest of the shutdown needs. Detached after the cancel so that it is
// reclaimed whenever it ends (never joined).
void UDEV_DestoryActivateLvm()
{
    UDEV_SetStop();
    (void)UDEV_StopWorker(g_lvmWorker, false);
}

const char *UDEV_GetVlunMajorFromFile()
{
    // Re-run while empty: the driver may register its major later.
    if (g_vlunMajor[0] != '\0') {
        return g_vlunMajor;
    }
    PipePtr pipe(popen(VLUN_MAJOR_COMMAND, "r"));
    if (!pipe) {
        MPI_Log(MPI_LOG_ERROR, "run command{%s} failed.\n", VLUN_MAJOR_COMMAND);
        return nullptr;
    }
    // fgets leaves its buffer undefined on a read error, so the cache only
    // takes a line that was read whole.
    char line[UDEV_MAJOR_LEN] = {0};
    if (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        size_t length = strnlen(line, sizeof(line));
        if (length > 0 && line[length - 1] == '\n') {
            line[length - 1] = '\0';
        }
        if (strcpy_s(g_vlunMajor, sizeof(g_vlunMajor), line) != EOK) {
            g_vlunMajor[0] = '\0';
        }
    }
    pipe.reset();
    MPI_Log(MPI_LOG_INFO, "get major{%s} form /proc/devices.\n", g_vlunMajor);
    return g_vlunMajor;
}
