// Differential target for the bounded copy, fill and format routines: each
// call is checked against a small reference model of their contract (result
// value and every byte of the destination afterwards, errors included).
//
// The destination lives in a heap arena; bytes of the arena outside the
// destination's declared size must never change, and the arena's end is the
// end of the heap block, so ASan sees any write past it. Sources are either
// inside the same arena (to reach the overlap rules) or exact-size heap
// blocks (so that an over-read is an ASan report).
//
// Where the contract leaves a detail open the model accepts every reading
// of it, and says so where it does.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_common.h"
#include "securec.h"

namespace {

constexpr size_t kArena = 96;
constexpr size_t kLimit = 0x7FFFFFFF;

enum Op : int {
    OP_MEMCPY,
    OP_MEMSET,
    OP_STRCPY,
    OP_STRNCPY,
    OP_STRCAT,
    OP_SPRINTF,
    OP_SNPRINTF,
    OP_VSNPRINTF,
    OP_STRTOK,
    OP_COUNT
};

// Expected arena after a call: one value per byte, -1 where any value is
// acceptable.
struct Outcome {
    int ret;
    std::vector<int> bytes;
};

std::vector<int> Untouched(const std::vector<unsigned char> &orig)
{
    return std::vector<int>(orig.begin(), orig.end());
}

// The string routines' reset fixes the first byte only ("emptied").
Outcome StrReset(const std::vector<unsigned char> &orig, size_t dOff, size_t destMax, int ret)
{
    Outcome o{ret, Untouched(orig)};
    o.bytes[dOff] = 0;
    for (size_t i = 1; i < destMax; ++i) {
        o.bytes[dOff + i] = -1;
    }
    return o;
}

bool Intersect(size_t a, size_t alen, size_t b, size_t blen)
{
    return alen > 0 && blen > 0 && a < b + blen && b < a + alen;
}

struct Call {
    std::string desc;
    std::vector<unsigned char> orig;
};

void Verify(const Call &call, int ret, const unsigned char *arena, const std::vector<Outcome> &accepted)
{
    for (const Outcome &o : accepted) {
        if (o.ret != ret) {
            continue;
        }
        bool same = true;
        for (size_t i = 0; i < kArena && same; ++i) {
            same = o.bytes[i] < 0 || o.bytes[i] == arena[i];
        }
        if (same) {
            if (std::getenv("QMUDEV_FUZZ_DEBUG") != nullptr) {
                std::fprintf(stderr, "fuzz_bounds: %s -> %d\n", call.desc.c_str(), ret);
            }
            return;
        }
    }
    std::string rets;
    size_t firstDiff = kArena;
    for (const Outcome &o : accepted) {
        rets += std::to_string(o.ret) + " ";
        if (o.ret == ret) {
            for (size_t i = 0; i < kArena; ++i) {
                if (o.bytes[i] >= 0 && o.bytes[i] != arena[i]) {
                    firstDiff = std::min(firstDiff, i);
                    break;
                }
            }
        }
    }
    FuzzFail(__FILE__, __LINE__,
             "%s\n  returned %d, contract allows {%s}\n  arena before: %s\n  arena after:  %s\n"
             "  first byte off the contract: %zu",
             call.desc.c_str(), ret, rets.c_str(), FuzzShow(call.orig.data(), kArena).c_str(),
             FuzzShow(arena, kArena).c_str(), firstDiff);
}

// A source outside the arena: exactly `bytes` long, so reading one byte
// more is an ASan report.
struct HeapSrc {
    unsigned char *p = nullptr;
    explicit HeapSrc(const std::string &content)
    {
        p = static_cast<unsigned char *>(std::malloc(content.size() ? content.size() : 1));
        std::memcpy(p, content.data(), content.size());
    }
    ~HeapSrc() { std::free(p); }
    HeapSrc(const HeapSrc &) = delete;
    HeapSrc &operator=(const HeapSrc &) = delete;
};

size_t PickDestMax(FuzzedDataProvider &fdp, size_t room)
{
    switch (fdp.ConsumeIntegralInRange<int>(0, 15)) {
    case 0:
        return 0;
    case 1:
        return kLimit + 1 + fdp.ConsumeIntegralInRange<size_t>(0, 3);
    case 2:
        return SIZE_MAX;
    default:
        return room == 0 ? 0 : fdp.ConsumeIntegralInRange<size_t>(1, room);
    }
}

size_t PickCount(FuzzedDataProvider &fdp)
{
    switch (fdp.ConsumeIntegralInRange<int>(0, 15)) {
    case 0:
        return kLimit + 1 + fdp.ConsumeIntegralInRange<size_t>(0, 3);
    case 1:
        return SIZE_MAX;
    case 2:
        return kLimit;
    default:
        return fdp.ConsumeIntegralInRange<size_t>(0, kArena + 8);
    }
}

bool DestRangeOk(size_t destMax)
{
    return destMax >= 1 && destMax <= kLimit;
}

void FuzzMemcpy(FuzzedDataProvider &fdp, unsigned char *arena, Call &call)
{
    size_t dOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 1);
    bool destNull = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    size_t destMax = PickDestMax(fdp, kArena - dOff);
    int srcKind = fdp.ConsumeIntegralInRange<int>(0, 4);  // 0 null, 1-2 arena, 3-4 heap
    size_t count = PickCount(fdp);
    size_t sOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 1);

    // A count the routine will honour must name readable source bytes.
    bool willRead = DestRangeOk(destMax) && !destNull && count <= destMax;
    if (srcKind == 1 || srcKind == 2) {
        if (willRead && sOff + count > kArena) {
            count = kArena - sOff;
        }
    }
    std::string heapContent;
    if (srcKind >= 3) {
        heapContent = fdp.ConsumeBytesAsString(willRead ? count : 0);
        heapContent.resize(willRead ? count : 0, 'h');
    }
    HeapSrc heap(heapContent);

    unsigned char *dest = destNull ? nullptr : arena + dOff;
    const unsigned char *src = srcKind == 0 ? nullptr : (srcKind <= 2 ? arena + sOff : heap.p);
    call.desc = "memcpy_s(arena+" + std::to_string(dOff) + (destNull ? " [null]" : "") + ", " +
                std::to_string(destMax) + ", src kind " + std::to_string(srcKind) + " off " + std::to_string(sOff) +
                ", " + std::to_string(count) + ")";

    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    Outcome zeroed{SECUREC_EINVAL_AND_RESET, Untouched(orig)};
    if (DestRangeOk(destMax) && !destNull) {
        for (size_t i = 0; i < destMax; ++i) {
            zeroed.bytes[dOff + i] = 0;
        }
    }
    if (!DestRangeOk(destMax)) {
        ok.push_back({SECUREC_ERANGE, Untouched(orig)});
    } else if (destNull) {
        ok.push_back({SECUREC_EINVAL, Untouched(orig)});
    } else if (src == nullptr) {
        zeroed.ret = SECUREC_EINVAL_AND_RESET;
        ok.push_back(zeroed);
    } else if (count > destMax) {
        zeroed.ret = SECUREC_ERANGE_AND_RESET;
        ok.push_back(zeroed);
    } else if (static_cast<const void *>(dest) == static_cast<const void *>(src)) {
        ok.push_back({EOK, Untouched(orig)});
    } else if (srcKind <= 2 && Intersect(dOff, count, sOff, count)) {
        zeroed.ret = SECUREC_EOVERLAP_AND_RESET;
        ok.push_back(zeroed);
    } else {
        Outcome o{EOK, Untouched(orig)};
        for (size_t i = 0; i < count; ++i) {
            o.bytes[dOff + i] = src[i];
        }
        ok.push_back(o);
    }
    errno_t ret = memcpy_s(dest, destMax, src, count);
    Verify(call, ret, arena, ok);
}

