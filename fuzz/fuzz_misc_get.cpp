// The driver channel's handling of what the kernel driver answers: arbitrary
// status, dataLen, needLen and data in GET replies, and arbitrary status
// words for add, remove and change.
//
// 1. UTIL_MiscAllocDeviceNums on a reply record of a given size (an exact
//    heap block, so that reading past it is an ASan report).
// 2. INTF_UTIL_MiscIoctlGet against a fake driver: this binary's ioctl
//    (-Wl,--wrap=ioctl), with the channel open on /dev/null. Like a real
//    driver it reads bufLen from the
//    record and writes at most bufLen bytes of data; what it says in
//    status, dataLen and needLen is the input's. The fake also checks what
//    the daemon hands it (request number, bufLen, zeroed data area).
//    Two replies are never scripted: by design the daemon never comes back
//    from them. A 1038 with needLen 0 (the record builder's assertion), and
//    endless 1038s; after a few rounds the fake stops answering 1038.
// 3. Add, remove and change with texts from the input (never empty: an
//    empty text is the same deliberate assertion) and scripted answers.
// 4. The same calls with the device closed.
//
// Input layout (all numbers little-endian; missing bytes read as 0):
//   u32 status, u32 dataLen, u32 needLen, u16 recordSize, u16 n, n bytes   (1)
//      (recordSize: 16 + its value mod 4096, or below 16 when its top bit
//      is set and the next three bits are clear)
//   u8 rounds, then per round: u8 kind (0 = ioctl fails), u32 status,
//      u32 dataLen, u32 needLen, u16 n, n bytes of data                    (2)
//   u8 events, then per event: u8 request, i8 ret, u32 status, u16 n,
//      n bytes of text                                                     (3)

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "misc_ioctl.h"
#include "util_ret.h"

