// Shared by the unit tests: a private directory, the trace file pointed into
// it, code that must never return run in a child process, and stand-ins for
// the driver, the clock and the system log. ioctl, time and syslog are
// wrapped at link time in the test binary only (tests/CMakeLists.txt).
// Unset, the ioctl and time wrappers pass every call through; syslog
// messages are always kept here, never sent.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "misc_ioctl.h"
#include "raii.h"

namespace qmtest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &content);

// Points the trace file into a private directory while it lives.
class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    const std::string &Path() const { return path_; }
    std::string Text() const { return ReadFile(path_); }
    bool Has(const std::string &needle) const { return Text().find(needle) != std::string::npos; }
    // What was written since the last call.
    std::string Added();

private:
    TempDir dir_;
    std::string path_;
    size_t seen_ = 0;
};

// Runs `body` in a child process until the trace file holds `needle` or the
// child ends; true when the record came and the child was still running (a
// failed assertion holds its thread for good). The child is killed.
bool HeldAfterRecord(const std::string &tracePath, const std::string &needle, const std::function<void()> &body);

// The product driver as the misc channel sees it: while one lives, the
// channel is open (on a private file) and its requests go to `handle`
// instead of the kernel. A negative return fails the ioctl itself.
class FakeDriver {
public:
    using Handler = std::function<int(unsigned long request, MiscCtrlParam *param)>;
    explicit FakeDriver(Handler handle);
    ~FakeDriver();

private:
    TempDir dir_;
};

// A record's data area: bufLen bytes, though declared as four.
inline char *DataOf(MiscCtrlParam *param)
{
    return reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN;
}

// time(2) as the daemon sees it (its retry clock and the trace records'
// time): `now` from the first call on.
void SetClock(time_t now);

// The system log's messages since the last call.
std::vector<std::string> TakeSyslog();

// libudev's record of a testbed device.
UdevDevicePtr Device(const std::string &syspath);

}  // namespace qmtest
