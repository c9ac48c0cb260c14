// Wire format between the preload shim (inside the daemon) and the driver
// emulator (inside the lab process). One stream connection per open and one
// per ioctl: a request header, then payloadLen bytes; a reply header, then
// payloadLen bytes. Plain C layout: the shim uses no C++ library.
#pragma once

#include <cstdint>

namespace qmlab::wire {

constexpr uint32_t kMagic = 0x514d4c42;  // "QMLB"
// Names the emulator's Unix socket in the daemon's environment. Unset, or
// nothing listening: open("/dev/misc_qmnv") fails with ENOENT.
inline constexpr const char *kSocketEnv = "QMLAB_MISC_SOCKET";
inline constexpr const char *kDevicePath = "/dev/misc_qmnv";
// Fault switch: names a file in the daemon's environment. While the file
// exists, the next poll(2) of the process fails with the errno written in
// it (ENOMEM when it holds no number) and the file is removed: one failure
// per arming.
inline constexpr const char *kPollFaultEnv = "QMLAB_FAULT_POLL";
// The shim sends at most this much of a record's data area.
constexpr uint32_t kMaxPayload = 16u * 1024u * 1024u;

enum Op : uint32_t {
    kOpOpen = 1,
    kOpIoctl = 2,
};

// What the shim writes back into the caller's record (never bufLen, never
// more than bufLen bytes of data).
constexpr uint32_t kWriteStatus = 1;
constexpr uint32_t kWriteLengths = 2;  // dataLen and needLen
constexpr uint32_t kWriteData = 4;

struct Request {
    uint32_t magic;
    uint32_t op;
    uint64_t number;     // ioctl request number
    uint32_t hasRecord;  // 1: the header fields below were read from the caller's record
    uint32_t argNull;    // 1: the ioctl argument was a null pointer
    int32_t pid;
    int32_t tid;
    int32_t flags;  // open flags
    uint32_t status;
    uint32_t bufLen;
    uint32_t dataLen;
    uint32_t needLen;
    uint32_t payloadLen;  // bytes of the data area that follow
};

struct Reply {
    uint32_t magic;
    int32_t ret;  // the call's return value
    int32_t err;  // errno when ret < 0
    uint32_t writeBack;  // kWrite* bits: what goes back into the caller's record
    uint32_t status;
    uint32_t dataLen;
    uint32_t needLen;
    uint32_t payloadLen;
};

}  // namespace qmlab::wire