void FuzzMemset(FuzzedDataProvider &fdp, unsigned char *arena, Call &call)
{
    size_t dOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 1);
    bool destNull = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    size_t destMax = PickDestMax(fdp, kArena - dOff);
    size_t count = PickCount(fdp);
    int c = fdp.ConsumeIntegralInRange<int>(-300, 300);
    unsigned char *dest = destNull ? nullptr : arena + dOff;
    call.desc = "memset_s(arena+" + std::to_string(dOff) + (destNull ? " [null]" : "") + ", " +
                std::to_string(destMax) + ", " + std::to_string(c) + ", " + std::to_string(count) + ")";

    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    if (!DestRangeOk(destMax)) {
        ok.push_back({SECUREC_ERANGE, Untouched(orig)});
    } else if (destNull) {
        ok.push_back({SECUREC_EINVAL, Untouched(orig)});
    } else {
        size_t n = count > destMax ? destMax : count;
        Outcome o{count > destMax ? SECUREC_ERANGE_AND_RESET : EOK, Untouched(orig)};
        for (size_t i = 0; i < n; ++i) {
            o.bytes[dOff + i] = static_cast<unsigned char>(c);
        }
        ok.push_back(o);
    }
    errno_t ret = memset_s(dest, destMax, c, count);
    Verify(call, ret, arena, ok);
}