namespace {

constexpr uint32_t kStatusOk = static_cast<uint32_t>(UDEV_RET_OK);
constexpr uint32_t kStatusShort = static_cast<uint32_t>(UDEV_RET_BUF_SHORT);
constexpr int kMaxShortRounds = 3;
// The driver this binary's ioctl answers as; the channel is open on
// /dev/null while one is set.
using IoctlFn = int (*)(int fd, unsigned long request, void *arg);
IoctlFn g_ioctl = nullptr;

void UseDriver(IoctlFn fn)
{
    g_ioctl = fn;
    (void)INTF_UTIL_MiscIoctlInitAt("/dev/null");
}

class Reader {
public:
    Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    template <class T>
    T Take()
    {
        T v{};
        size_t n = std::min(sizeof(T), size_ - pos_);
        std::memcpy(&v, data_ + pos_, n);
        pos_ += n;
        return v;
    }
    std::string Bytes(size_t n)
    {
        n = std::min(n, size_ - pos_);
        std::string s(reinterpret_cast<const char *>(data_ + pos_), n);
        pos_ += n;
        return s;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// Data area of a record.
unsigned char *DataOf(MiscCtrlParam *p)
{
    return reinterpret_cast<unsigned char *>(p) + MISC_CTRL_HEAD_LEN;
}

void CheckDeviceNums(Reader &in)
{
    uint32_t status = in.Take<uint32_t>();
    uint32_t dataLen = in.Take<uint32_t>();
    uint32_t needLen = in.Take<uint32_t>();
    uint16_t sizeWord = in.Take<uint16_t>();
    std::string data = in.Bytes(in.Take<uint16_t>());
    // Mostly whole records; now and then a block shorter than the header,
    // which must be refused without reading a field of it.
    size_t recordSize = (sizeWord & 0x8000) != 0 && (sizeWord & 0x7000) == 0 ? sizeWord % MISC_CTRL_HEAD_LEN :
                                                                               MISC_CTRL_HEAD_LEN + sizeWord % 4096;

    auto *block = static_cast<unsigned char *>(std::malloc(recordSize == 0 ? 1 : recordSize));
    auto *param = reinterpret_cast<MiscCtrlParam *>(block);
    if (recordSize >= MISC_CTRL_HEAD_LEN) {
        std::memset(param, 0, recordSize);
        param->status = status;
        param->bufLen = static_cast<uint32_t>(recordSize - MISC_CTRL_HEAD_LEN);
        param->dataLen = dataLen;
        param->needLen = needLen;
        std::memcpy(DataOf(param), data.data(), std::min(data.size(), recordSize - MISC_CTRL_HEAD_LEN));
    } else {
        std::memset(block, 0, recordSize == 0 ? 1 : recordSize);
    }

    MallocPtr<char> nums = UTIL_MiscAllocDeviceNums(param, recordSize);
    // The data area is what a daemon-built record offers the driver: its
    // bufLen, one less than the bytes behind the header.
    size_t dataArea = recordSize >= MISC_CTRL_EXTRA_LEN ? recordSize - MISC_CTRL_EXTRA_LEN + 1 : 0;
    bool expectCopy = recordSize >= MISC_CTRL_HEAD_LEN && status == kStatusOk && dataLen <= dataArea;
    FUZZ_CHECK((nums != nullptr) == expectCopy,
               "UTIL_MiscAllocDeviceNums(status %u, dataLen %u, record of %zu bytes) %s", status, dataLen, recordSize,
               nums ? "copied a reply it must refuse" : "refused a good reply");
    if (nums) {
        FUZZ_CHECK(std::memcmp(nums.get(), DataOf(param), dataLen) == 0 && nums.get()[dataLen] == '\0',
                   "UTIL_MiscAllocDeviceNums copied the wrong bytes");
    }
    std::free(block);
}

struct Round {
    uint8_t kind;
    uint32_t status;
    uint32_t dataLen;
    uint32_t needLen;
    std::string data;
};

struct Script {
    std::vector<Round> rounds;
    size_t next = 0;
    uint32_t expectLen = 0;  // the text length the daemon should ask for
    std::string failure;     // what the fake found wrong, if anything
    bool called = false;
    // Events.
    unsigned long expectRequest = 0;
    std::string expectText;
    int ret = 0;
    uint32_t status = 0;
};

Script g_script;

int FakeGet(int fd, unsigned long request, void *arg)
{
    Script &s = g_script;
    s.called = true;
    if (fd <= 0 || request != MISC_IOCTL_GET_DEVNUMS || arg == nullptr) {
        s.failure = "GET issued with the wrong descriptor, request or a null record";
        return -1;
    }
    auto *p = static_cast<MiscCtrlParam *>(arg);
    if (p->bufLen != s.expectLen + 1) {
        s.failure = "GET record has bufLen " + std::to_string(p->bufLen) + ", expected " +
                    std::to_string(s.expectLen + 1);
        return -1;
    }
    for (uint32_t i = 0; i < p->bufLen; ++i) {
        if (DataOf(p)[i] != 0) {
            s.failure = "GET record's data area is not zeroed";
            return -1;
        }
    }
    // Past the script: a plain empty answer ends the exchange.
    Round r = s.next < s.rounds.size() ? s.rounds[s.next] : Round{1, kStatusOk, 0, 0, {}};
    ++s.next;
    if (r.kind == 0) {
        return -5;
    }
    p->status = r.status;
    p->dataLen = r.dataLen;
    p->needLen = r.needLen;
    std::memcpy(DataOf(p), r.data.data(), std::min<size_t>(r.data.size(), p->bufLen));
    return 0;
}

void CheckGet(Reader &in)
{
    Script &s = g_script;
    s = Script{};
    int n = in.Take<uint8_t>() % 8;
    for (int i = 0; i < n; ++i) {
        Round r;
        r.kind = in.Take<uint8_t>() % 8;  // 1 in 8 rounds fails the ioctl
        r.status = in.Take<uint32_t>();
        r.dataLen = in.Take<uint32_t>();
        r.needLen = in.Take<uint32_t>();
        r.data = in.Bytes(in.Take<uint16_t>());
        // Make "ask again" likely, and keep it finite and assertion-free.
        if (r.status != kStatusOk && r.status != kStatusShort && (r.status & 0xFF) < 0x60) {
            r.status = (r.status & 0x100) ? kStatusShort : kStatusOk;
        }
        if (r.status == kStatusShort) {
            if (i >= kMaxShortRounds) {
                r.status = kStatusOk;
            } else if (r.needLen == 0) {
                r.needLen = 1;
            } else if (r.needLen > 70000 && r.needLen <= MISC_GET_MAX_LEN && (r.dataLen & 0xFF) != 0xAB) {
                // Areas of up to 16 MiB only now and then: they are slow.
                r.needLen = r.needLen % 70000 + 1;
            }
        }
        s.rounds.push_back(r);
    }

    // The reference exchange.
    bool expectNull = false;
    uint32_t len = 1023;
    Round last{1, kStatusOk, 0, 0, {}};
    for (size_t i = 0;; ++i) {
        Round r = i < s.rounds.size() ? s.rounds[i] : Round{1, kStatusOk, 0, 0, {}};
        if (r.kind == 0) {
            expectNull = true;
            break;
        }
        if (r.status == kStatusShort) {
            if (r.needLen > MISC_GET_MAX_LEN) {
                expectNull = true;  // beyond what any reply may ask for
                break;
            }
            len = r.needLen;
            continue;
        }
        last = r;
        break;
    }
    size_t dataArea = static_cast<size_t>(len) + 1;  // the bufLen offered in the last round
    if (!expectNull && (last.status != kStatusOk || last.dataLen > dataArea)) {
        expectNull = true;
    }

    // Each round asks for the length the previous round's needLen gave.
    s.expectLen = 1023;
    UseDriver([](int fd, unsigned long request, void *arg) {
        Script &sc = g_script;
        size_t idx = sc.next;
        int ret = FakeGet(fd, request, arg);
        if (idx < sc.rounds.size() && sc.rounds[idx].kind != 0 && sc.rounds[idx].status == kStatusShort) {
            sc.expectLen = sc.rounds[idx].needLen;
        }
        return ret;
    });
    MallocPtr<char> nums = INTF_UTIL_MiscIoctlGet();
    FUZZ_CHECK(s.failure.empty(), "fake driver: %s", s.failure.c_str());
    FUZZ_CHECK((nums == nullptr) == expectNull, "INTF_UTIL_MiscIoctlGet over %zu scripted replies %s", s.rounds.size(),
               nums ? "returned a list where it must fail" : "failed on a good exchange");
    if (nums) {
        // Bytes the fake wrote, then the zeroed rest of bufLen; the three
        // spare bytes after bufLen were never written by anyone.
        std::string expect = last.data.substr(0, std::min<size_t>(last.data.size(), len + 1));
        expect.resize(len + 1, '\0');
        size_t known = std::min<size_t>(last.dataLen, len + 1);
        FUZZ_CHECK(std::memcmp(nums.get(), expect.data(), known) == 0 && nums.get()[last.dataLen] == '\0',
                   "INTF_UTIL_MiscIoctlGet returned other bytes than the driver's reply");
    }
}

int FakeEvent(int fd, unsigned long request, void *arg)
{
    Script &s = g_script;
    s.called = true;
    if (fd <= 0 || request != s.expectRequest || arg == nullptr) {
        s.failure = "event issued with the wrong descriptor, request or a null record";
        return -1;
    }
    auto *p = static_cast<MiscCtrlParam *>(arg);
    if (p->bufLen != s.expectText.size() + 1 ||
        std::memcmp(DataOf(p), s.expectText.c_str(), s.expectText.size() + 1) != 0) {
        s.failure = "event record does not carry \"" + FuzzShow(s.expectText) + "\" with bufLen " +
                    std::to_string(s.expectText.size() + 1);
        return -1;
    }
    if (s.ret >= 0) {
        p->status = s.status;
    }
    return s.ret;
}

void CheckEvents(Reader &in)
{
    Script &s = g_script;
    int n = in.Take<uint8_t>() % 6;
    UseDriver(FakeEvent);
    for (int i = 0; i < n; ++i) {
        s = Script{};
        int which = in.Take<uint8_t>() % 3;
        s.ret = in.Take<int8_t>();
        s.status = in.Take<uint32_t>();
        std::string text = in.Bytes(in.Take<uint16_t>() % 512);
        text = text.substr(0, std::strlen(text.c_str()));
        if (text.empty()) {
            text = "8:32";  // an empty text is the deliberate assertion
        }
        static const unsigned long kRequests[3] = {MISC_IOCTL_ADD, MISC_IOCTL_REMOVE, MISC_IOCTL_CHANGE};
        s.expectRequest = kRequests[which];
        s.expectText = text;
        int got = which == 0 ? INTF_UTIL_MiscIoctlAdd(text.c_str()) :
                  which == 1 ? INTF_UTIL_MiscIoctlRemove(text.c_str()) : INTF_UTIL_MiscIoctlChange(text.c_str());
        FUZZ_CHECK(s.failure.empty(), "fake driver: %s", s.failure.c_str());
        int expect = s.ret < 0 ? UDEV_RET_FAIL : static_cast<int>(s.status);
        FUZZ_CHECK(got == expect, "event %d on \"%s\" with ioctl %d, status %u returned %d, expected %d", which,
                   FuzzShow(text).c_str(), s.ret, s.status, got, expect);
    }
}

int FakeStart(int, unsigned long request, void *arg)
{
    g_script.called = true;
    if (request != MISC_IOCTL_START || arg != nullptr) {
        g_script.failure = "start issued with the wrong request or a record";
    }
    return g_script.ret;
}

void CheckStartAndClosed(Reader &in)
{
    Script &s = g_script;
    s = Script{};
    s.ret = in.Take<int8_t>();
    UseDriver(FakeStart);
    int got = INTF_UTIL_MiscIoctlStart();
    FUZZ_CHECK(s.failure.empty(), "fake driver: %s", s.failure.c_str());
    FUZZ_CHECK(got == (s.ret < 0 ? UDEV_RET_FAIL : UDEV_RET_OK), "start with ioctl %d returned %d", s.ret, got);

    // Closed: nothing reaches the driver.
    INTF_UTIL_MiscIoctlClose();
    {
        s = Script{};
        FUZZ_CHECK(INTF_UTIL_MiscIoctlStart() == UDEV_RET_FAIL, "start on a closed device did not fail");
        FUZZ_CHECK(INTF_UTIL_MiscIoctlGet() == nullptr, "GET on a closed device returned a list");
        FUZZ_CHECK(INTF_UTIL_MiscIoctlAdd("8:32 scsi V P 1:0:0:1") == UDEV_RET_FAIL, "add on a closed device");
        FUZZ_CHECK(INTF_UTIL_MiscIoctlRemove("8:32") == UDEV_RET_FAIL, "remove on a closed device");
        FUZZ_CHECK(INTF_UTIL_MiscIoctlChange("8:32") == UDEV_RET_FAIL, "change on a closed device");
        FUZZ_CHECK(!s.called, "a request reached the driver of a closed device");
    }
}

void CheckCtrlNode(Reader &in)
{
    uint16_t len = in.Take<uint16_t>() % 4096;
    std::string text = in.Bytes(in.Take<uint8_t>());
    text = text.substr(0, std::strlen(text.c_str()));
    bool useText = !text.empty();
    if (!useText && len == 0) {
        len = 1;  // a length of 0 is the deliberate assertion
    }
    MallocPtr<MiscCtrlParam> p = UTIL_MiscAllocCtrlNode(useText ? text.c_str() : nullptr, len);
    FUZZ_CHECK(p != nullptr, "UTIL_MiscAllocCtrlNode failed");
    uint32_t n = useText ? static_cast<uint32_t>(text.size()) : len;
    FUZZ_CHECK(p->bufLen == n + 1, "record for %u characters has bufLen %u", n, p->bufLen);
    const unsigned char *d = DataOf(p.get());
    for (uint32_t i = 0; i <= n; ++i) {
        unsigned char want = useText && i < n ? static_cast<unsigned char>(text[i]) : 0;
        FUZZ_CHECK(d[i] == want, "record data byte %u is %u, expected %u", i, d[i], want);
    }
    // The block is n + 20 bytes: touching its last spare byte must be fine.
    volatile unsigned char spare = d[n + 3];
    (void)spare;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Reader in(data, size);
    CheckDeviceNums(in);
    CheckGet(in);
    CheckEvents(in);
    CheckStartAndClosed(in);
    CheckCtrlNode(in);
    INTF_UTIL_MiscIoctlClose();
    g_ioctl = nullptr;
    return 0;
}

extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" int __wrap_ioctl(int fd, unsigned long request, void *arg)
{
    return g_ioctl != nullptr ? g_ioctl(fd, request, arg) : __real_ioctl(fd, request, arg);
}
