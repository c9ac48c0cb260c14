// sscanf_s on the daemon's own formats, fed arbitrary text (sysfs names,
// cleaned configuration lines). Each scan is compared with glibc's sscanf,
// which follows the same C rules for these conversions, and every target
// sits in a guarded heap block so that a write past a given size is caught.
//
// Where the two legitimately part ways the comparison is skipped, not the
// safety checks:
//  - a "%s" word of 64 characters or more: glibc's "%63s" stores a cut word
//    and goes on, the bounded routine refuses it (the target must still
//    hold a terminated text afterwards);
//  - "%i" on "0x" not followed by a hexadecimal digit: glibc consumes the
//    prefix, strtol-style parsing stops after the 0.

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "securec.h"

namespace {

constexpr size_t kWord = 64;

struct IntTargets {
    int v[4];
};

// Ints inside a guarded block: the scan gets pointers into it.
struct GuardedInts {
    FuzzGuarded block{sizeof(int) * 4, 0x33};
    int *At(int i) { return reinterpret_cast<int *>(block.Data()) + i; }
};

bool HasBareHexPrefix(const std::string &text)
{
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        if (text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X') &&
            (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 2])))) {
            return true;
        }
    }
    return false;
}

bool HasLongWord(const std::string &text)
{
    size_t run = 0;
    for (char c : text) {
        run = std::isspace(static_cast<unsigned char>(c)) ? 0 : run + 1;
        if (run >= kWord) {
            return true;
        }
    }
    return false;
}

// The glibc side keeps its own targets, pre-set to the same values.
void CheckInts(const char *format, int nConv, const char *src, const std::string &text, bool comparable)
{
    GuardedInts mine;
    int ref[4];
    for (int i = 0; i < 4; ++i) {
        *mine.At(i) = 0x5EED0000 + i;
        ref[i] = 0x5EED0000 + i;
    }
    int r1 = -2;
    int r2 = -2;
    if (std::strcmp(format, "%i:%i:%i:%i") == 0) {
        r1 = sscanf_s(src, "%i:%i:%i:%i", mine.At(0), mine.At(1), mine.At(2), mine.At(3));
        r2 = std::sscanf(text.c_str(), "%i:%i:%i:%i", &ref[0], &ref[1], &ref[2], &ref[3]);
    } else if (std::strcmp(format, "nvme%dn%d") == 0) {
        r1 = sscanf_s(src, "nvme%dn%d", mine.At(0), mine.At(1));
        r2 = std::sscanf(text.c_str(), "nvme%dn%d", &ref[0], &ref[1]);
    } else if (std::strcmp(format, "rport-%d:%d-%d") == 0) {
        r1 = sscanf_s(src, "rport-%d:%d-%d", mine.At(0), mine.At(1), mine.At(2));
        r2 = std::sscanf(text.c_str(), "rport-%d:%d-%d", &ref[0], &ref[1], &ref[2]);
    } else {
        r1 = sscanf_s(src, "session%d", mine.At(0));
        r2 = std::sscanf(text.c_str(), "session%d", &ref[0]);
    }
    FUZZ_CHECK(mine.block.Intact(), "sscanf_s(\"%s\", \"%s\") wrote outside its int targets",
               FuzzShow(text).c_str(), format);
    FUZZ_CHECK(r1 >= -1 && r1 <= nConv, "sscanf_s(\"%s\", \"%s\") returned %d", FuzzShow(text).c_str(), format, r1);
    if (text.empty()) {
        FUZZ_CHECK(r1 == -1, "sscanf_s on an empty text returned %d, not -1", r1);
    }
    if (!comparable) {
        return;
    }
    FUZZ_CHECK(r1 == r2, "sscanf_s(\"%s\", \"%s\") returned %d, glibc %d", FuzzShow(text).c_str(), format, r1, r2);
    for (int i = 0; i < nConv; ++i) {
        // Only stored targets are compared by value: both sides leave the
        // others as they were, and that is checked too.
        FUZZ_CHECK(*mine.At(i) == ref[i], "sscanf_s(\"%s\", \"%s\") target %d = %d, glibc %d",
                   FuzzShow(text).c_str(), format, i, *mine.At(i), ref[i]);
    }
}