// Shared by the three string copies: where the destination and the source
// are and how big the destination claims to be.
struct StrSetup {
    size_t dOff = 0;
    bool destNull = false;
    size_t destMax = 0;
    int srcKind = 0;  // 0 null, 1 arena, 2 heap
    size_t sOff = 0;
    char *dest = nullptr;
    const char *src = nullptr;
    std::unique_ptr<HeapSrc> heap;  // the heap source's exact block, for srcKind 2

    void SetHeapSource(const std::string &content)
    {
        heap = std::make_unique<HeapSrc>(content);
        if (srcKind == 2) {
            src = reinterpret_cast<const char *>(heap->p);
        }
    }
};

void SetupStr(FuzzedDataProvider &fdp, unsigned char *arena, StrSetup &s)
{
    // The arena's last byte stays 0 and outside every destination, so a
    // source inside the arena always ends there at the latest.
    s.dOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 2);
    s.destNull = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    s.destMax = PickDestMax(fdp, kArena - 1 - s.dOff);
    s.srcKind = fdp.ConsumeIntegralInRange<int>(0, 6);
    s.srcKind = s.srcKind == 0 ? 0 : (s.srcKind <= 3 ? 1 : 2);
    s.sOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 1);
    s.dest = s.destNull ? nullptr : reinterpret_cast<char *>(arena + s.dOff);
    if (s.srcKind == 1) {
        s.src = reinterpret_cast<const char *>(arena + s.sOff);
    }
}

std::string StrDesc(const char *fn, const StrSetup &s, size_t srcBound = SIZE_MAX)
{
    return std::string(fn) + "(arena+" + std::to_string(s.dOff) + (s.destNull ? " [null]" : "") + ", " +
           std::to_string(s.destMax) + ", src " +
           (s.srcKind == 0 ? std::string("null") :
                             s.srcKind == 1 ? "arena+" + std::to_string(s.sOff) : std::string("heap")) +
           " \"" + (s.src ? FuzzShow(s.src, strnlen(s.src, srcBound)) : "") + "\"";
}

void FuzzStrcpy(FuzzedDataProvider &fdp, unsigned char *arena, Call &call)
{
    StrSetup s;
    SetupStr(fdp, arena, s);
    s.SetHeapSource(fdp.ConsumeRandomLengthString(kArena + 16) + '\0');
    call.desc = StrDesc("strcpy_s", s) + ")";
    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    if (!DestRangeOk(s.destMax)) {
        ok.push_back({SECUREC_ERANGE, Untouched(orig)});
    } else if (s.destNull) {
        ok.push_back({SECUREC_EINVAL, Untouched(orig)});
    } else if (s.src == nullptr) {
        ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EINVAL_AND_RESET));
    } else {
        size_t len = strlen(s.src);
        if (len + 1 > s.destMax) {
            ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_ERANGE_AND_RESET));
        } else if (s.src == s.dest) {
            // Copying a text onto itself: the contract does not single this
            // out; both "nothing to do" and the overlap error are fine.
            ok.push_back({EOK, Untouched(orig)});
            ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EOVERLAP_AND_RESET));
        } else if (s.srcKind == 1 && Intersect(s.dOff, len + 1, s.sOff, len + 1)) {
            ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EOVERLAP_AND_RESET));
        } else {
            Outcome o{EOK, Untouched(orig)};
            for (size_t i = 0; i <= len; ++i) {
                o.bytes[s.dOff + i] = static_cast<unsigned char>(s.src[i]);
            }
            ok.push_back(o);
        }
    }
    errno_t ret = strcpy_s(s.dest, s.destMax, s.src);
    Verify(call, ret, arena, ok);
}

