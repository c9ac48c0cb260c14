// One owning type per C handle. A handle is released by its owner's
// destructor on every path; release() appears only where ownership is
// handed over to a C structure (an event node takes a udev_device).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <libudev.h>
#include <unistd.h>

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
// Memory from malloc/calloc: records whose layout crosses to the driver, and
// texts handed to callers that the specified interfaces return.
template <class T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

struct UdevUnref {
    void operator()(struct udev *p) const noexcept { udev_unref(p); }
};
struct UdevDeviceUnref {
    void operator()(struct udev_device *p) const noexcept { udev_device_unref(p); }
};
struct UdevEnumerateUnref {
    void operator()(struct udev_enumerate *p) const noexcept { udev_enumerate_unref(p); }
};
struct UdevMonitorUnref {
    void operator()(struct udev_monitor *p) const noexcept { udev_monitor_unref(p); }
};
using UdevPtr = std::unique_ptr<struct udev, UdevUnref>;
using UdevDevicePtr = std::unique_ptr<struct udev_device, UdevDeviceUnref>;
using UdevEnumeratePtr = std::unique_ptr<struct udev_enumerate, UdevEnumerateUnref>;
using UdevMonitorPtr = std::unique_ptr<struct udev_monitor, UdevMonitorUnref>;

struct FileClose {
    void operator()(std::FILE *f) const noexcept { std::fclose(f); }
};
struct PipeClose {
    void operator()(std::FILE *f) const noexcept { pclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;  // fopen
using PipePtr = std::unique_ptr<std::FILE, PipeClose>;  // popen

// A file descriptor; -1 when empty.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
