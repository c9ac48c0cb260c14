// Trace-log set-up, the system-log sink, and the process-wide flags that
// live with logging: syslog mode and stop.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <ctime>

int UDEV_InitLog();  // UDEV_RET_OK / UDEV_RET_FAIL; messages go to stdout
void UDEV_Syslog(const char *format, ...) __attribute__((format(printf, 1, 2)));
void UDEV_VSyslog(const char *format, va_list argList) __attribute__((format(printf, 1, 0)));

// Syslog mode: chosen once from the command line before any thread exists.
void UDEV_SetSyslogMode();
void UDEV_ClearSyslogMode();
bool UDEV_IsSyslogMode();

// The single stop signal of the main loop and every worker thread. Any
// thread may set it; it is never cleared while the process runs.
void UDEV_SetStop();
bool UDEV_IsStop();

// The `time` clock in seconds.
int64_t UDEV_GetTime();

// For tests only: put the flags back to their start values; catch the
// system-log text instead of sending it (null restores syslog).
void UDEV_ResetFlagsForTest();
using UdevSyslogSink = void (*)(const char *text);
void UDEV_SetSyslogSinkForTest(UdevSyslogSink sink);