void FuzzStrncpy(FuzzedDataProvider &fdp, unsigned char *arena, Call &call)
{
    StrSetup s;
    SetupStr(fdp, arena, s);
    size_t count = PickCount(fdp);
    // A heap source need not be terminated: the routine may read at most
    // count characters, or destMax when count is not below it.
    bool terminated = fdp.ConsumeBool();
    std::string content = fdp.ConsumeRandomLengthString(kArena + 16);
    if (content.find('\0') != std::string::npos) {
        terminated = true;
    }
    size_t readBound = count < s.destMax ? count : s.destMax;
    if (!terminated && (!DestRangeOk(s.destMax) || content.size() < readBound)) {
        terminated = true;
    }
    if (terminated) {
        content.push_back('\0');
    }
    s.SetHeapSource(content);
    call.desc = StrDesc("strncpy_s", s, s.srcKind == 2 ? content.size() : SIZE_MAX);
    if (s.srcKind == 2 && !terminated) {
        call.desc += " (unterminated, " + std::to_string(content.size()) + " bytes)";
    }
    call.desc += ", count " + std::to_string(count) + ")";

    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    auto success = [&](size_t n) {
        Outcome o{EOK, Untouched(orig)};
        for (size_t i = 0; i < n; ++i) {
            o.bytes[s.dOff + i] = static_cast<unsigned char>(s.src[i]);
        }
        o.bytes[s.dOff + n] = 0;
        return o;
    };
    if (!DestRangeOk(s.destMax)) {
        ok.push_back({SECUREC_ERANGE, Untouched(orig)});
    } else if (s.destNull) {
        ok.push_back({SECUREC_EINVAL, Untouched(orig)});
    } else if (s.src == nullptr) {
        ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EINVAL_AND_RESET));
    } else {
        bool countValid = count <= kLimit;
        size_t n = 0;
        bool tooSmall = false;
        if (count < s.destMax) {
            n = strnlen(s.src, count);
        } else {
            n = strnlen(s.src, s.destMax);
            tooSmall = n >= s.destMax;
        }
        std::vector<Outcome> byRule;
        if (count == 0) {
            byRule.push_back(success(0));
        } else if (tooSmall) {
            byRule.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_ERANGE_AND_RESET));
        } else if (s.src == s.dest) {
            // Onto itself: either nothing to copy (the text may or may not
            // be cut at n) or the overlap error.
            Outcome o{EOK, Untouched(orig)};
            o.bytes[s.dOff + n] = -1;
            byRule.push_back(o);
            byRule.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EOVERLAP_AND_RESET));
        } else {
            // The characters copied must not overlap what is written; the
            // source's terminator, read or not, is a grey zone.
            bool strict = s.srcKind == 1 && Intersect(s.dOff, n + 1, s.sOff, n);
            bool loose = s.srcKind == 1 && Intersect(s.dOff, n + 1, s.sOff, n + 1);
            if (strict || loose) {
                byRule.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EOVERLAP_AND_RESET));
            }
            if (!strict) {
                byRule.push_back(success(n));
            }
        }
        if (countValid) {
            ok = byRule;
        } else {
            // A count above the limit is outside the contract's domain: the
            // routine may refuse it (any error, reset or not) or treat it as
            // a count not below destMax.
            ok = byRule;
            for (int err : {SECUREC_ERANGE, SECUREC_EINVAL}) {
                ok.push_back({err, Untouched(orig)});
            }
            for (int err : {SECUREC_ERANGE_AND_RESET, SECUREC_EINVAL_AND_RESET}) {
                ok.push_back(StrReset(orig, s.dOff, s.destMax, err));
            }
        }
    }
    errno_t ret = strncpy_s(s.dest, s.destMax, s.src, count);
    Verify(call, ret, arena, ok);
}

