// LD_PRELOAD shim that stands in for the product's kernel driver behind
// /dev/misc_qmnv. It must come first in LD_PRELOAD: umockdev's preload
// resolves libc itself and would hide later preloads.
//
// open of /dev/misc_qmnv connects to the lab's driver emulator (socket named
// by QMLAB_MISC_SOCKET); ioctl on such a descriptor is carried over a fresh
// connection per call, so that a reply the lab holds back never blocks
// another thread's request; close forgets the descriptor. Everything else
// passes through to the next definition.
//
// Built without sanitizers, exceptions or the C++ runtime: it is loaded into
// every process the daemon starts (sh, cat, lvm), instrumented or not. All
// I/O of its own goes through raw system calls so that no other
// interposer (umockdev, ASan, TSan) sees it.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "qmlab/wire.h"

namespace {

namespace wire = qmlab::wire;

constexpr int kMaxFd = 1 << 16;
// 1 for a descriptor that stands for the emulated device. Lock-free: set by
// open, cleared by close before the real close.
std::atomic<unsigned char> g_emulated[kMaxFd];

constexpr unsigned kMiscIoctlType = 0xAC;
constexpr size_t kRecordHead = 16;  // status, bufLen, dataLen, needLen

bool IsDevicePath(const char *path)
{
    return path != nullptr && std::strcmp(path, wire::kDevicePath) == 0;
}

bool IsEmulated(int fd)
{
    return fd >= 0 && fd < kMaxFd && g_emulated[fd].load(std::memory_order_acquire) != 0;
}

long RawClose(int fd)
{
    return syscall(SYS_close, fd);
}

bool WriteAll(int fd, const void *data, size_t len)
{
    const char *p = static_cast<const char *>(data);
    while (len > 0) {
        long n = syscall(SYS_sendto, fd, p, len, MSG_NOSIGNAL, nullptr, 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool ReadAll(int fd, void *data, size_t len)
{
    char *p = static_cast<char *>(data);
    while (len > 0) {
        long n = syscall(SYS_recvfrom, fd, p, len, 0, nullptr, nullptr);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// A stream connection to the emulator, or -1 (errno set).
int Connect(int extraFlags)
{
    const char *path = std::getenv(wire::kSocketEnv);
    if (path == nullptr || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof(addr.sun_path)) {
        errno = ENOENT;
        return -1;
    }
    std::strcpy(addr.sun_path, path);
    int fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_STREAM | extraFlags, 0));
    if (fd < 0) {
        return -1;
    }
    if (syscall(SYS_connect, fd, &addr, sizeof(addr)) < 0) {
        int saved = errno;
        RawClose(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

wire::Request NewRequest(uint32_t op)
{
    wire::Request req;
    std::memset(&req, 0, sizeof(req));
    req.magic = wire::kMagic;
    req.op = op;
    req.pid = static_cast<int32_t>(getpid());
    req.tid = static_cast<int32_t>(syscall(SYS_gettid));
    return req;
}

// Like the kernel's copy_from_user/copy_to_user: a bad address is EFAULT,
// not a crash of the caller.
bool CopyFromCaller(void *dst, const void *src, size_t len)
{
    if (len == 0) {
        return true;
    }
    struct iovec local = {dst, len};
    struct iovec remote = {const_cast<void *>(src), len};
    long n = syscall(SYS_process_vm_readv, getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<long>(len)) {
        return true;
    }
    if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
        std::memcpy(dst, src, len);
        return true;
    }
    return false;
}

bool CopyToCaller(void *dst, const void *src, size_t len)
{
    if (len == 0) {
        return true;
    }
    struct iovec local = {const_cast<void *>(src), len};
    struct iovec remote = {dst, len};
    long n = syscall(SYS_process_vm_writev, getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<long>(len)) {
        return true;
    }
    if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
        std::memcpy(dst, src, len);
        return true;
    }
    return false;
}

int EmulatedOpen(int flags)
{
    // A real device descriptor is inherited by children unless O_CLOEXEC.
    int fd = Connect((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0);
    if (fd < 0) {
        errno = ENOENT;  // no driver loaded: the device node is missing
        return -1;
    }
    wire::Request req = NewRequest(wire::kOpOpen);
    req.flags = flags;
    wire::Reply rep;
    if (!WriteAll(fd, &req, sizeof(req)) || !ReadAll(fd, &rep, sizeof(rep)) || rep.magic != wire::kMagic) {
        RawClose(fd);
        errno = ENOENT;
        return -1;
    }
    if (rep.ret < 0) {
        RawClose(fd);
        errno = rep.err;
        return -1;
    }
    if (fd >= kMaxFd) {
        RawClose(fd);
        errno = EMFILE;
        return -1;
    }
    g_emulated[fd].store(1, std::memory_order_release);
    return fd;
}

int EmulatedIoctl(unsigned long request, void *arg)
{
    wire::Request req = NewRequest(wire::kOpIoctl);
    req.number = request;
    req.argNull = arg == nullptr ? 1 : 0;

    uint32_t head[4] = {0, 0, 0, 0};
    char *payload = nullptr;
    if (arg != nullptr && _IOC_TYPE(request) == kMiscIoctlType) {
        if (!CopyFromCaller(head, arg, sizeof(head))) {
            errno = EFAULT;
            return -1;
        }
        req.hasRecord = 1;
        req.status = head[0];
        req.bufLen = head[1];
        req.dataLen = head[2];
        req.needLen = head[3];
        req.payloadLen = head[1] < wire::kMaxPayload ? head[1] : wire::kMaxPayload;
        if (req.payloadLen > 0) {
            payload = static_cast<char *>(std::malloc(req.payloadLen));
            if (payload == nullptr) {
                errno = ENOMEM;
                return -1;
            }
            if (!CopyFromCaller(payload, static_cast<char *>(arg) + kRecordHead, req.payloadLen)) {
                std::free(payload);
                errno = EFAULT;
                return -1;
            }
        }
    }

    int conn = Connect(SOCK_CLOEXEC);
    if (conn < 0) {
        std::free(payload);
        errno = ENODEV;
        return -1;
    }
    bool sent = WriteAll(conn, &req, sizeof(req)) && (req.payloadLen == 0 || WriteAll(conn, payload, req.payloadLen));
    std::free(payload);
    wire::Reply rep;
    if (!sent || !ReadAll(conn, &rep, sizeof(rep)) || rep.magic != wire::kMagic) {
        RawClose(conn);
        errno = ENODEV;
        return -1;
    }
    char *data = nullptr;
    if (rep.payloadLen > 0) {
        data = static_cast<char *>(std::malloc(rep.payloadLen));
        if (data == nullptr || !ReadAll(conn, data, rep.payloadLen)) {
            std::free(data);
            RawClose(conn);
            errno = ENODEV;
            return -1;
        }
    }
    RawClose(conn);

    bool ok = true;
    if (rep.ret >= 0 && req.hasRecord != 0) {
        char *record = static_cast<char *>(arg);
        if ((rep.writeBack & wire::kWriteStatus) != 0) {
            ok = ok && CopyToCaller(record, &rep.status, sizeof(uint32_t));
        }
        if ((rep.writeBack & wire::kWriteLengths) != 0) {
            uint32_t lengths[2] = {rep.dataLen, rep.needLen};
            ok = ok && CopyToCaller(record + 8, lengths, sizeof(lengths));
        }
        if ((rep.writeBack & wire::kWriteData) != 0) {
            // Never past the caller's record: at most bufLen bytes of data.
            uint32_t copy = rep.payloadLen < head[1] ? rep.payloadLen : head[1];
            ok = ok && CopyToCaller(record + kRecordHead, data, copy);
        }
    }
    std::free(data);
    if (!ok) {
        errno = EFAULT;
        return -1;
    }
    if (rep.ret < 0) {
        errno = rep.err;
    }
    return rep.ret;
}

// The next definition of `name`, looked up once. No function-local statics:
// their guards would need the C++ runtime.
template <class Fn>
Fn Next(std::atomic<void *> &slot, const char *name)
{
    void *fn = slot.load(std::memory_order_acquire);
    if (fn == nullptr) {
        fn = dlsym(RTLD_NEXT, name);
        slot.store(fn, std::memory_order_release);
    }
    return reinterpret_cast<Fn>(fn);
}

using OpenFn = int (*)(const char *, int, ...);
using OpenatFn = int (*)(int, const char *, int, ...);
using Open2Fn = int (*)(const char *, int);
using Openat2Fn = int (*)(int, const char *, int);
using IoctlFn = int (*)(int, unsigned long, ...);
using CloseFn = int (*)(int);
using PollFn = int (*)(struct pollfd *, nfds_t, int);
using PollChkFn = int (*)(struct pollfd *, nfds_t, int, size_t);

// The armed poll fault, taken at most once per arming: the file is read and
// then removed, and only the caller whose unlink succeeds fails. Raw system
// calls only, so that no other interposer sees the lab's own file.
bool TakePollFault(int *err)
{
    const char *path = std::getenv(wire::kPollFaultEnv);
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    int saved = errno;
    int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        errno = saved;
        return false;
    }
    char text[16];
    long n = syscall(SYS_read, fd, text, sizeof(text) - 1);
    RawClose(fd);
    bool taken = syscall(SYS_unlinkat, AT_FDCWD, path, 0) == 0;
    errno = saved;
    if (!taken) {
        return false;
    }
    int value = 0;
    for (long i = 0; i < n && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
    }
    *err = value > 0 ? value : ENOMEM;
    return true;
}

bool NeedsMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

}  // namespace

extern "C" {

#define QMLAB_OPEN_WRAPPER(name)                                   \
    int name(const char *path, int flags, ...)                     \
    {                                                              \
        if (IsDevicePath(path)) {                                  \
            return EmulatedOpen(flags);                            \
        }                                                          \
        mode_t mode = 0;                                           \
        if (NeedsMode(flags)) {                                    \
            va_list ap;                                            \
            va_start(ap, flags);                                   \
            mode = static_cast<mode_t>(va_arg(ap, int));           \
            va_end(ap);                                            \
        }                                                          \
        static std::atomic<void *> slot;                           \
        auto next = Next<OpenFn>(slot, #name);                     \
        return next(path, flags, mode);                            \
    }

#define QMLAB_OPENAT_WRAPPER(name)                                 \
    int name(int dirfd, const char *path, int flags, ...)          \
    {                                                              \
        if (IsDevicePath(path)) {                                  \
            return EmulatedOpen(flags);                            \
        }                                                          \
        mode_t mode = 0;                                           \
        if (NeedsMode(flags)) {                                    \
            va_list ap;                                            \
            va_start(ap, flags);                                   \
            mode = static_cast<mode_t>(va_arg(ap, int));           \
            va_end(ap);                                            \
        }                                                          \
        static std::atomic<void *> slot;                           \
        auto next = Next<OpenatFn>(slot, #name);                   \
        return next(dirfd, path, flags, mode);                     \
    }

QMLAB_OPEN_WRAPPER(open)
QMLAB_OPEN_WRAPPER(open64)
QMLAB_OPENAT_WRAPPER(openat)
QMLAB_OPENAT_WRAPPER(openat64)

// The fortified entry points of _FORTIFY_SOURCE builds.
int __open_2(const char *path, int flags)
{
    if (IsDevicePath(path)) {
        return EmulatedOpen(flags);
    }
    static std::atomic<void *> slot;
    auto next = Next<Open2Fn>(slot, "__open_2");
    return next(path, flags);
}

int __open64_2(const char *path, int flags)
{
    if (IsDevicePath(path)) {
        return EmulatedOpen(flags);
    }
    static std::atomic<void *> slot;
    auto next = Next<Open2Fn>(slot, "__open64_2");
    return next(path, flags);
}

int __openat_2(int dirfd, const char *path, int flags)
{
    if (IsDevicePath(path)) {
        return EmulatedOpen(flags);
    }
    static std::atomic<void *> slot;
    auto next = Next<Openat2Fn>(slot, "__openat_2");
    return next(dirfd, path, flags);
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (IsEmulated(fd)) {
        return EmulatedIoctl(request, arg);
    }
    static std::atomic<void *> slot;
    auto next = Next<IoctlFn>(slot, "ioctl");
    return next(fd, request, arg);
}

int poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
    int err = 0;
    if (TakePollFault(&err)) {
        errno = err;
        return -1;
    }
    static std::atomic<void *> slot;
    auto next = Next<PollFn>(slot, "poll");
    return next(fds, nfds, timeout);
}

int __poll_chk(struct pollfd *fds, nfds_t nfds, int timeout, size_t fdslen)
{
    int err = 0;
    if (TakePollFault(&err)) {
        errno = err;
        return -1;
    }
    static std::atomic<void *> slot;
    auto next = Next<PollChkFn>(slot, "__poll_chk");
    return next(fds, nfds, timeout, fdslen);
}

int close(int fd)
{
    if (IsEmulated(fd)) {
        g_emulated[fd].store(0, std::memory_order_release);
    }
    static std::atomic<void *> slot;
    auto next = Next<CloseFn>(slot, "close");
    return next(fd);
}

}  // extern "C"
