// The tool's log sink. The daemon's code logs as it always does; with the
// sink installed nothing reaches the trace file or the system log: a record
// goes to the capture of the step that runs (a disk's reasons, a line's
// problems) or, outside any step, to standard error.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <unistd.h>

#include "adm.h"
#include "mpi_usr_if.h"

namespace adm {

namespace {

// The tool is single-threaded: the daemon's code runs on the main thread
// only, so the innermost capture needs no lock.
LogCapture *g_capture = nullptr;

constexpr std::string_view kAssertionPrefix = "*** Assertion on file";

void Sink(int level, const char *func, int line, const char *text)
{
    LogRecord record{level, func != nullptr ? func : "", line, text != nullptr ? text : ""};
    while (!record.text.empty() && record.text.back() == '\n') {
        record.text.pop_back();
    }
    // A failed check holds the daemon's thread for good; the tool has no
    // other thread to go on with, so it ends here instead of spinning.
    if (std::string_view(record.text).substr(0, kAssertionPrefix.size()) == kAssertionPrefix) {
        std::fflush(stdout);
        std::fprintf(stderr, "qmudevadm: the daemon's code failed a check and would hang here: %s\n",
                     record.text.c_str());
        std::_Exit(kExitNoStart);
    }
    CaptureRecord(std::move(record));
}

}  // namespace

void CaptureRecord(LogRecord record)
{
    if (g_capture != nullptr) {
        g_capture->records_.push_back(std::move(record));
        return;
    }
    std::fprintf(stderr, "qmudevadm: [%s][%s: %d] %s\n", LevelName(record.level), record.func.c_str(), record.line,
                 record.text.c_str());
}

void InstallLogSink()
{
    (void)MPI_SetLogSink(Sink);
}

const char *LevelName(int level)
{
    static constexpr const char *kNames[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
    return level >= 0 && level < 5 ? kNames[level] : "";
}

LogCapture::LogCapture() : outer_(g_capture)
{
    g_capture = this;
}

LogCapture::~LogCapture()
{
    g_capture = outer_;
}

std::vector<LogRecord> LogCapture::Take()
{
    std::vector<LogRecord> taken;
    taken.swap(records_);
    return taken;
}

std::string HintForOpenError(int err)
{
    std::string hint = std::strerror(err);
    if (err == EACCES && geteuid() != 0) {
        hint += "; the daemon opens it for reading and writing as root: run this as root";
    }
    return hint;
}

}  // namespace adm