void FuzzStrcat(FuzzedDataProvider &fdp, unsigned char *arena, Call &call)
{
    StrSetup s;
    SetupStr(fdp, arena, s);
    s.SetHeapSource(fdp.ConsumeRandomLengthString(kArena + 16) + '\0');
    call.desc = StrDesc("strcat_s", s);
    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    if (!DestRangeOk(s.destMax)) {
        ok.push_back({SECUREC_ERANGE, Untouched(orig)});
    } else if (s.destNull) {
        ok.push_back({SECUREC_EINVAL, Untouched(orig)});
    } else if (s.src == nullptr) {
        ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EINVAL_AND_RESET));
    } else {
        size_t dl = strnlen(s.dest, s.destMax);
        size_t sl = strlen(s.src);
        call.desc += " onto \"" + FuzzShow(s.dest, dl) + "\"";
        if (dl == s.destMax) {
            ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EINVAL_AND_RESET));
        } else if (dl + sl + 1 > s.destMax) {
            ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_ERANGE_AND_RESET));
        } else {
            // Strict: the copied characters meet the bytes written. Loose:
            // also counting the source's terminator and the destination's
            // existing text, which an implementation may well refuse too.
            bool strict = s.srcKind == 1 && Intersect(s.dOff + dl, sl + 1, s.sOff, sl);
            bool loose = s.srcKind == 1 && Intersect(s.dOff, dl + sl + 1, s.sOff, sl + 1);
            if (strict || loose) {
                ok.push_back(StrReset(orig, s.dOff, s.destMax, SECUREC_EOVERLAP_AND_RESET));
            }
            if (!strict) {
                std::string joined(s.dest, dl);
                joined.append(s.src, sl);
                Outcome o{EOK, Untouched(orig)};
                for (size_t i = 0; i <= joined.size(); ++i) {
                    o.bytes[s.dOff + i] = i < joined.size() ? static_cast<unsigned char>(joined[i]) : 0;
                }
                ok.push_back(o);
            }
        }
    }
    call.desc += ")";
    errno_t ret = strcat_s(s.dest, s.destMax, s.src);
    Verify(call, ret, arena, ok);
}

// The formats the daemon uses, each with its own literal so that the
// compiler checks the arguments.
struct FmtArgs {
    const char *s1;
    const char *s2;
    int i[6];
    unsigned u;
};
constexpr int kFormats = 8;
const char *const kFormatText[kFormats] = {"%s", "%d", "%s %s ", "%d:%d:%d:%d", "%s:%s ", "%02x",
                                           "%d-%02d-%02d %02d:%02d:%02d", "%s "};

std::string Reference(int f, const FmtArgs &a)
{
    char buf[512];
    int n = -1;
    switch (f) {
    case 0: n = std::snprintf(buf, sizeof(buf), "%s", a.s1); break;
    case 1: n = std::snprintf(buf, sizeof(buf), "%d", a.i[0]); break;
    case 2: n = std::snprintf(buf, sizeof(buf), "%s %s ", a.s1, a.s2); break;
    case 3: n = std::snprintf(buf, sizeof(buf), "%d:%d:%d:%d", a.i[0], a.i[1], a.i[2], a.i[3]); break;
    case 4: n = std::snprintf(buf, sizeof(buf), "%s:%s ", a.s1, a.s2); break;
    case 5: n = std::snprintf(buf, sizeof(buf), "%02x", a.u); break;
    case 6:
        n = std::snprintf(buf, sizeof(buf), "%d-%02d-%02d %02d:%02d:%02d", a.i[0], a.i[1], a.i[2], a.i[3], a.i[4],
                          a.i[5]);
        break;
    default: n = std::snprintf(buf, sizeof(buf), "%s ", a.s1); break;
    }
    FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) < sizeof(buf), "reference formatting overflowed");
    return std::string(buf, static_cast<size_t>(n));
}

