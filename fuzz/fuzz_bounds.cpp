// The bounded copy, fill, format, scan and token routines on hostile sizes,
// texts and overlaps, one call per input. The destination is a window of a
// heap arena that ends where its block ends (ASan sees a write past it); a
// source is an exact-size heap copy of an input text or, for the overlap
// rule, a window of the arena (whose last byte is a NUL). Checked: results
// in the documented sets, nothing outside [dest, dest + destMax) changed,
// texts terminated within destMax, on success the text the call promises.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_common.h"
#include "securec.h"

namespace {

enum Op { MEMCPY, MEMSET, STRCPY, STRNCPY, STRCAT, SPRINTF, SNPRINTF, VSNPRINTF, SSCANF, STRTOK };

// A size up to `max`, or now and then one above the routines' limit.
size_t Size(FuzzedDataProvider &in, size_t max)
{
    size_t n = in.ConsumeIntegralInRange<size_t>(0, max + 1);
    return n <= max ? n : SECUREC_STRING_MAX_LEN + 1 + in.ConsumeIntegral<uint16_t>();
}

int VFormat(char *dest, size_t destMax, size_t count, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int ret = vsnprintf_s(dest, destMax, count, format, ap);
    va_end(ap);
    return ret;
}

// The daemon's own formats; every call passes two texts or six numbers.
const char *const kTextFormats[] = {"%s", "%s:%s ", "%s %s ", "ls -l %s 2>/dev/null | grep -c %s$"};
const char *const kNumberFormats[] = {"%d", "%d:%d:%d:%d", "%02x", "%d-%02d-%02d %02d:%02d:%02d"};

int Format(FuzzedDataProvider &in, Op op, char *dest, size_t destMax, size_t count, const char *text)
{
    std::string second = in.ConsumeRandomLengthString(40);
    int n[6] = {in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>(),
                in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>()};
    size_t which = in.ConsumeIntegralInRange<size_t>(0, 7);
    const char *f = which < 4 ? kTextFormats[which] : kNumberFormats[which - 4];
    if (which < 4) {
        return op == SPRINTF  ? sprintf_s(dest, destMax, f, text, second.c_str()) :
               op == SNPRINTF ? snprintf_s(dest, destMax, count, f, text, second.c_str()) :
                                VFormat(dest, destMax, count, f, text, second.c_str());
    }
    return op == SPRINTF  ? sprintf_s(dest, destMax, f, n[0], n[1], n[2], n[3], n[4], n[5]) :
           op == SNPRINTF ? snprintf_s(dest, destMax, count, f, n[0], n[1], n[2], n[3], n[4], n[5]) :
                            VFormat(dest, destMax, count, f, n[0], n[1], n[2], n[3], n[4], n[5]);
}

// The daemon's scans, with every target in an exact-size heap block.
void Scan(FuzzedDataProvider &in, const char *text)
{
    std::vector<int> n(4);
    std::vector<char> a(in.ConsumeIntegralInRange<size_t>(1, 64), 'x');
    std::vector<char> b(in.ConsumeIntegralInRange<size_t>(1, 64), 'x');
    int ret = 0;
    int conversions = 0;
    switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0: ret = sscanf_s(text, "%i:%i:%i:%i", &n[0], &n[1], &n[2], &n[3]), conversions = 4; break;
    case 1: ret = sscanf_s(text, "nvme%dn%d", &n[0], &n[1]), conversions = 2; break;
    case 2: ret = sscanf_s(text, "rport-%d:%d-%d", &n[0], &n[1], &n[2]), conversions = 3; break;
    case 3: ret = sscanf_s(text, "session%d", &n[0]), conversions = 1; break;
    case 4: ret = sscanf_s(text, "%s %s", a.data(), a.size(), b.data(), b.size()), conversions = 2; break;
    default: ret = sscanf_s(text, "%s %d", a.data(), a.size(), &n[0]), conversions = 2; break;
    }
    FUZZ_CHECK(ret >= -1 && ret <= conversions);
    for (const std::vector<char> *v : {&a, &b}) {  // left alone, or a terminated word
        FUZZ_CHECK(std::memchr(v->data(), 0, v->size()) || std::count(v->begin(), v->end(), 'x') == std::ssize(*v));
    }
}

