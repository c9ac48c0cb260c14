#include "support/sys_wrap.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>

extern "C" {
int __real_ioctl(int fd, unsigned long request, ...);
void __real_openlog(const char *ident, int option, int facility);
void __real_syslog(int priority, const char *format, ...);
void __real_closelog();
time_t __real_time(time_t *result);
}

namespace qmtest {

namespace {

std::atomic<IoctlFn> g_ioctl{nullptr};
std::atomic<SyslogFn> g_syslog{nullptr};
constexpr int64_t kRealClock = INT64_MIN;
std::atomic<int64_t> g_now{kRealClock};

}  // namespace

void ReplaceIoctl(IoctlFn fn)
{
    g_ioctl.store(fn);
}

void ReplaceSyslog(SyslogFn fn)
{
    g_syslog.store(fn);
}

void SetClock(int64_t now)
{
    g_now.store(now);
}

void UseRealClock()
{
    g_now.store(kRealClock);
}

}  // namespace qmtest

extern "C" {

int __wrap_ioctl(int fd, unsigned long request, void *arg)
{
    qmtest::IoctlFn fn = qmtest::g_ioctl.load();
    return fn != nullptr ? fn(fd, request, arg) : __real_ioctl(fd, request, arg);
}

void __wrap_openlog(const char *ident, int option, int facility)
{
    if (qmtest::g_syslog.load() == nullptr) {
        __real_openlog(ident, option, facility);
    }
}

void __wrap_syslog(int priority, const char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(text, sizeof(text), format, args);
#pragma GCC diagnostic pop
    va_end(args);
    qmtest::SyslogFn fn = qmtest::g_syslog.load();
    if (fn != nullptr) {
        fn(text);
        return;
    }
    __real_syslog(priority, "%s", text);
}

void __wrap_closelog()
{
    if (qmtest::g_syslog.load() == nullptr) {
        __real_closelog();
    }
}

time_t __wrap_time(time_t *result)
{
    int64_t now = qmtest::g_now.load();
    if (now == qmtest::kRealClock) {
        return __real_time(result);
    }
    if (result != nullptr) {
        *result = static_cast<time_t>(now);
    }
    return static_cast<time_t>(now);
}

}  // extern "C"