int CallVsnprintf(char *d, size_t m, size_t c, const char *format, ...) __attribute__((format(printf, 4, 5)));
int CallVsnprintf(char *d, size_t m, size_t c, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int r = vsnprintf_s(d, m, c, format, ap);
    va_end(ap);
    return r;
}

// kind: 0 sprintf_s, 1 snprintf_s, 2 vsnprintf_s.
int CallFormat(int kind, int f, char *d, size_t m, size_t c, const FmtArgs &a)
{
#define QM_FMT_CALL(...)                                                 \
    (kind == 0 ? sprintf_s(d, m, __VA_ARGS__) :                          \
                 kind == 1 ? snprintf_s(d, m, c, __VA_ARGS__) : CallVsnprintf(d, m, c, __VA_ARGS__))
    switch (f) {
    case 0: return QM_FMT_CALL("%s", a.s1);
    case 1: return QM_FMT_CALL("%d", a.i[0]);
    case 2: return QM_FMT_CALL("%s %s ", a.s1, a.s2);
    case 3: return QM_FMT_CALL("%d:%d:%d:%d", a.i[0], a.i[1], a.i[2], a.i[3]);
    case 4: return QM_FMT_CALL("%s:%s ", a.s1, a.s2);
    case 5: return QM_FMT_CALL("%02x", a.u);
    case 6: return QM_FMT_CALL("%d-%02d-%02d %02d:%02d:%02d", a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5]);
    default: return QM_FMT_CALL("%s ", a.s1);
    }
#undef QM_FMT_CALL
}

int CallNullFormat(int kind, char *d, size_t m, size_t c, const FmtArgs &a)
{
    // Through a volatile so that the compiler does not see the null.
    const char *volatile format = nullptr;
    switch (kind) {
    case 0: return sprintf_s(d, m, format, a.s1);
    case 1: return snprintf_s(d, m, c, format, a.s1);
    default: return CallVsnprintf(d, m, c, format, a.s1);
    }
}

void FuzzFormat(FuzzedDataProvider &fdp, int kind, unsigned char *arena, Call &call)
{
    size_t dOff = fdp.ConsumeIntegralInRange<size_t>(0, kArena - 1);
    bool destNull = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    bool formatNull = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    size_t destMax = PickDestMax(fdp, kArena - dOff);
    size_t count = 0;
    if (kind != 0) {
        switch (fdp.ConsumeIntegralInRange<int>(0, 7)) {
        case 0: count = SIZE_MAX; break;
        case 1: count = kLimit - 1 + fdp.ConsumeIntegralInRange<size_t>(0, 3); break;
        case 2: count = destMax == 0 ? 0 : destMax - 1; break;
        case 3: count = destMax; break;
        default: count = fdp.ConsumeIntegralInRange<size_t>(0, kArena + 8); break;
        }
    }
    int f = fdp.ConsumeIntegralInRange<int>(0, kFormats - 1);
    std::string s1 = fdp.ConsumeRandomLengthString(kArena + 16);
    std::string s2 = fdp.ConsumeRandomLengthString(kArena + 16);
    s1 = s1.substr(0, strlen(s1.c_str()));
    s2 = s2.substr(0, strlen(s2.c_str()));
    FmtArgs a{};
    HeapSrc h1(s1 + std::string(1, '\0'));
    HeapSrc h2(s2 + std::string(1, '\0'));
    a.s1 = reinterpret_cast<const char *>(h1.p);
    a.s2 = reinterpret_cast<const char *>(h2.p);
    for (int &v : a.i) {
        v = fdp.ConsumeIntegral<int>();
    }
    a.u = fdp.ConsumeIntegralInRange<unsigned>(0, 255);

    char *dest = destNull ? nullptr : reinterpret_cast<char *>(arena + dOff);
    static const char *const kNames[] = {"sprintf_s", "snprintf_s", "vsnprintf_s"};
    std::string out = Reference(f, a);
    call.desc = std::string(kNames[kind]) + "(arena+" + std::to_string(dOff) + (destNull ? " [null]" : "") + ", " +
                std::to_string(destMax) + (kind ? ", count " + std::to_string(count) : std::string()) + ", \"" +
                (formatNull ? "(null format)" : kFormatText[f]) + "\") expected output \"" + FuzzShow(out) + "\"";

    const auto &orig = call.orig;
    std::vector<Outcome> ok;
    bool countOk = kind == 0 || count <= kLimit - 1 || count == SIZE_MAX;
    if (dest == nullptr) {
        ok.push_back({-1, Untouched(orig)});
    } else if (!DestRangeOk(destMax)) {
        // No room to empty: nothing may be written.
        ok.push_back({-1, Untouched(orig)});
    } else if (formatNull || !countOk) {
        ok.push_back(StrReset(orig, dOff, destMax, -1));
    } else if (kind != 0 && count < destMax) {
        Outcome o{0, Untouched(orig)};
        size_t n = out.size() > count ? count : out.size();
        for (size_t i = 0; i < n; ++i) {
            o.bytes[dOff + i] = static_cast<unsigned char>(out[i]);
        }
        o.bytes[dOff + n] = 0;
        o.ret = out.size() > count ? -1 : static_cast<int>(out.size());
        ok.push_back(o);
    } else if (out.size() + 1 > destMax) {
        ok.push_back(StrReset(orig, dOff, destMax, -1));
    } else {
        Outcome o{static_cast<int>(out.size()), Untouched(orig)};
        for (size_t i = 0; i <= out.size(); ++i) {
            o.bytes[dOff + i] = i < out.size() ? static_cast<unsigned char>(out[i]) : 0;
        }
        ok.push_back(o);
    }
    int ret = formatNull ? CallNullFormat(kind, dest, destMax, count, a) : CallFormat(kind, f, dest, destMax, count, a);
    Verify(call, ret, arena, ok);
}

