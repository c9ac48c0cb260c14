#include "support/unit_support.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <ftw.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "udev_log.h"

namespace {

qmtest::FakeDriver::Handler g_driver;
std::atomic<time_t> g_clock{-1};  // -1: the real clock
std::vector<std::string> g_syslog;  // read and written by the test's own thread

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *)
{
    ::remove(path);
    return 0;
}

}  // namespace

extern "C" {
int __real_ioctl(int fd, unsigned long request, ...);
time_t __real_time(time_t *out);

// No unit test reaches the host's system log.
void __wrap_syslog(int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    if (::vasprintf(&text, format, args) >= 0) {
        g_syslog.emplace_back(text);
        std::free(text);
    }
    va_end(args);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (g_driver && _IOC_TYPE(request) == MISC_IOCTL_TYPE) {
        return g_driver(request, static_cast<MiscCtrlParam *>(arg));
    }
    return __real_ioctl(fd, request, arg);
}

time_t __wrap_time(time_t *out)
{
    time_t now = g_clock.load();
    if (now == -1) {
        return __real_time(out);
    }
    if (out != nullptr) {
        *out = now;
    }
    return now;
}
}

namespace qmtest {

std::vector<std::string> TakeSyslog()
{
    return std::exchange(g_syslog, {});
}

TempDir::TempDir()
{
    std::string tmpl = "/tmp/qmudev-unit-XXXXXX";
    if (::mkdtemp(tmpl.data()) != nullptr) {
        path_ = tmpl;
    }
}

TempDir::~TempDir()
{
    if (!path_.empty()) {
        ::nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

TraceCapture::TraceCapture() : path_(dir_.File("trace.txt"))
{
    UDEV_ClearSyslogMode();
    (void)MPI_SetLogFile(path_.c_str());
}

// Afterwards records are dropped again (empty path).
TraceCapture::~TraceCapture()
{
    (void)MPI_SetLogFile("");
}

std::string TraceCapture::Added()
{
    std::string text = Text();
    std::string added = text.substr(std::min(seen_, text.size()));
    seen_ = text.size();
    return added;
}

bool HeldAfterRecord(const std::string &tracePath, const std::string &needle, const std::function<void()> &body)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(0);
    }
    int status = 0;
    for (;;) {
        // Read first: a child still there afterwards was there after the record.
        bool seen = ReadFile(tracePath).find(needle) != std::string::npos;
        if (pid < 0 || ::waitpid(pid, &status, WNOHANG) != 0) {
            return false;
        }
        if (seen) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return true;
        }
        ::usleep(10000);
    }
}

FakeDriver::FakeDriver(Handler handle)
{
    WriteFile(dir_.File("misc_qmnv"), "");
    (void)INTF_UTIL_MiscIoctlInitAt(dir_.File("misc_qmnv").c_str());
    g_driver = std::move(handle);
}

FakeDriver::~FakeDriver()
{
    g_driver = nullptr;
    INTF_UTIL_MiscIoctlClose();
}

void SetClock(time_t now)
{
    g_clock.store(now);
}

UdevDevicePtr Device(const std::string &syspath)
{
    // Devices point at their context without holding it: one for the process.
    static struct udev *const udev = udev_new();
    return UdevDevicePtr(udev_device_new_from_syspath(udev, syspath.c_str()));
}

}  // namespace qmtest
