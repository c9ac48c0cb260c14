// Platform interface: the logging and parameter-check macros, the trace
// descriptor, the two sinks of a record (trace file, system log) and the
// syslog-mode flag that chooses between them, and the few platform helpers
// that travel with them.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <pthread.h>

constexpr uint32_t MPI_MODULE_UDEV = 22;

// Directory kinds of MPI_GetFilePath.
constexpr int MPI_PATH_LOG = 2;  // "/opt/Quillmesh_NVMe/log/"
constexpr int MPI_PATH_CFG = 5;  // "/etc/Quillmesh_NVMe/"

constexpr uint32_t MPI_PATH_LEN = 120;
constexpr uint32_t MPI_LOG_PATH_LEN = 256;

enum MPI_LogLevel : int {
    MPI_LOG_DEBUG = 0,
    MPI_LOG_INFO = 1,
    MPI_LOG_WARN = 2,
    MPI_LOG_ERROR = 3,
    MPI_LOG_FATAL = 4,
};

// One per process. moduleId is stored by each log site before it writes;
// sequence is the number of the next trace record (plain read and write, no
// lock: two threads may share or skip a number).
struct MPI_LogDesc {
    uint32_t moduleId;
    uint32_t sequence;
    char path[MPI_LOG_PATH_LEN];
};

char *MPI_GetFilePath(int kind, const char *fileName);
int MPI_SetLogFile(const char *path);
MPI_LogDesc *MPI_GetLogDesc(uint32_t moduleId);

// The sinks behind the macros. MPI_LogWrite goes to the log sink when one is
// set (below), else to the system log in syslog mode, else appends one record
// to the trace file. MPI_AssertFail writes one ERROR record to the trace file
// (or the log sink) and never returns.
void MPI_LogWrite(int level, const char *func, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
[[noreturn]] void MPI_AssertFail(const char *func, int line, const char *condition);
// The trace-file sink alone, whatever the log mode (assertions use it); a
// log sink, when set, takes these records too.
void MPI_WriteTraceRecord(int level, const char *func, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
void MPI_VWriteTraceRecord(int level, const char *func, int line, const char *format, va_list argList)
    __attribute__((format(printf, 4, 0)));

// The system-log sink: one LOG_INFO record under the ident "qmudev",
// whatever the level; a message of 1024 characters or more is replaced by
// "vsnprintf failed.".
void UDEV_Syslog(const char *format, ...) __attribute__((format(printf, 1, 2)));
void UDEV_VSyslog(const char *format, va_list argList) __attribute__((format(printf, 1, 0)));

// Syslog mode: chosen once from the command line before any thread exists.
void UDEV_SetSyslogMode();
void UDEV_ClearSyslogMode();
bool UDEV_IsSyslogMode();

// A destination that takes every record in place of the trace file and the
// system log: any level (DEBUG included), assertions included, with the
// site's format already applied (`text` carries the site's own line end).
// A program that runs the daemon's code without being the daemon (the
// administrator's tool) sets one, so that what that code has to say reaches
// the program's own output and no trace record is written. The daemon never
// sets one. Returns the sink it replaces; null puts the trace file and the
// system log back.
using MPI_LogSink = void (*)(int level, const char *func, int line, const char *text);
MPI_LogSink MPI_SetLogSink(MPI_LogSink sink);
// Hands the record to the sink when one is set and says so; false (the
// argument list untouched): no sink, the caller writes the record itself.
bool MPI_VLogToSink(int level, const char *func, int line, const char *format, va_list argList)
    __attribute__((format(printf, 4, 0)));

#define MPI_Log(level, format, ...) MPI_LogWrite((level), __func__, __LINE__, format, ##__VA_ARGS__)
// MPI_Log on behalf of the entry point `func`: a helper that does the work
// of several entry points (one with a fixed path, one given the path) puts
// its caller's name in the record, as if the work were written there.
#define MPI_LogAs(func, level, format, ...) MPI_LogWrite((level), (func), __LINE__, format, ##__VA_ARGS__)

// A failed check holds the calling thread for good (no recovery: callers
// never handle it). The condition's source text goes into the record.
#define MPI_Assert(condition)                                 \
    do {                                                      \
        if (!(condition)) {                                   \
            MPI_AssertFail(__func__, __LINE__, #condition);   \
        }                                                     \
    } while (0)

// The null-pointer check, recorded in the form "ptr != ((void *)0)".
#define MPI_AssertNotNull(pointer)                                                     \
    do {                                                                               \
        if ((pointer) == nullptr) {                                                    \
            MPI_AssertFail(__func__, __LINE__, #pointer " != ((void *)0)");            \
        }                                                                              \
    } while (0)

// Atomic counter of the platform (carried, never called by the daemon).
constexpr uint32_t MPI_ATOMIC_MAGIC = 0xBEEF;
constexpr uint32_t MPI_ATOMIC_DESTROYED = 0xFFFF4110;  // ~0xBEEF
struct MPI_Atomic {
    pthread_mutex_t mutex;
    int64_t value;
    uint32_t magic;
};
void MPI_AtomicInitImpl(MPI_Atomic *atomic, int64_t value);
void MPI_AtomicDestroyImpl(MPI_Atomic *atomic);
int64_t MPI_AtomicReadImpl(MPI_Atomic *atomic, const char *file, const char *func, int line);
#define MPI_AtomicRead(atomic) MPI_AtomicReadImpl((atomic), __FILE__, __func__, __LINE__)