// strtok_s against glibc's strtok_r, which implements the same contract:
// same tokens at the same places, same bytes cut to NUL.
void FuzzStrtok(FuzzedDataProvider &fdp)
{
    std::string delim = fdp.ConsumeRandomLengthString(8);
    delim = delim.substr(0, strlen(delim.c_str()));
    std::string text = fdp.ConsumeRandomLengthString(200);
    text = text.substr(0, strlen(text.c_str()));
    HeapSrc mine(text + std::string(1, '\0'));
    HeapSrc ref(text + std::string(1, '\0'));
    HeapSrc delimBuf(delim + std::string(1, '\0'));
    char *mp = reinterpret_cast<char *>(mine.p);
    char *rp = reinterpret_cast<char *>(ref.p);
    const char *d = reinterpret_cast<const char *>(delimBuf.p);

    char *mctx = nullptr;
    char *rctx = nullptr;
    FUZZ_CHECK(strtok_s(mp, nullptr, &mctx) == nullptr, "strtok_s with a null delimiter set returned a token");
    FUZZ_CHECK(strtok_s(mp, d, nullptr) == nullptr, "strtok_s with a null context returned a token");
    FUZZ_CHECK(std::memcmp(mp, rp, text.size() + 1) == 0, "strtok_s changed the text on a refused call");

    for (size_t round = 0; round <= text.size() + 2; ++round) {
        char *m = strtok_s(round == 0 ? mp : nullptr, d, &mctx);
        char *r = strtok_r(round == 0 ? rp : nullptr, d, &rctx);
        FUZZ_CHECK((m == nullptr) == (r == nullptr) && (m == nullptr || m - mp == r - rp),
                   "strtok_s round %zu over \"%s\" delimiters \"%s\": token at %td, strtok_r at %td", round,
                   FuzzShow(text).c_str(), FuzzShow(delim).c_str(), m ? m - mp : -1, r ? r - rp : -1);
        FUZZ_CHECK(std::memcmp(mp, rp, text.size() + 1) == 0,
                   "strtok_s round %zu over \"%s\" delimiters \"%s\": text now \"%s\", strtok_r left \"%s\"", round,
                   FuzzShow(text).c_str(), FuzzShow(delim).c_str(), FuzzShow(mp, text.size()).c_str(),
                   FuzzShow(rp, text.size()).c_str());
        if (m == nullptr) {
            if (std::getenv("QMUDEV_FUZZ_DEBUG") != nullptr) {
                std::fprintf(stderr, "fuzz_bounds: strtok_s(\"%s\", \"%s\") -> %zu tokens\n", FuzzShow(text).c_str(),
                             FuzzShow(delim).c_str(), round);
            }
            break;
        }
    }
}

