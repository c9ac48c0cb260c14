// The trace descriptor, both sinks of MPI_Log (the trace file and the
// system log) with the syslog-mode flag that chooses between them, the
// assertion and the platform's atomic counter.
//
// Every thread logs and none takes a lock: each record opens the file in
// append mode, writes with one stream of its own, flushes and closes. The
// descriptor's moduleId and sequence are read and written as separate
// relaxed atomic operations, so two records written at the same time may
// share or skip a sequence number, as they always could.
#include "mpi_usr_if.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <syslog.h>

#include "securec.h"
#include "util_ret.h"

namespace {

MPI_LogDesc g_logDesc;
// Chosen once from the command line before any thread exists; read by every
// record. A relaxed atomic so that concurrent readers are defined.
std::atomic<int> g_syslogMode{0};

constexpr size_t kSyslogTextLen = 1024;

// Each record opens the trace file, writes, and closes it again.
struct TraceFileClose {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using TraceFilePtr = std::unique_ptr<std::FILE, TraceFileClose>;
char g_filePath[MPI_PATH_LEN];  // MPI_GetFilePath's buffer: start-up only

constexpr uint32_t kRecordKeyMagic = 0x5342;
constexpr uint32_t kTimeTextLen = 40;
// Longer than any record of the daemon (a whole configuration line and its
// message); a longer text reaches the sink cut.
constexpr size_t kSinkTextLen = 4096;

std::atomic<MPI_LogSink> g_logSink{nullptr};

constexpr const char *kModuleNames[] = {
    "MPI",   "BAL",      "KLS",       "KCF",      "USI",   "LPM",   "VDS",       "LBS",      "PIA",
    "PIA_BASE", "DISK",  "VHBA",      "VHBA_BASE", "VHBA_EXT", "VLM", "SHEL",    "SHEL_BASE", "SHEL_EXT",
    "UIA",   "UIL",      "CLI",       "GUI",      "UDEV",  "SCAN",  "DETACH",    "REG",      "INST",
    "OUC",   "AGT",      "EVENT",     "PCM",      "REF",   "HOM_EXT", "HOM_BASE", "",        "",
};
static_assert(sizeof(kModuleNames) / sizeof(kModuleNames[0]) == 36);
static_assert(MPI_MODULE_UDEV == 22);

constexpr const char *kLevelNames[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL", "", "", ""};

template <class Table>
const char *NameAt(const Table &table, uint32_t index)
{
    constexpr uint32_t count = sizeof(Table) / sizeof(table[0]);
    return index < count ? table[index] : "";
}

std::atomic_ref<uint32_t> ModuleId()
{
    return std::atomic_ref<uint32_t>(g_logDesc.moduleId);
}

std::atomic_ref<uint32_t> Sequence()
{
    return std::atomic_ref<uint32_t>(g_logDesc.sequence);
}

void FormatLocalTime(char (&timeText)[kTimeTextLen])
{
    time_t now = time(nullptr);
    struct tm local {};
    if (localtime_r(&now, &local) == nullptr) {
        return;  // the time field stays empty
    }
    (void)snprintf_s(timeText, sizeof(timeText), sizeof(timeText) - 1, "%d-%02d-%02d %02d:%02d:%02d",
                     local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                     local.tm_sec);
}

}  // namespace

char *MPI_GetFilePath(int kind, const char *fileName)
{
    errno_t err = EOK;
    if (kind == MPI_PATH_LOG) {
        err = strcpy_s(g_filePath, sizeof(g_filePath), "/opt/Quillmesh_NVMe/log/");
    } else if (kind == MPI_PATH_CFG) {
        err = strcpy_s(g_filePath, sizeof(g_filePath), "/etc/Quillmesh_NVMe/");
    }
    if (err == EOK) {
        err = strcat_s(g_filePath, sizeof(g_filePath), fileName);
    }
    if (err != EOK) {
        g_filePath[0] = '\0';
        return nullptr;
    }
    return g_filePath;
}

int MPI_SetLogFile(const char *path)
{
    errno_t err = strncpy_s(g_logDesc.path, sizeof(g_logDesc.path), path, path != nullptr ? strlen(path) : 0);
    if (err != EOK) {
        std::printf("init log fail with err{%s}!\n", strerror(err));
        return UDEV_RET_FAIL;
    }
    Sequence().store(1, std::memory_order_relaxed);
    return UDEV_RET_OK;
}

MPI_LogDesc *MPI_GetLogDesc(uint32_t moduleId)
{
    ModuleId().store(moduleId, std::memory_order_relaxed);
    return &g_logDesc;
}

MPI_LogSink MPI_SetLogSink(MPI_LogSink sink)
{
    return g_logSink.exchange(sink, std::memory_order_acq_rel);
}

bool MPI_VLogToSink(int level, const char *func, int line, const char *format, va_list argList)
{
    MPI_LogSink sink = g_logSink.load(std::memory_order_acquire);
    if (sink == nullptr) {
        return false;
    }
    char text[kSinkTextLen] = {};
    (void)vsnprintf_s(text, sizeof(text), sizeof(text) - 1, format, argList);
    sink(level, func, line, text);
    return true;
}

void MPI_VWriteTraceRecord(int level, const char *func, int line, const char *format, va_list argList)
{
    if (MPI_VLogToSink(level, func, line, format, argList)) {
        return;  // assertions and direct trace records go to the sink too
    }
    MPI_LogDesc *desc = MPI_GetLogDesc(MPI_MODULE_UDEV);
    TraceFilePtr file(std::fopen(desc->path, "a"));
    if (!file) {
        return;  // no trace file: the record is lost, the caller goes on
    }
    char timeText[kTimeTextLen] = {};
    FormatLocalTime(timeText);
    uint32_t moduleId = ModuleId().load(std::memory_order_relaxed);
    uint32_t sequence = Sequence().load(std::memory_order_relaxed);
    Sequence().store(sequence + 1, std::memory_order_relaxed);

    std::fprintf(file.get(), "[%d][%s][%08x%02x%02x%04x][%-4s][%-6s][%s: %d]", static_cast<int>(sequence), timeText,
                 kRecordKeyMagic, moduleId, 0u, static_cast<unsigned>(line),
                 NameAt(kLevelNames, static_cast<uint32_t>(level)), NameAt(kModuleNames, moduleId), func, line);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vfprintf(file.get(), format, argList);
#pragma GCC diagnostic pop
    std::fflush(file.get());
}

void MPI_WriteTraceRecord(int level, const char *func, int line, const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    MPI_VWriteTraceRecord(level, func, line, format, argList);
    va_end(argList);
}

void UDEV_VSyslog(const char *format, va_list argList)
{
    if (format == nullptr) {
        return;
    }
    // A message of 1024 characters or more is replaced, not cut.
    char text[kSyslogTextLen] = {};
    int ret = vsnprintf_s(text, sizeof(text), sizeof(text), format, argList);
    openlog("qmudev", LOG_PID | LOG_CONS, 0);
    syslog(LOG_INFO, "%s", ret == -1 ? "vsnprintf failed." : text);
    closelog();
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

void MPI_AssertFail(const char *func, int line, const char *condition)
{
    // Assertions go to the trace file whatever the log mode. The file name is
    // not recorded; the platform's formatter prints the missing text so.
    MPI_WriteTraceRecord(MPI_LOG_ERROR, func, line, "*** Assertion on file \"%s\" function \"%s\" line %d exception \"%s\"\n",
                         "(null)", func, line, condition);
    // The failed check holds this thread for good; the other threads run on.
    // Each turn reads a volatile: a loop without such an access may be taken
    // to end, and clang drops it (the thread would then run off the end of a
    // function that never returns).
    volatile int spin = 0;
    for (;;) {
        (void)spin;
    }
}

void MPI_AtomicInitImpl(MPI_Atomic *atomic, int64_t value)
{
    pthread_mutex_init(&atomic->mutex, nullptr);
    atomic->value = value;
    atomic->magic = MPI_ATOMIC_MAGIC;
}

void MPI_AtomicDestroyImpl(MPI_Atomic *atomic)
{
    pthread_mutex_destroy(&atomic->mutex);
    atomic->magic = MPI_ATOMIC_DESTROYED;
}

int64_t MPI_AtomicReadImpl(MPI_Atomic *atomic, const char *file, const char *func, int line)
{
    if (atomic->magic != MPI_ATOMIC_MAGIC) {
        if (atomic->magic == MPI_ATOMIC_DESTROYED) {
            std::printf("*** Atomic %p is destroyed twice on file \"%s\" function \"%s\" line %d.\n",
                        static_cast<void *>(atomic), file, func, line);
        } else {
            std::printf("*** Atomic %p is not initialized on file \"%s\" function \"%s\" line %d.\n",
                        static_cast<void *>(atomic), file, func, line);
        }
        std::printf("*** System panic at file \"%s\" function \"%s\" line %d.\n", file, func, line);
        std::fflush(stdout);
        std::exit(-1);
    }
    pthread_mutex_lock(&atomic->mutex);
    int64_t value = atomic->value;
    pthread_mutex_unlock(&atomic->mutex);
    return value;
}
