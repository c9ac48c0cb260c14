// qmudevadm: the administrator's tool. It runs the daemon's own code (the
// configuration readers, the enrichment and filtering of disks, the
// time-out plan) without being the daemon: it only reads, and everything
// that code logs reaches the tool's output instead of the trace file.
#pragma once

#include <string>
#include <vector>

namespace adm {

// Exit codes shared by the subcommands.
constexpr int kExitOk = 0;
constexpr int kExitChanged = 1;   // verify: some line is dropped or changed; test/status: a failure
constexpr int kExitNoStart = 2;   // the daemon would not start, or would hang
constexpr int kExitNotRunning = 3;  // status: no daemon holds the pid file
constexpr int kExitUsage = 64;    // a command line that cannot be used

inline constexpr const char *kDefaultVendors = "/etc/qm_plus.conf";
inline constexpr const char *kDefaultSettings = "/etc/qmLinux.conf";

// One record of the daemon's code, caught by the tool's log sink.
struct LogRecord {
    int level = 0;
    std::string func;
    int line = 0;
    std::string text;  // without the record's line end
};

// Hands one record to the innermost capture, or to standard error.
void CaptureRecord(LogRecord record);
// Installs the sink for the rest of the process. Records go to the
// innermost LogCapture alive, else to standard error.
void InstallLogSink();
const char *LevelName(int level);

// Catches every record of the daemon's code for its own life (scopes nest:
// the innermost one catches).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    // The records caught so far; the capture goes on empty.
    std::vector<LogRecord> Take();

private:
    std::vector<LogRecord> records_;
    LogCapture *outer_;
    friend void CaptureRecord(LogRecord record);
};

// One problem of a configuration file, "FILE:LINE: message" (line 0: the
// file as a whole). Fatal ones mean that the daemon would not start or
// would hang.
struct Problem {
    std::string file;
    unsigned line = 0;
    std::string message;
    bool fatal = false;
};

// The settings file read as the daemon reads it at start-up, with every
// problem found on the way. An empty line is found before the daemon's
// line handler sees it (that handler never returns on one): `hangs` is then
// true and the table is not read further.
struct SettingsResult {
    bool found = false;  // the file could be opened
    bool hangs = false;
    std::vector<Problem> problems;
};
SettingsResult LoadSettings(const std::string &path);

// The subcommands: argument vectors start at the subcommand's name.
int RunVerify(int argc, char **argv);
int RunTest(int argc, char **argv);
int RunStatus(int argc, char **argv);

// Whether the calling user can expect to open a root-owned file for
// writing (both readers of the daemon open their file read-write).
std::string HintForOpenError(int err);

}  // namespace adm