// The contract's worked examples, checked once per process so that every
// fuzzing run, however short, starts from them.
void CheckDocumentedExamples()
{
    char d32[32];
    std::memset(d32, 'x', sizeof(d32));
    FUZZ_CHECK(strncpy_s(d32, 32, "abc", 0) == EOK && d32[0] == '\0', "strncpy_s with count 0");
    std::string s32(32, 'a');
    FUZZ_CHECK(strncpy_s(d32, 32, s32.c_str(), 32) == SECUREC_ERANGE_AND_RESET && d32[0] == '\0',
               "strncpy_s of 32 characters into 32 bytes");
    FUZZ_CHECK(strncpy_s(d32, 32, s32.c_str(), 31) == EOK && std::string(d32) == s32.substr(0, 31),
               "strncpy_s of 31 characters into 32 bytes");
    char d40[40];
    FUZZ_CHECK(snprintf_s(d40, 40, 39, "%d-%02d-%02d %02d:%02d:%02d", 2024, 5, 1, 10, 0, 0) == 19 &&
                   std::string(d40) == "2024-05-01 10:00:00",
               "snprintf_s of a time text");
    std::string msg(1024, 'm');
    char *d1024 = static_cast<char *>(std::malloc(1024));
    std::memset(d1024, 'x', 1024);
    FUZZ_CHECK(CallVsnprintf(d1024, 1024, 1024, "%s", msg.c_str()) == -1 && d1024[0] == '\0',
               "vsnprintf_s of 1024 characters into 1024 bytes");
    std::free(d1024);
    unsigned char field[16];
    std::memset(field, 0xEE, sizeof(field));
    FUZZ_CHECK(memcpy_s(field, sizeof(field), "abc", 3) == EOK && std::memcmp(field, "abc", 3) == 0,
               "memcpy_s of 3 bytes");
    for (size_t i = 3; i < sizeof(field); ++i) {
        FUZZ_CHECK(field[i] == 0xEE, "memcpy_s of 3 bytes touched byte %zu", i);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    CheckDocumentedExamples();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider fdp(data, size);
    // Several calls per input on the same arena: a routine that misbehaves
    // only on a destination left by an earlier failure shows up too.
    auto *arena = static_cast<unsigned char *>(std::malloc(kArena));
    std::vector<unsigned char> init = fdp.ConsumeBytes<unsigned char>(kArena);
    init.resize(kArena, 0);
    std::memcpy(arena, init.data(), kArena);
    arena[kArena - 1] = 0;

    for (int round = 0; round < 4 && fdp.remaining_bytes() > 0; ++round) {
        Call call;
        call.orig.assign(arena, arena + kArena);
        int op = fdp.ConsumeIntegralInRange<int>(0, OP_COUNT - 1);
        switch (op) {
        case OP_MEMCPY: FuzzMemcpy(fdp, arena, call); break;
        case OP_MEMSET: FuzzMemset(fdp, arena, call); break;
        case OP_STRCPY: FuzzStrcpy(fdp, arena, call); break;
        case OP_STRNCPY: FuzzStrncpy(fdp, arena, call); break;
        case OP_STRCAT: FuzzStrcat(fdp, arena, call); break;
        case OP_SPRINTF: FuzzFormat(fdp, 0, arena, call); break;
        case OP_SNPRINTF: FuzzFormat(fdp, 1, arena, call); break;
        case OP_VSNPRINTF: FuzzFormat(fdp, 2, arena, call); break;
        default: FuzzStrtok(fdp); break;
        }
        // Keep the terminator that bounds every source inside the arena.
        arena[kArena - 1] = 0;
    }
    std::free(arena);
    return 0;
}
