// Contract of the bounded routines as the rest of the daemon relies on it:
// argument order, success values, each error value, and what is left in
// the destination after an error. One table per routine.
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "securec.h"

namespace {

constexpr size_t BUF = 16;
constexpr size_t TOO_BIG = 0x80000000u;  // one above the size limit

// A 16-byte destination pre-filled with 'x' so that every byte the routine
// touches shows.
struct Dest {
    char b[BUF];
    Dest() { std::memset(b, 'x', BUF); }
    explicit Dest(const char *text) : Dest() { std::memcpy(b, text, std::strlen(text) + 1); }
    std::string All() const { return std::string(b, BUF); }
};

std::string Fill(const std::string &head, char rest = 'x')
{
    return head + std::string(BUF - head.size(), rest);
}

const std::string ZEROED(BUF, '\0');
const std::string UNTOUCHED(BUF, 'x');
const char SRC[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Where a row's source comes from.
enum class From { Src, Null, Dest, DestPlus2, DestPlus8 };

const void *Source(From from, Dest &dest)
{
    switch (from) {
        case From::Src:
            return SRC;
        case From::Null:
            return nullptr;
        case From::Dest:
            return dest.b;
        case From::DestPlus2:
            return dest.b + 2;
        case From::DestPlus8:
            return dest.b + 8;
    }
    return nullptr;
}

struct MemRow {
    const char *name;
    bool nullDest;
    size_t destMax;
    From from;
    size_t count;
    errno_t ret;
    std::string after;
};

TEST(SecurecTest, MemcpyS)
{
    const MemRow rows[] = {
        {"destMax 0", false, 0, From::Src, 3, 34, UNTOUCHED},
        {"destMax above the limit", false, TOO_BIG, From::Src, 3, 34, UNTOUCHED},
        {"null dest", true, BUF, From::Src, 3, 22, UNTOUCHED},
        {"null src zeroes destMax bytes", false, BUF, From::Null, 3, 150, ZEROED},
        {"count above destMax zeroes destMax bytes", false, 8, From::Src, 9, 162,
         std::string(8, '\0') + std::string(8, 'x')},
        {"overlap", false, BUF, From::DestPlus2, 4, 182, ZEROED},
        {"range error wins over null dest", true, 0, From::Null, 3, 34, UNTOUCHED},
        {"null dest wins over null src", true, BUF, From::Null, 3, 22, UNTOUCHED},
        {"size wins over overlap", false, 4, From::DestPlus2, 5, 162, Fill(std::string(4, '\0'))},
        {"3 bytes into 16 leave the other 13", false, BUF, From::Src, 3, 0, Fill("ABC")},
        {"whole destination", false, BUF, From::Src, BUF, 0, "ABCDEFGHIJKLMNOP"},
        {"count 0 copies nothing", false, BUF, From::Src, 0, 0, UNTOUCHED},
        {"dest equal to src", false, BUF, From::Dest, 8, 0, UNTOUCHED},
        {"adjacent is no overlap", false, 8, From::DestPlus8, 8, 0, UNTOUCHED},
    };
    for (const MemRow &row : rows) {
        SCOPED_TRACE(row.name);
        Dest dest;
        EXPECT_EQ(memcpy_s(row.nullDest ? nullptr : dest.b, row.destMax, Source(row.from, dest), row.count), row.ret);
        EXPECT_EQ(dest.All(), row.after);
    }
}

TEST(SecurecTest, MemsetS)
{
    struct Row {
        const char *name;
        bool nullDest;
        size_t destMax;
        size_t count;
        errno_t ret;
        std::string after;
    } rows[] = {
        {"destMax 0", false, 0, 3, 34, UNTOUCHED},
        {"destMax above the limit", false, TOO_BIG, 3, 34, UNTOUCHED},
        {"null dest", true, BUF, 3, 22, UNTOUCHED},
        {"count above destMax fills destMax bytes", false, 8, 9, 162, Fill("########")},
        {"count bytes set", false, BUF, 3, 0, Fill("###")},
        {"count 0", false, BUF, 0, 0, UNTOUCHED},
        {"whole destination", false, BUF, BUF, 0, std::string(BUF, '#')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Dest dest;
        EXPECT_EQ(memset_s(row.nullDest ? nullptr : dest.b, row.destMax, '#', row.count), row.ret);
        EXPECT_EQ(dest.All(), row.after);
    }
}

// The string routines: after a reset only the first byte is guaranteed.
struct StrRow {
    const char *name;
    bool nullDest;
    const char *initial;  // dest text before the call (null: 'x' everywhere)
    size_t destMax;
    const char *src;      // null: null source; "@N": dest + N
    size_t count;         // strncpy_s only
    errno_t ret;
    const char *text;     // dest text afterwards; null: dest untouched
};

const char *StrSource(const char *src, Dest &dest)
{
    if (src != nullptr && src[0] == '@') {
        return dest.b + (src[1] - '0');
    }
    return src;
}

template <class Fn>
void RunStrRows(const StrRow *rows, size_t n, Fn fn)
{
    for (size_t i = 0; i < n; ++i) {
        const StrRow &row = rows[i];
        SCOPED_TRACE(row.name);
        Dest dest = row.initial != nullptr ? Dest(row.initial) : Dest();
        std::string before = dest.All();
        EXPECT_EQ(fn(row.nullDest ? nullptr : dest.b, row.destMax, StrSource(row.src, dest), row.count), row.ret);
        if (row.text == nullptr) {
            EXPECT_EQ(dest.All(), before);
        } else {
            EXPECT_STREQ(dest.b, row.text);
        }
    }
}

TEST(SecurecTest, StrcpyS)
{
    const StrRow rows[] = {
        {"destMax 0", false, nullptr, 0, "abc", 0, 34, nullptr},
        {"destMax above the limit", false, nullptr, TOO_BIG, "abc", 0, 34, nullptr},
        {"null dest", true, nullptr, BUF, "abc", 0, 22, nullptr},
        {"null src empties", false, "keep", BUF, nullptr, 0, 150, ""},
        {"src with its NUL above destMax empties", false, "keep", 4, "abcd", 0, 162, ""},
        {"16 characters into 16 bytes", false, "keep", BUF, "0123456789abcdef", 0, 162, ""},
        {"overlap empties", false, "abcdef", BUF, "@2", 0, 182, ""},
        {"fits exactly", false, nullptr, 4, "abc", 0, 0, "abc"},
        {"15 characters into 16 bytes", false, nullptr, BUF, "0123456789abcde", 0, 0, "0123456789abcde"},
        {"empty source", false, "keep", BUF, "", 0, 0, ""},
    };
    RunStrRows(rows, std::size(rows),
               [](char *d, size_t m, const char *s, size_t) { return strcpy_s(d, m, s); });
}

TEST(SecurecTest, StrncpyS)
{
    const std::string s31(31, 'a');
    const std::string s32(32, 'a');
    const StrRow rows[] = {
        {"destMax 0", false, nullptr, 0, "abc", 3, 34, nullptr},
        {"destMax above the limit", false, nullptr, TOO_BIG, "abc", 3, 34, nullptr},
        {"null dest", true, nullptr, BUF, "abc", 3, 22, nullptr},
        {"null src empties", false, "keep", BUF, nullptr, 3, 150, ""},
        {"count 0 empties and succeeds", false, "keep", BUF, "abc", 0, 0, ""},
        {"count below destMax cuts", false, nullptr, BUF, "abcdefgh", 5, 0, "abcde"},
        {"count below destMax, long source", false, nullptr, 4, "abcdefgh", 3, 0, "abc"},
        {"count above source length", false, nullptr, BUF, "abc", 10, 0, "abc"},
        {"count at destMax, short source", false, nullptr, 4, "abc", 4, 0, "abc"},
        {"count at destMax, source of destMax", false, "keep", 4, "abcd", 4, 162, ""},
        {"count above destMax, long source", false, "keep", 4, "abcdefgh", 100, 162, ""},
        {"overlap empties", false, "abcdef", BUF, "@2", 3, 182, ""},
    };
    RunStrRows(rows, std::size(rows),
               [](char *d, size_t m, const char *s, size_t c) { return strncpy_s(d, m, s, c); });

    // The boot partition name: 32 bytes, whole source length as count.
    char name[32];
    EXPECT_EQ(strncpy_s(name, sizeof(name), s32.c_str(), s32.size()), 162);
    EXPECT_EQ(name[0], '\0');
    EXPECT_EQ(strncpy_s(name, sizeof(name), s31.c_str(), s31.size()), 0);
    EXPECT_EQ(std::string(name), s31);
}

TEST(SecurecTest, StrcatS)
{
    const StrRow rows[] = {
        {"destMax 0", false, "ab", 0, "cd", 0, 34, nullptr},
        {"destMax above the limit", false, "ab", TOO_BIG, "cd", 0, 34, nullptr},
        {"null dest", true, nullptr, BUF, "cd", 0, 22, nullptr},
        {"null src empties", false, "ab", BUF, nullptr, 0, 150, ""},
        {"no NUL within destMax empties", false, "abcdef", 4, "cd", 0, 150, ""},
        {"joined text and NUL do not fit", false, "ab", 4, "cd", 0, 162, ""},
        {"overlap empties", false, "abcdef", BUF, "@2", 0, 182, ""},
        {"joined text fits exactly", false, "ab", 5, "cd", 0, 0, "abcd"},
        {"append to empty", false, "", BUF, "cd", 0, 0, "cd"},
        {"append empty", false, "ab", BUF, "", 0, 0, "ab"},
    };
    RunStrRows(rows, std::size(rows),
               [](char *d, size_t m, const char *s, size_t) { return strcat_s(d, m, s); });
}

// ---- formatting ------------------------------------------------------------------

int CallVsnprintf(char *dest, size_t destMax, size_t count, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int ret = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return ret;
}

struct FmtRow {
    const char *name;
    bool nullDest;
    size_t destMax;
    size_t count;        // snprintf_s / vsnprintf_s only
    const char *format;  // null: null format
    const char *arg;
    int ret;
    const char *text;  // dest afterwards; null: untouched
};

template <class Fn>
void RunFmtRows(const FmtRow *rows, size_t n, Fn fn)
{
    for (size_t i = 0; i < n; ++i) {
        const FmtRow &row = rows[i];
        SCOPED_TRACE(row.name);
        Dest dest("keep");
        std::string before = dest.All();
        EXPECT_EQ(fn(row.nullDest ? nullptr : dest.b, row.destMax, row.count, row.format, row.arg), row.ret);
        if (row.text == nullptr) {
            EXPECT_EQ(dest.All(), before);
        } else {
            EXPECT_STREQ(dest.b, row.text);
        }
    }
}

TEST(SecurecTest, SprintfS)
{
    const FmtRow rows[] = {
        {"null dest", true, BUF, 0, "%s", "abc", -1, nullptr},
        {"destMax 0", false, 0, 0, "%s", "abc", -1, nullptr},
        {"null format empties", false, BUF, 0, nullptr, "abc", -1, ""},
        {"output and NUL do not fit", false, 4, 0, "%s", "abcd", -1, ""},
        {"fits exactly", false, 4, 0, "%s", "abc", 3, "abc"},
        {"empty output", false, BUF, 0, "%s", "", 0, ""},
        {"literal and conversion", false, BUF, 0, "%s:0", "8", 3, "8:0"},
        {"largest destMax", false, 0x7FFFFFFF, 0, "%s", "abc", 3, "abc"},
    };
    RunFmtRows(rows, std::size(rows), [](char *d, size_t m, size_t, const char *f, const char *a) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        return sprintf_s(d, m, f, a);
#pragma GCC diagnostic pop
    });
    char pid[100];
    EXPECT_EQ(sprintf_s(pid, sizeof(pid), "%ld", 4242L), 4);
    EXPECT_STREQ(pid, "4242");
}

const FmtRow SNPRINTF_ROWS[] = {
    {"null dest", true, BUF, 5, "%s", "abc", -1, nullptr},
    {"destMax 0", false, 0, 5, "%s", "abc", -1, nullptr},
    {"null format empties", false, BUF, 5, nullptr, "abc", -1, ""},
    {"count above the limit empties", false, BUF, 0x7FFFFFFF, "%s", "abc", -1, ""},
    {"count below destMax keeps the cut text", false, BUF, 5, "%s", "abcdefgh", -1, "abcde"},
    {"count below destMax, output of count", false, BUF, 5, "%s", "abcde", 5, "abcde"},
    {"count 0 keeps an empty cut", false, BUF, 0, "%s", "a", -1, ""},
    {"count 0, empty output", false, BUF, 0, "%s", "", 0, ""},
    {"count at destMax, does not fit: emptied", false, 4, 4, "%s", "abcd", -1, ""},
    {"count above destMax, does not fit: emptied", false, 4, 100, "%s", "abcdefgh", -1, ""},
    {"count all ones acts as destMax", false, 4, SIZE_MAX, "%s", "abcd", -1, ""},
    {"count all ones, fits", false, 4, SIZE_MAX, "%s", "abc", 3, "abc"},
    {"count at destMax, fits", false, 4, 4, "%s", "abc", 3, "abc"},
};

TEST(SecurecTest, SnprintfS)
{
    RunFmtRows(SNPRINTF_ROWS, std::size(SNPRINTF_ROWS),
               [](char *d, size_t m, size_t c, const char *f, const char *a) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
                   return snprintf_s(d, m, c, f, a);
#pragma GCC diagnostic pop
               });
    // The trace record's time field: 40 bytes, count 39.
    char timeText[40];
    EXPECT_EQ(snprintf_s(timeText, sizeof(timeText), sizeof(timeText) - 1, "%d-%02d-%02d %02d:%02d:%02d", 2024, 5, 1,
                         10, 0, 0),
              19);
    EXPECT_STREQ(timeText, "2024-05-01 10:00:00");
}

TEST(SecurecTest, VsnprintfS)
{
    RunFmtRows(SNPRINTF_ROWS, std::size(SNPRINTF_ROWS),
               [](char *d, size_t m, size_t c, const char *f, const char *a) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
                   return CallVsnprintf(d, m, c, f, a);
#pragma GCC diagnostic pop
               });
    // The system-log buffer: 1024 bytes, count 1024.
    static char text[1024];
    std::string fits(1023, 'm');
    std::string tooLong(1024, 'm');
    EXPECT_EQ(CallVsnprintf(text, sizeof(text), sizeof(text), "%s", fits.c_str()), 1023);
    EXPECT_EQ(std::string(text), fits);
    EXPECT_EQ(CallVsnprintf(text, sizeof(text), sizeof(text), "%s", tooLong.c_str()), -1);
    EXPECT_EQ(text[0], '\0');
}

