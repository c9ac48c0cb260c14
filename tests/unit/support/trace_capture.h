// Test helpers shared by the lifecycle, channel and logging tests: a
// private temporary directory, a trace file inside it, and running code
// that must never return (a failed MPI_Assert) in a child process.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include <ftw.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "udev_log.h"

namespace qmtest {

class TempDir {
public:
    TempDir()
    {
        std::string tmpl = "/tmp/qmudev-unit-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) {
            path_ = tmpl;
        }
    }
    ~TempDir()
    {
        if (!path_.empty()) {
            ::nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    static int RemoveEntry(const char *path, const struct stat *, int, struct FTW *)
    {
        ::remove(path);
        return 0;
    }
    std::string path_;
};

inline std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

inline size_t CountOf(const std::string &text, const std::string &needle)
{
    size_t count = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size())) {
        ++count;
    }
    return count;
}

// Points the trace file into a private directory, in trace-file mode, for
// the life of the object; afterwards records are dropped again (empty path).
class TraceCapture {
public:
    TraceCapture() : path_(dir_.File("trace.txt"))
    {
        UDEV_ClearSyslogMode();
        MPI_SetLogFile(path_.c_str());
    }
    ~TraceCapture() { (void)MPI_SetLogFile(""); }
    TraceCapture(const TraceCapture &) = delete;
    TraceCapture &operator=(const TraceCapture &) = delete;

    const std::string &Path() const { return path_; }
    std::string Text() const { return ReadFile(path_); }
    bool Has(const std::string &needle) const { return Text().find(needle) != std::string::npos; }

private:
    TempDir dir_;
    std::string path_;
};

struct HangResult {
    bool recordSeen = false;    // the trace file got `needle`
    bool stillRunning = false;  // the child had not ended when it was killed
    int exitCode = -1;          // when it ended by itself
};

// Runs `body` in a child process and waits (bounded only by the test
// runner's time-out) until the trace file holds `needle` or the child ends.
// A child that is still running then is killed: that is the expected end of
// a failed assertion, which holds its thread for good.
inline HangResult RunUntilTraceHas(const std::string &tracePath, const std::string &needle,
                                   const std::function<void()> &body)
{
    HangResult result;
    pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(77);
    }
    if (pid < 0) {
        return result;
    }
    int status = 0;
    for (;;) {
        if (ReadFile(tracePath).find(needle) != std::string::npos) {
            result.recordSeen = true;
            break;
        }
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            result.recordSeen = ReadFile(tracePath).find(needle) != std::string::npos;
            return result;
        }
        ::usleep(10000);
    }
    result.stillRunning = ::waitpid(pid, &status, WNOHANG) == 0;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    if (!result.stillRunning && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}

}  // namespace qmtest
