// System calls that the unit tests replace at link time in their own binary
// only (-Wl,--wrap in tests/CMakeLists.txt): the driver's ioctl, the system
// log and the clock. Untouched, each goes to the real call.
#pragma once

#include <cstdint>

namespace qmtest {

// Every ioctl of the process goes to `fn` while it is set; null: ioctl(2).
using IoctlFn = int (*)(int fd, unsigned long request, void *arg);
void ReplaceIoctl(IoctlFn fn);

// Every system-log record's text goes to `fn` while it is set (openlog and
// closelog do nothing then); null: the real system log.
using SyslogFn = void (*)(const char *text);
void ReplaceSyslog(SyslogFn fn);

// time() answers `now` from here on; UseRealClock puts the real one back.
void SetClock(int64_t now);
void UseRealClock();

}  // namespace qmtest