// ---- scanning ---------------------------------------------------------------------

TEST(SecurecTest, SscanfSNumbers)
{
    struct Row {
        const char *name;
        const char *source;
        const char *format;
        int ret;
        int a, b, c, d;  // values of the stored conversions
    } rows[] = {
        {"null source", nullptr, "%d", -1, 0, 0, 0, 0},
        {"null format", "1", nullptr, -1, 0, 0, 0, 0},
        {"empty source", "", "%d", -1, 0, 0, 0, 0},
        {"only blanks before a number", "  ", "%d", -1, 0, 0, 0, 0},
        {"not a number", "abc", "%d", 0, 0, 0, 0, 0},
        {"hctl", "3:0:0:1", "%i:%i:%i:%i", 4, 3, 0, 0, 1},
        {"hctl cut short", "3:0", "%i:%i:%i:%i", 2, 3, 0, 0, 0},
        {"hctl wrong separator", "3-0:0:1", "%i:%i:%i:%i", 1, 3, 0, 0, 0},
        {"%i octal", "010", "%i", 1, 8, 0, 0, 0},
        {"%i hex", "0x1f", "%i", 1, 31, 0, 0, 0},
        {"%i upper hex", "0X1F", "%i", 1, 31, 0, 0, 0},
        {"%i negative", "-12", "%i", 1, -12, 0, 0, 0},
        {"%d is decimal only", "010", "%d", 1, 10, 0, 0, 0},
        {"%d stops at x", "0x1f", "%d", 1, 0, 0, 0, 0},
        {"%d leading blanks", "  42", "%d", 1, 42, 0, 0, 0},
        {"nvme name", "nvme0n1", "nvme%dn%d", 2, 0, 1, 0, 0},
        {"nvme controller only", "nvme3", "nvme%dn%d", 1, 3, 0, 0, 0},
        {"scsi name against nvme", "sda", "nvme%dn%d", 0, 0, 0, 0, 0},
        {"rport", "rport-2:0-3", "rport-%d:%d-%d", 3, 2, 0, 3, 0},
        {"session", "session12", "session%d", 1, 12, 0, 0, 0},
        {"session without number", "sessionX", "session%d", 0, 0, 0, 0, 0},
        {"literal mismatch first", "b5", "a%d", 0, 0, 0, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        int v[4] = {0, 0, 0, 0};
        EXPECT_EQ(sscanf_s(row.source, row.format, &v[0], &v[1], &v[2], &v[3]), row.ret);
        if (row.ret > 0) {
            const int expected[4] = {row.a, row.b, row.c, row.d};
            for (int i = 0; i < row.ret; ++i) {
                EXPECT_EQ(v[i], expected[i]) << "conversion " << i;
            }
        }
    }
}

TEST(SecurecTest, SscanfSStrings)
{
    struct Row {
        const char *name;
        const char *source;
        const char *format;
        size_t size;  // of each %s target
        int ret;
        const char *first;
        const char *second;
        int number;
    } rows[] = {
        {"two words", "ruler_name r1", "%s %s", 16, 2, "ruler_name", "r1", 0},
        {"word and number", "dev_loss_tmo 30", "%s %d", 16, 2, "dev_loss_tmo", nullptr, 30},
        {"word and non-number", "dev_loss_tmo x", "%s %d", 16, 1, "dev_loss_tmo", nullptr, 0},
        {"single word", "vendors", "%s %s", 16, 1, "vendors", nullptr, 0},
        {"word fills the size exactly", "abcdefghijklmno", "%s", 16, 1, "abcdefghijklmno", nullptr, 0},
        {"word longer than its size empties it", "abcdefghijklmnop", "%s", 16, 0, "", nullptr, 0},
        {"leading blanks skipped", "   abc", "%s", 16, 1, "abc", nullptr, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        char first[16] = "unset";
        char second[16] = "unset";
        int number = 0;
        int ret;
        if (std::strstr(row.format, "%d") != nullptr) {
            ret = sscanf_s(row.source, row.format, first, row.size, &number);
        } else {
            ret = sscanf_s(row.source, row.format, first, row.size, second, row.size);
        }
        EXPECT_EQ(ret, row.ret);
        EXPECT_STREQ(first, row.first);
        if (row.second != nullptr) {
            EXPECT_STREQ(second, row.second);
        }
        EXPECT_EQ(number, row.number);
    }
}

TEST(SecurecTest, StrtokS)
{
    struct Row {
        const char *name;
        const char *text;
        const char *delimiters;
        std::vector<std::string> tokens;
    } rows[] = {
        {"device numbers", "8:16 8:32 259:0", " ", {"8:16", "8:32", "259:0"}},
        {"runs of delimiters", "  a  b ", " ", {"a", "b"}},
        {"several delimiters", "a,b;c", ",;", {"a", "b", "c"}},
        {"only delimiters", "   ", " ", {}},
        {"empty text", "", " ", {}},
        {"no delimiter in text", "abc", " ", {"abc"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::string buf = row.text;
        char *context = nullptr;
        std::vector<std::string> tokens;
        for (char *t = strtok_s(buf.data(), row.delimiters, &context); t != nullptr;
             t = strtok_s(nullptr, row.delimiters, &context)) {
            tokens.emplace_back(t);
        }
        EXPECT_EQ(tokens, row.tokens);
        EXPECT_EQ(strtok_s(nullptr, row.delimiters, &context), nullptr);  // stays at the end
    }
    char text[] = "a b";
    char *context = nullptr;
    EXPECT_EQ(strtok_s(text, nullptr, &context), nullptr);
    EXPECT_EQ(strtok_s(text, " ", nullptr), nullptr);
    // Tokens are cut in place.
    char line[] = "8:16 8:32";
    char *first = strtok_s(line, " ", &context);
    EXPECT_EQ(first, line);
    EXPECT_EQ(line[4], '\0');
}

}  // namespace
