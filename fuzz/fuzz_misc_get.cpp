// The driver channel against a hostile driver: ioctl is wrapped at link time
// (-Wl,--wrap=ioctl), and __wrap_ioctl answers each request of the channel
// from the input, writing at most the bufLen bytes of data that the record
// offers. The record's three spare bytes behind them are poisoned, so ASan
// reports any read of a reply beyond the data area offered. Input: the
// replies of a GET exchange, a few add/remove/change texts and their
// replies, the start request's reply.

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>

#include "fuzz_common.h"
#include "misc_ioctl.h"
#include "util_ret.h"

namespace {

FuzzedDataProvider *g_in = nullptr;
int g_rounds = 0;        // GET requests so far in this exchange
int g_ret = 0;           // what the last request returned
uint32_t g_status = 0;   // and the status it wrote
const char *g_text = ""; // the text an event record must carry

constexpr int kMaxShortRounds = 4;  // endless 1038 replies keep the daemon asking, by design

void Answer(unsigned long request, MiscCtrlParam *p)
{
    FuzzedDataProvider &in = *g_in;
    char *data = reinterpret_cast<char *>(p) + MISC_CTRL_HEAD_LEN;  // bufLen bytes, past the declared char[4]
    FUZZ_CHECK(p->bufLen > 0 && data[p->bufLen - 1] == '\0');
    if (request != MISC_IOCTL_GET_DEVNUMS) {
        FUZZ_CHECK(p->bufLen == std::strlen(g_text) + 1 && std::strcmp(data, g_text) == 0);
    }
    __asan_poison_memory_region(data + p->bufLen, MISC_CTRL_EXTRA_LEN - MISC_CTRL_HEAD_LEN - 1);
    int kind = in.ConsumeIntegralInRange(0, 3);
    g_status = kind == 1 ? UDEV_RET_BUF_SHORT : kind == 2 ? in.ConsumeIntegral<uint32_t>() : UDEV_RET_OK;
    if (request == MISC_IOCTL_GET_DEVNUMS && g_status == UDEV_RET_BUF_SHORT && ++g_rounds >= kMaxShortRounds) {
        g_status = UDEV_RET_OK;
    }
    p->status = g_status;
    p->dataLen = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, p->bufLen + 4) : in.ConsumeIntegral<uint32_t>();
    // A 1038 with needLen 0 holds the daemon in the record builder's
    // assertion, by design.
    p->needLen = std::max(1u, in.ConsumeBool() ? in.ConsumeIntegralInRange(1u, 5000u) : in.ConsumeIntegral<uint32_t>());
    std::string reply = in.ConsumeRandomLengthString(p->bufLen);
    std::memcpy(data, reply.data(), reply.size());
}

}  // namespace

extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (_IOC_TYPE(request) != MISC_IOCTL_TYPE || g_in == nullptr) {
        return __real_ioctl(fd, request, arg);
    }
    g_ret = g_in->ConsumeIntegralInRange(0, 7) == 0 ? -g_in->ConsumeIntegralInRange(1, 200) : 0;
    if (request == MISC_IOCTL_START) {
        FUZZ_CHECK(arg == nullptr);
    } else if (g_ret == 0) {
        Answer(request, static_cast<MiscCtrlParam *>(arg));
    }
    return g_ret;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Any node gives the channel a descriptor above 0; no request reaches it.
    FUZZ_CHECK(INTF_UTIL_MiscIoctlInitAt("/dev/null") == UDEV_RET_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    g_in = &in;
    g_rounds = 0;
    MallocPtr<char> nums = INTF_UTIL_MiscIoctlGet();
    FUZZ_CHECK(nums == nullptr || (g_ret == 0 && g_status == UDEV_RET_OK));

    for (int i = 0; i < 4 && in.remaining_bytes() > 0; ++i) {
        std::string text = in.ConsumeRandomLengthString(300).c_str();
        g_text = text.empty() ? "8:32" : text.c_str();  // an empty text is the builder's assertion too
        int which = in.ConsumeIntegralInRange(0, 2);
        int ret = which == 0 ? INTF_UTIL_MiscIoctlAdd(g_text) :
                  which == 1 ? INTF_UTIL_MiscIoctlRemove(g_text) : INTF_UTIL_MiscIoctlChange(g_text);
        FUZZ_CHECK(ret == (g_ret < 0 ? UDEV_RET_FAIL : static_cast<int>(g_status)));
    }
    int ret = INTF_UTIL_MiscIoctlStart();
    FUZZ_CHECK(ret == (g_ret < 0 ? UDEV_RET_FAIL : UDEV_RET_OK));
    g_in = nullptr;
    return 0;
}