void Tokens(FuzzedDataProvider &in, char *text, size_t size)
{
    std::string delimiters = in.ConsumeRandomLengthString(4);
    char *context = nullptr;
    size_t count = 0;
    for (char *tok = strtok_s(text, delimiters.c_str(), &context); tok != nullptr;
         tok = strtok_s(nullptr, delimiters.c_str(), &context)) {
        size_t len = std::strlen(tok);
        FUZZ_CHECK(tok >= text && tok + len < text + size && len > 0 && ++count <= size);
        FUZZ_CHECK(std::strcspn(tok, delimiters.c_str()) == len);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    auto op = static_cast<Op>(in.ConsumeIntegralInRange<int>(MEMCPY, STRTOK));
    std::vector<char> arena(in.ConsumeIntegralInRange<size_t>(1, 96));
    size_t off = in.ConsumeIntegralInRange<size_t>(0, arena.size() - 1);
    size_t destMax = Size(in, arena.size() - off);
    char *dest = in.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : arena.data() + off;
    size_t srcOff = in.ConsumeIntegralInRange<size_t>(0, arena.size() - 1);
    bool inArena = in.ConsumeBool();
    bool terminated = op != STRNCPY || in.ConsumeBool();
    std::string text = in.ConsumeRandomLengthString(128);
    std::vector<char> heap(text.c_str(), text.c_str() + text.size() + (terminated ? 1 : 0));
    in.ConsumeData(arena.data(), arena.size());
    arena.back() = '\0';

    if (op == SSCANF || op == STRTOK) {
        op == SSCANF ? Scan(in, heap.data()) : Tokens(in, heap.data(), heap.size());
        return 0;
    }
    const char *src = inArena ? arena.data() + srcOff : heap.data();
    size_t srcLen = inArena ? arena.size() - srcOff : heap.size();  // bytes readable from src
    size_t count = terminated ? Size(in, srcLen) : in.ConsumeIntegralInRange<size_t>(0, heap.size());
    src = in.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : src;
    size_t window = dest != nullptr && destMax >= 1 && destMax <= SECUREC_STRING_MAX_LEN ? destMax : 0;
    std::string srcText = src == nullptr ? "" : std::string(src, strnlen(src, srcLen));
    std::string srcBytes = src == nullptr ? "" : std::string(src, std::min(count, srcLen));
    std::string destText(arena.data() + off, strnlen(arena.data() + off, window));
    std::vector<char> before = arena;
    int c = in.ConsumeIntegral<char>();

    int ret = 0;
    switch (op) {
    case MEMCPY: ret = memcpy_s(dest, destMax, src, count); break;
    case MEMSET: ret = memset_s(dest, destMax, c, count); break;
    case STRCPY: ret = strcpy_s(dest, destMax, src); break;
    case STRNCPY: ret = strncpy_s(dest, destMax, src, count); break;
    case STRCAT: ret = strcat_s(dest, destMax, src); break;
    default: ret = Format(in, op, dest, destMax, count, text.c_str()); break;
    }
    for (size_t i = 0; i < arena.size(); ++i) {
        FUZZ_CHECK((i >= off && i < off + window) || arena[i] == before[i]);
    }
    if (op >= SPRINTF) {
        FUZZ_CHECK(window == 0 || std::memchr(dest, 0, window) != nullptr);
        size_t len = static_cast<size_t>(ret);
        FUZZ_CHECK(ret == -1 || (ret >= 0 && len == std::strlen(dest) && len < destMax && (op == SPRINTF || len <= count)));
        return 0;
    }
    FUZZ_CHECK(ret == EOK || ret == SECUREC_EINVAL || ret == SECUREC_ERANGE || ret == SECUREC_EINVAL_AND_RESET ||
               ret == SECUREC_ERANGE_AND_RESET || ret == SECUREC_EOVERLAP_AND_RESET);
    if (op == MEMCPY || op == MEMSET) {
        std::string want = op == MEMSET ? std::string(ret == EOK ? count : window, static_cast<char>(c)) :
                           ret == EOK   ? srcBytes : std::string(window, '\0');
        FUZZ_CHECK(ret == SECUREC_EINVAL || ret == SECUREC_ERANGE || std::memcmp(dest, want.data(), want.size()) == 0);
        return 0;
    }
    std::string want = op == STRCPY ? srcText : op == STRNCPY ? srcText.substr(0, count) : destText + srcText;
    FUZZ_CHECK(ret != EOK || (std::memchr(dest, 0, window) != nullptr && want == dest));
    FUZZ_CHECK((ret & 128) == 0 || dest[0] == '\0');
    return 0;
}
