// Trace-log set-up, the log dispatcher behind MPI_Log, the system-log sink,
// and the syslog-mode and stop flags.
//
// The flags are plain process-wide values without a lock: syslog mode is
// written once before any thread exists, the stop flag only ever goes from
// 0 to 1. They are relaxed atomics so that concurrent readers are defined.
#include "udev_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "util_ret.h"

namespace {

std::atomic<int> g_syslogMode{0};
std::atomic<int> g_stopFlag{0};
UdevSyslogSink g_syslogSink = nullptr;  // tests only

constexpr size_t kSyslogTextLen = 1024;

void SendToSyslog(const char *text)
{
    if (g_syslogSink != nullptr) {
        g_syslogSink(text);
        return;
    }
    openlog("qmudev", LOG_PID | LOG_CONS, 0);
    syslog(LOG_INFO, "%s", text);
    closelog();
}

}  // namespace

int UDEV_InitLog()
{
    char path[MPI_LOG_PATH_LEN] = {};
    const char *logPath = MPI_GetFilePath(MPI_PATH_LOG, "qm_udev_log.txt");
    if (logPath == nullptr) {
        std::printf("Get UDEV trace log file failed.\n");
        std::fflush(stdout);
        return UDEV_RET_FAIL;
    }
    errno_t err = strcpy_s(path, sizeof(path), logPath);
    if (err != EOK) {
        std::printf("init log path name fail with err{%s}!\n", strerror(err));
        return UDEV_RET_FAIL;
    }
    return MPI_SetLogFile(path) == UDEV_RET_OK ? UDEV_RET_OK : UDEV_RET_FAIL;
}

void UDEV_VSyslog(const char *format, va_list argList)
{
    if (format == nullptr) {
        return;
    }
    // A message of 1024 characters or more is replaced, not cut.
    char text[kSyslogTextLen] = {};
    int ret = vsnprintf_s(text, sizeof(text), sizeof(text), format, argList);
    SendToSyslog(ret == -1 ? "vsnprintf failed." : text);
}

void UDEV_Syslog(const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    UDEV_VSyslog(format, argList);
    va_end(argList);
}

void MPI_LogWrite(int level, const char *func, int line, const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    // A sink takes every level, whatever the log mode.
    bool sunk = MPI_VLogToSink(level, func, line, format, argList);
    if (!sunk && UDEV_IsSyslogMode()) {
        // In this mode every level goes out, without level, module or place.
        UDEV_VSyslog(format, argList);
    } else if (!sunk && level != MPI_LOG_DEBUG) {
        MPI_VWriteTraceRecord(level, func, line, format, argList);
    }
    va_end(argList);
}

void UDEV_SetSyslogMode()
{
    g_syslogMode.store(1, std::memory_order_relaxed);
}

void UDEV_ClearSyslogMode()
{
    g_syslogMode.store(0, std::memory_order_relaxed);
}

bool UDEV_IsSyslogMode()
{
    return g_syslogMode.load(std::memory_order_relaxed) == 1;
}

void UDEV_SetStop()
{
    g_stopFlag.store(1, std::memory_order_relaxed);
}

bool UDEV_IsStop()
{
    return g_stopFlag.load(std::memory_order_relaxed) != 0;
}

int64_t UDEV_GetTime()
{
    return static_cast<int64_t>(time(nullptr));
}

void UDEV_SetSyslogSinkForTest(UdevSyslogSink sink)
{
    g_syslogSink = sink;
}

void UDEV_ResetFlagsForTest()
{
    g_syslogMode.store(0, std::memory_order_relaxed);
    g_stopFlag.store(0, std::memory_order_relaxed);
}
