// qmudevadm status: whether a daemon holds the pid file's lock (the one
// the daemon takes at start-up and keeps while it runs), and the last ERROR
// and WARN records of its trace file.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <optional>

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include "adm.h"
#include "adm_json.h"
#include "mpi_usr_if.h"
#include "raii.h"

namespace adm {

namespace {

constexpr const char *kPidFile = "/run/qmudev.pid";

struct PidState {
    bool running = false;
    long pid = 0;          // of the lock holder when running, else the one left in the file
    std::string problem;   // why the state could not be read
    bool fileExists = false;
};

PidState ReadPidState()
{
    PidState state;
    UniqueFd fd(open(kPidFile, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno != ENOENT) {
            state.problem = std::string(kPidFile) + ": " + std::strerror(errno);
        }
        return state;
    }
    state.fileExists = true;
    char text[32] = {0};  // the pid's digits and a NUL
    ssize_t got = read(fd.get(), text, sizeof(text) - 1);
    state.pid = got > 0 ? std::strtol(text, nullptr, 10) : 0;
    struct flock query = {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    if (fcntl(fd.get(), F_GETLK, &query) != 0) {
        state.problem = std::string(kPidFile) + ": " + std::strerror(errno);
    } else if (query.l_type != F_UNLCK) {
        state.running = true;
        state.pid = query.l_pid;
    }
    return state;
}

// One trace record: [sequence][time][key][level][module][function: line]message
struct TraceRecord {
    std::string raw;
    std::string sequence;
    std::string time;
    std::string level;
    std::string function;
    long line = 0;
    std::string message;
};

std::string Trim(std::string text)
{
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

std::optional<TraceRecord> ParseRecord(const std::string &line)
{
    std::string fields[6];
    size_t pos = 0;
    for (std::string &field : fields) {
        size_t close = line.find(']', pos);
        if (pos >= line.size() || line[pos] != '[' || close == std::string::npos) {
            return std::nullopt;
        }
        field = line.substr(pos + 1, close - pos - 1);
        pos = close + 1;
    }
    if (fields[0].empty() || fields[0].find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    // The place is "function: source line".
    size_t colon = fields[5].rfind(": ");
    std::string function = colon != std::string::npos ? fields[5].substr(0, colon) : fields[5];
    long sourceLine = colon != std::string::npos ? std::strtol(fields[5].c_str() + colon + 2, nullptr, 10) : 0;
    return TraceRecord{line, fields[0], fields[1], Trim(fields[3]), function, sourceLine, line.substr(pos)};
}

// The last `count` ERROR and WARN records; a line that is not a record
// continues the message of the record before it.
std::deque<TraceRecord> LastProblems(const std::string &path, size_t count, bool *found)
{
    std::deque<TraceRecord> kept;
    std::ifstream in(path);
    *found = static_cast<bool>(in);
    std::string line;
    bool lastKept = false;
    while (std::getline(in, line)) {
        std::optional<TraceRecord> record = ParseRecord(line);
        if (!record) {
            if (lastKept) {
                kept.back().raw += "\n" + line;
                kept.back().message += "\n" + line;
            }
            continue;
        }
        lastKept = record->level == "ERROR" || record->level == "WARN";
        if (lastKept) {
            kept.push_back(std::move(*record));
            if (kept.size() > count) {
                kept.pop_front();
            }
        }
    }
    return kept;
}

const char *const kStatusUsage =
    "Usage: qmudevadm status [--lines N] [--json]\n"
    "Whether a qmudev daemon holds /run/qmudev.pid (and its pid), and the last ERROR and WARN\n"
    "records of its trace file (none in SAN-boot mode, which logs to the system log).\n"
    "  --lines N   how many records (default 10)\n"
    "  --json      one JSON object\n"
    "Exit: 0 a daemon runs, 3 none runs, 1 the state cannot be read, 64 bad usage.\n";

}  // namespace

int RunStatus(int argc, char **argv)
{
    size_t lines = 10;
    bool json = false;
    static const option kOptions[] = {{"lines", required_argument, nullptr, 'n'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "+hn:", kOptions, nullptr)) != -1) {
        char *end = nullptr;
        switch (opt) {
            case 'n':
                lines = std::strtoul(optarg, &end, 10);
                if (end == optarg || *end != '\0') {
                    std::fputs(kStatusUsage, stderr);
                    return kExitUsage;
                }
                break;
            case 'j': json = true; break;
            case 'h': std::fputs(kStatusUsage, stdout); return kExitOk;
            default: std::fputs(kStatusUsage, stderr); return kExitUsage;
        }
    }
    if (optind != argc) {
        std::fputs(kStatusUsage, stderr);
        return kExitUsage;
    }
    PidState state = ReadPidState();
    const char *tracePath = MPI_GetFilePath(MPI_PATH_LOG, "qm_udev_log.txt");
    std::string trace = tracePath != nullptr ? tracePath : "";
    bool traceFound = false;
    std::deque<TraceRecord> records = LastProblems(trace, lines, &traceFound);
    int exitCode = !state.problem.empty() ? kExitChanged : state.running ? kExitOk : kExitNotRunning;
    if (json) {
        std::string out;
        JsonWriter writer(&out);
        writer.BeginObject().Key("running").Bool(state.running).Key("pid");
        state.pid > 0 ? writer.Int(state.pid) : writer.Null();
        writer.Field("pid_file", kPidFile).Key("pid_file_exists").Bool(state.fileExists);
        writer.Field("problem", state.problem).Field("trace_file", trace).Key("trace_file_exists").Bool(traceFound);
        writer.Key("records").BeginArray();
        for (const TraceRecord &record : records) {
            writer.BeginObject().Field("sequence", record.sequence).Field("time", record.time);
            writer.Field("level", record.level).Field("function", record.function).Key("line").Int(record.line);
            writer.Field("message", record.message).EndObject();
        }
        writer.EndArray().Key("exit").Int(exitCode).EndObject();
        std::printf("%s\n", out.c_str());
        return exitCode;
    }
    if (!state.problem.empty()) {
        std::printf("qmudev: unknown (%s)\n", state.problem.c_str());
    } else if (state.running) {
        std::printf("qmudev: running (pid %ld holds %s)\n", state.pid, kPidFile);
    } else if (state.fileExists) {
        std::printf("qmudev: not running (no process holds %s; pid %ld was the last)\n", kPidFile, state.pid);
    } else {
        std::printf("qmudev: not running (no %s)\n", kPidFile);
    }
    std::printf("%s: %s\n", trace.c_str(),
                !traceFound ? "no trace file"
                            : records.empty() ? "no ERROR or WARN record" : "last ERROR and WARN records:");
    for (const TraceRecord &record : records) {
        std::printf("%s\n", record.raw.c_str());
    }
    return exitCode;
}

}  // namespace adm
