// qmlab-ioctl-probe: talks to /dev/misc_qmnv the way the daemon does, one
// step per argument, and prints one line per step. Run with the lab's shim
// preloaded; the lab's own tests use it to check the shim and the emulator.
//
//   open | close | start | start-arg | add TEXT | remove TEXT | change TEXT |
//   get BUFLEN | ioctl NUMBER
//
// "get" allocates the record with 64 guard bytes behind its data area and
// reports whether they survived ("guard=ok").
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "misc_ioctl.h"

namespace {

constexpr size_t kGuard = 64;
constexpr unsigned char kGuardByte = 0xA5;

int Text(int fd, unsigned long request, const char *name, const std::string &text)
{
    std::vector<char> block(MISC_CTRL_HEAD_LEN + text.size() + 1 + kGuard, 0);
    auto *p = reinterpret_cast<MiscCtrlParam *>(block.data());
    p->status = 0xFFFFFFFFu;
    p->bufLen = static_cast<uint32_t>(text.size() + 1);
    std::memcpy(block.data() + MISC_CTRL_HEAD_LEN, text.c_str(), text.size() + 1);
    errno = 0;
    int ret = ioctl(fd, request, p);
    int err = errno;
    std::printf("%s ret=%d errno=%d status=%u\n", name, ret, ret < 0 ? err : 0, p->status);
    return ret;
}

int Get(int fd, uint32_t bufLen)
{
    std::vector<unsigned char> block(MISC_CTRL_HEAD_LEN + bufLen + kGuard, 0);
    std::memset(block.data() + MISC_CTRL_HEAD_LEN + bufLen, kGuardByte, kGuard);
    auto *p = reinterpret_cast<MiscCtrlParam *>(block.data());
    p->bufLen = bufLen;
    errno = 0;
    int ret = ioctl(fd, MISC_IOCTL_GET_DEVNUMS, p);
    int err = errno;
    bool guardOk = true;
    for (size_t i = 0; i < kGuard; ++i) {
        guardOk = guardOk && block[MISC_CTRL_HEAD_LEN + bufLen + i] == kGuardByte;
    }
    std::string text(reinterpret_cast<const char *>(block.data() + MISC_CTRL_HEAD_LEN),
                     strnlen(reinterpret_cast<const char *>(block.data() + MISC_CTRL_HEAD_LEN), bufLen));
    std::printf("get ret=%d errno=%d status=%u bufLen=%u dataLen=%u needLen=%u guard=%s text=%s\n", ret,
                ret < 0 ? err : 0, p->status, p->bufLen, p->dataLen, p->needLen, guardOk ? "ok" : "bad", text.c_str());
    return ret;
}

}  // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int fd = -1;
    for (int i = 1; i < argc; ++i) {
        std::string step = argv[i];
        auto arg = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (step == "open") {
            errno = 0;
            fd = open("/dev/misc_qmnv", O_RDWR);
            std::printf("open ret=%d errno=%d\n", fd < 0 ? -1 : 0, fd < 0 ? errno : 0);
        } else if (step == "close") {
            std::printf("close ret=%d\n", close(fd));
            fd = -1;
        } else if (step == "start") {
            errno = 0;
            int ret = ioctl(fd, MISC_IOCTL_START, nullptr);
            std::printf("start ret=%d errno=%d\n", ret, ret < 0 ? errno : 0);
        } else if (step == "start-arg") {
            MiscCtrlParam p{};
            int ret = ioctl(fd, MISC_IOCTL_START, &p);
            std::printf("start-arg ret=%d errno=%d\n", ret, ret < 0 ? errno : 0);
        } else if (step == "add") {
            Text(fd, MISC_IOCTL_ADD, "add", arg());
        } else if (step == "remove") {
            Text(fd, MISC_IOCTL_REMOVE, "remove", arg());
        } else if (step == "change") {
            Text(fd, MISC_IOCTL_CHANGE, "change", arg());
        } else if (step == "get") {
            Get(fd, static_cast<uint32_t>(std::strtoul(arg().c_str(), nullptr, 0)));
        } else if (step == "ioctl") {
            unsigned long number = std::strtoul(arg().c_str(), nullptr, 0);
            int value = 0;
            errno = 0;
            int ret = ioctl(fd, number, &value);
            std::printf("ioctl ret=%d errno=%d\n", ret, ret < 0 ? errno : 0);
        } else {
            std::fprintf(stderr, "unknown step %s\n", step.c_str());
            return 2;
        }
    }
    return 0;
}