void CheckWords(bool withInt, const char *src, const std::string &text, bool comparable)
{
    FuzzGuarded a(kWord, 0x77);
    FuzzGuarded b(kWord, 0x77);
    GuardedInts n;
    // Earlier contents that a failed or missing conversion must leave in
    // place: the vendor reader relies on a value surviving a key-only piece.
    std::strcpy(a.Data(), "previous-key");
    std::strcpy(b.Data(), "previous-value");
    *n.At(0) = 0x5EED;
    char ra[kWord];
    char rb[kWord];
    int rn = 0x5EED;
    std::memcpy(ra, a.Data(), kWord);
    std::memcpy(rb, b.Data(), kWord);

    int r1;
    int r2;
    const char *format = withInt ? "%s %d" : "%s %s";
    if (withInt) {
        r1 = sscanf_s(src, "%s %d", a.Data(), kWord, n.At(0));
        r2 = std::sscanf(text.c_str(), "%63s %d", ra, &rn);
    } else {
        r1 = sscanf_s(src, "%s %s", a.Data(), kWord, b.Data(), kWord);
        r2 = std::sscanf(text.c_str(), "%63s %63s", ra, rb);
    }
    FUZZ_CHECK(a.Intact() && b.Intact() && n.block.Intact(), "sscanf_s(\"%s\", \"%s\") wrote past a target's size",
               FuzzShow(text).c_str(), format);
    FUZZ_CHECK(a.Terminated() && b.Terminated(), "sscanf_s(\"%s\", \"%s\") left a word target without terminator",
               FuzzShow(text).c_str(), format);
    FUZZ_CHECK(r1 >= -1 && r1 <= 2, "sscanf_s(\"%s\", \"%s\") returned %d", FuzzShow(text).c_str(), format, r1);
    if (text.empty()) {
        FUZZ_CHECK(r1 == -1, "sscanf_s on an empty text returned %d, not -1", r1);
    }
    if (!comparable) {
        return;
    }
    FUZZ_CHECK(r1 == r2, "sscanf_s(\"%s\", \"%s\") returned %d, glibc %d", FuzzShow(text).c_str(), format, r1, r2);
    FUZZ_CHECK(std::memcmp(a.Data(), ra, kWord) == 0, "sscanf_s(\"%s\", \"%s\") first word \"%s\", glibc \"%s\"",
               FuzzShow(text).c_str(), format, FuzzShow(a.Data(), strnlen(a.Data(), kWord)).c_str(),
               FuzzShow(ra, strnlen(ra, kWord)).c_str());
    if (withInt) {
        FUZZ_CHECK(*n.At(0) == rn, "sscanf_s(\"%s\", \"%%s %%d\") number %d, glibc %d", FuzzShow(text).c_str(),
                   *n.At(0), rn);
    } else {
        FUZZ_CHECK(std::memcmp(b.Data(), rb, kWord) == 0,
                   "sscanf_s(\"%s\", \"%%s %%s\") second word \"%s\", glibc \"%s\"", FuzzShow(text).c_str(),
                   FuzzShow(b.Data(), strnlen(b.Data(), kWord)).c_str(), FuzzShow(rb, strnlen(rb, kWord)).c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The scanned text is the input up to its first NUL, in a block of its
    // exact size: reading past the terminator is an ASan report.
    std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    char *src = static_cast<char *>(std::malloc(text.size() + 1));
    std::memcpy(src, text.c_str(), text.size() + 1);

    bool comparable = !HasBareHexPrefix(text);
    CheckInts("%i:%i:%i:%i", 4, src, text, comparable);
    CheckInts("nvme%dn%d", 2, src, text, comparable);
    CheckInts("rport-%d:%d-%d", 3, src, text, comparable);
    CheckInts("session%d", 1, src, text, comparable);
    CheckWords(false, src, text, comparable && !HasLongWord(text));
    CheckWords(true, src, text, comparable && !HasLongWord(text));

    int dummy = 0;
    FUZZ_CHECK(sscanf_s(nullptr, "%d", &dummy) == -1, "sscanf_s with a null source did not return -1");
    const char *volatile nullFormat = nullptr;
    FUZZ_CHECK(sscanf_s(src, nullFormat, &dummy) == -1, "sscanf_s with a null format did not return -1");
    FUZZ_CHECK(std::memcmp(src, text.c_str(), text.size() + 1) == 0, "sscanf_s changed its source text");
    std::free(src);
    return 0;
}
