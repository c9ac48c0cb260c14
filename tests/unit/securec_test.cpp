// Contract of the bounded routines as the rest of the daemon relies on it:
// argument order, success values, each error value, and what is left in
// the destination after an error. One table per family of routines.
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
    explicit Dest(const char *text = nullptr)
    {
        std::memset(b, 'x', BUF);
        if (text != nullptr) {
            std::memcpy(b, text, std::strlen(text) + 1);
        }
    }
    std::string All() const { return std::string(b, BUF); }
};

std::string Fill(const std::string &head)
{
    return head + std::string(BUF - head.size(), 'x');
}

const std::string ZEROED(BUF, '\0');
const std::string UNTOUCHED(BUF, 'x');
const char SRC[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

enum class Mem { Cpy, Set };

TEST(SecurecTest, MemcpySAndMemsetS)
{
    // src: -1 null, -2 SRC, else dest + src.
    struct Row {
        const char *name;
        Mem fn;
        bool nullDest;
        size_t destMax;
        int src;
        size_t count;
        errno_t ret;
        std::string after;
    } rows[] = {
        {"cpy destMax 0", Mem::Cpy, false, 0, -2, 3, 34, UNTOUCHED},
        {"cpy destMax above the limit", Mem::Cpy, false, TOO_BIG, -2, 3, 34, UNTOUCHED},
        {"cpy null dest", Mem::Cpy, true, BUF, -2, 3, 22, UNTOUCHED},
        {"cpy null src zeroes destMax bytes", Mem::Cpy, false, BUF, -1, 3, 150, ZEROED},
        {"cpy count above destMax zeroes destMax bytes", Mem::Cpy, false, 8, -2, 9, 162,
         std::string(8, '\0') + std::string(8, 'x')},
        {"cpy overlap", Mem::Cpy, false, BUF, 2, 4, 182, ZEROED},
        {"cpy range error wins over null dest", Mem::Cpy, true, 0, -1, 3, 34, UNTOUCHED},
        {"cpy null dest wins over null src", Mem::Cpy, true, BUF, -1, 3, 22, UNTOUCHED},
        {"cpy size wins over overlap", Mem::Cpy, false, 4, 2, 5, 162, Fill(std::string(4, '\0'))},
        {"cpy 3 bytes into 16 leave the other 13", Mem::Cpy, false, BUF, -2, 3, 0, Fill("ABC")},
        {"cpy whole destination", Mem::Cpy, false, BUF, -2, BUF, 0, "ABCDEFGHIJKLMNOP"},
        {"cpy count 0 copies nothing", Mem::Cpy, false, BUF, -2, 0, 0, UNTOUCHED},
        {"cpy dest equal to src", Mem::Cpy, false, BUF, 0, 8, 0, UNTOUCHED},
        {"cpy adjacent is no overlap", Mem::Cpy, false, 8, 8, 8, 0, UNTOUCHED},
        {"set destMax 0", Mem::Set, false, 0, 0, 3, 34, UNTOUCHED},
        {"set destMax above the limit", Mem::Set, false, TOO_BIG, 0, 3, 34, UNTOUCHED},
        {"set null dest", Mem::Set, true, BUF, 0, 3, 22, UNTOUCHED},
        {"set count above destMax fills destMax bytes", Mem::Set, false, 8, 0, 9, 162, Fill("########")},
        {"set count bytes", Mem::Set, false, BUF, 0, 3, 0, Fill("###")},
        {"set count 0", Mem::Set, false, BUF, 0, 0, 0, UNTOUCHED},
        {"set whole destination", Mem::Set, false, BUF, 0, BUF, 0, std::string(BUF, '#')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Dest dest;
        char *d = row.nullDest ? nullptr : dest.b;
        const void *src = row.src == -1 ? nullptr : row.src == -2 ? SRC : dest.b + row.src;
        errno_t ret = row.fn == Mem::Cpy ? memcpy_s(d, row.destMax, src, row.count)
                                         : memset_s(d, row.destMax, '#', row.count);
        EXPECT_EQ(ret, row.ret);
        EXPECT_EQ(dest.All(), row.after);
    }
}

// The string routines: after a reset only the first byte is guaranteed.
enum class Str { Cpy, Ncpy, Cat };

TEST(SecurecTest, StrcpySStrncpySStrcatS)
{
    struct Row {
        const char *name;
        Str fn;
        bool nullDest;
        const char *initial;  // dest text before the call (null: 'x' everywhere)
        size_t destMax;
        const char *src;  // null: null source; "@N": dest + N
        size_t count;     // strncpy_s only
        errno_t ret;
        const char *text;  // dest text afterwards; null: dest untouched
    } rows[] = {
        {"cpy destMax 0", Str::Cpy, false, nullptr, 0, "abc", 0, 34, nullptr},
        {"cpy destMax above the limit", Str::Cpy, false, nullptr, TOO_BIG, "abc", 0, 34, nullptr},
        {"cpy null dest", Str::Cpy, true, nullptr, BUF, "abc", 0, 22, nullptr},
        {"cpy null src empties", Str::Cpy, false, "keep", BUF, nullptr, 0, 150, ""},
        {"cpy 16 characters into 16 bytes", Str::Cpy, false, "keep", BUF, "0123456789abcdef", 0, 162, ""},
        {"cpy overlap empties", Str::Cpy, false, "abcdef", BUF, "@2", 0, 182, ""},
        {"cpy fits exactly", Str::Cpy, false, nullptr, 4, "abc", 0, 0, "abc"},
        {"cpy empty source", Str::Cpy, false, "keep", BUF, "", 0, 0, ""},
        {"ncpy destMax 0", Str::Ncpy, false, nullptr, 0, "abc", 3, 34, nullptr},
        {"ncpy destMax above the limit", Str::Ncpy, false, nullptr, TOO_BIG, "abc", 3, 34, nullptr},
        {"ncpy null dest", Str::Ncpy, true, nullptr, BUF, "abc", 3, 22, nullptr},
        {"ncpy null src empties", Str::Ncpy, false, "keep", BUF, nullptr, 3, 150, ""},
        {"ncpy count 0 empties and succeeds", Str::Ncpy, false, "keep", BUF, "abc", 0, 0, ""},
        {"ncpy count below destMax cuts", Str::Ncpy, false, nullptr, BUF, "abcdefgh", 5, 0, "abcde"},
        {"ncpy count above source length", Str::Ncpy, false, nullptr, BUF, "abc", 10, 0, "abc"},
        {"ncpy count at destMax, short source", Str::Ncpy, false, nullptr, 4, "abc", 4, 0, "abc"},
        {"ncpy count at destMax, source of destMax", Str::Ncpy, false, "keep", 4, "abcd", 4, 162, ""},
        {"ncpy count above destMax, long source", Str::Ncpy, false, "keep", 4, "abcdefgh", 100, 162, ""},
        {"ncpy overlap empties", Str::Ncpy, false, "abcdef", BUF, "@2", 3, 182, ""},
        {"cat destMax 0", Str::Cat, false, "ab", 0, "cd", 0, 34, nullptr},
        {"cat destMax above the limit", Str::Cat, false, "ab", TOO_BIG, "cd", 0, 34, nullptr},
        {"cat null dest", Str::Cat, true, nullptr, BUF, "cd", 0, 22, nullptr},
        {"cat null src empties", Str::Cat, false, "ab", BUF, nullptr, 0, 150, ""},
        {"cat no NUL within destMax empties", Str::Cat, false, "abcdef", 4, "cd", 0, 150, ""},
        {"cat joined text and NUL do not fit", Str::Cat, false, "ab", 4, "cd", 0, 162, ""},
        {"cat overlap empties", Str::Cat, false, "abcdef", BUF, "@2", 0, 182, ""},
        {"cat joined text fits exactly", Str::Cat, false, "ab", 5, "cd", 0, 0, "abcd"},
        {"cat append to empty", Str::Cat, false, "", BUF, "cd", 0, 0, "cd"},
        {"cat append empty", Str::Cat, false, "ab", BUF, "", 0, 0, "ab"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Dest dest(row.initial);
        const std::string before = dest.All();
        char *d = row.nullDest ? nullptr : dest.b;
        const char *src = row.src != nullptr && row.src[0] == '@' ? dest.b + (row.src[1] - '0') : row.src;
        errno_t ret = row.fn == Str::Cpy    ? strcpy_s(d, row.destMax, src)
                      : row.fn == Str::Ncpy ? strncpy_s(d, row.destMax, src, row.count)
                                            : strcat_s(d, row.destMax, src);
        EXPECT_EQ(ret, row.ret);
        if (row.text == nullptr) {
            EXPECT_EQ(dest.All(), before);
        } else {
            EXPECT_STREQ(dest.b, row.text);
        }
    }
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

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
int Format(int routine, char *d, size_t m, size_t c, const char *f, const char *a)
{
    return routine == 0   ? sprintf_s(d, m, f, a)
           : routine == 1 ? snprintf_s(d, m, c, f, a)
                          : CallVsnprintf(d, m, c, f, a);
}
#pragma GCC diagnostic pop

// Rows with counted == false go to sprintf_s; the others to both
// snprintf_s and vsnprintf_s, which share one contract.
TEST(SecurecTest, SprintfSSnprintfSVsnprintfS)
{
    struct Row {
        const char *name;
        bool counted;
        bool nullDest;
        size_t destMax;
        size_t count;
        const char *format;  // null: null format
        const char *arg;
        int ret;
        const char *text;  // dest afterwards; null: untouched
    } rows[] = {
        {"null dest", false, true, BUF, 0, "%s", "abc", -1, nullptr},
        {"destMax 0", false, false, 0, 0, "%s", "abc", -1, nullptr},
        {"null format empties", false, false, BUF, 0, nullptr, "abc", -1, ""},
        {"output and NUL do not fit", false, false, 4, 0, "%s", "abcd", -1, ""},
        {"fits exactly", false, false, 4, 0, "%s", "abc", 3, "abc"},
        {"empty output", false, false, BUF, 0, "%s", "", 0, ""},
        {"literal and conversion", false, false, BUF, 0, "%s:0", "8", 3, "8:0"},
        {"largest destMax", false, false, 0x7FFFFFFF, 0, "%s", "abc", 3, "abc"},
        {"counted: null dest", true, true, BUF, 5, "%s", "abc", -1, nullptr},
        {"counted: destMax 0", true, false, 0, 5, "%s", "abc", -1, nullptr},
        {"counted: null format empties", true, false, BUF, 5, nullptr, "abc", -1, ""},
        {"count above the limit empties", true, false, BUF, 0x7FFFFFFF, "%s", "abc", -1, ""},
        {"count below destMax keeps the cut text", true, false, BUF, 5, "%s", "abcdefgh", -1, "abcde"},
        {"count below destMax, output of count", true, false, BUF, 5, "%s", "abcde", 5, "abcde"},
        {"count 0 keeps an empty cut", true, false, BUF, 0, "%s", "a", -1, ""},
        {"count 0, empty output", true, false, BUF, 0, "%s", "", 0, ""},
        {"count at destMax, does not fit: emptied", true, false, 4, 4, "%s", "abcd", -1, ""},
        {"count above destMax, does not fit: emptied", true, false, 4, 100, "%s", "abcdefgh", -1, ""},
        {"count all ones acts as destMax", true, false, 4, SIZE_MAX, "%s", "abcd", -1, ""},
        {"count all ones, fits", true, false, 4, SIZE_MAX, "%s", "abc", 3, "abc"},
        {"count at destMax, fits", true, false, 4, 4, "%s", "abc", 3, "abc"},
    };
    for (const auto &row : rows) {
        static const char *const names[] = {" (sprintf_s)", " (snprintf_s)", " (vsnprintf_s)"};
        for (int routine = row.counted ? 1 : 0; routine <= (row.counted ? 2 : 0); ++routine) {
            SCOPED_TRACE(std::string(row.name) + names[routine]);
            Dest dest("keep");
            const std::string before = dest.All();
            char *d = row.nullDest ? nullptr : dest.b;
            EXPECT_EQ(Format(routine, d, row.destMax, row.count, row.format, row.arg), row.ret);
            if (row.text == nullptr) {
                EXPECT_EQ(dest.All(), before);
            } else {
                EXPECT_STREQ(dest.b, row.text);
            }
        }
    }
    char pid[100];  // the pid file's text
    EXPECT_EQ(sprintf_s(pid, sizeof(pid), "%ld", 4242L), 4);
    EXPECT_STREQ(pid, "4242");
}

// ---- scanning ---------------------------------------------------------------------

TEST(SecurecTest, SscanfSNumbersAndLiterals)
{
    struct Row {
        const char *name;
        const char *source;
        const char *format;
        int ret;
        std::vector<int> values;  // of the stored conversions
    } rows[] = {
        {"null source", nullptr, "%d", -1, {}},
        {"null format", "1", nullptr, -1, {}},
        {"empty source", "", "%d", -1, {}},
        {"only blanks before a number", "  ", "%d", -1, {}},
        {"not a number", "abc", "%d", 0, {}},
        {"hctl", "3:0:0:1", "%i:%i:%i:%i", 4, {3, 0, 0, 1}},
        {"input ends at a literal", "3:0", "%i:%i:%i:%i", 2, {3, 0}},
        {"literal mismatch after a conversion", "3-0:0:1", "%i:%i:%i:%i", 1, {3}},
        {"%i octal", "010", "%i", 1, {8}},
        {"%i hex", "0x1f", "%i", 1, {31}},
        {"%i upper hex", "0X1F", "%i", 1, {31}},
        {"%i negative", "-12", "%i", 1, {-12}},
        {"%d is decimal only", "010", "%d", 1, {10}},
        {"%d stops at x", "0x1f", "%d", 1, {0}},
        {"%d leading blanks", "  42", "%d", 1, {42}},
        {"nvme name", "nvme0n1", "nvme%dn%d", 2, {0, 1}},
        {"rport", "rport-2:0-3", "rport-%d:%d-%d", 3, {2, 0, 3}},
        {"literal then no number", "sessionX", "session%d", 0, {}},
        {"literal mismatch first", "b5", "a%d", 0, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<int> v(4, 0);
        EXPECT_EQ(sscanf_s(row.source, row.format, &v[0], &v[1], &v[2], &v[3]), row.ret);
        v.resize(row.values.size());
        EXPECT_EQ(v, row.values);
    }
}

TEST(SecurecTest, SscanfSStringsWithSize)
{
    struct Row {
        const char *name;
        const char *source;
        const char *format;
        int ret;
        const char *first;
        const char *second;  // "%s %s" only
        int number;          // "%s %d" only
    } rows[] = {
        {"two words", "ruler_name r1", "%s %s", 2, "ruler_name", "r1", 0},
        {"word and number", "dev_loss_tmo 30", "%s %d", 2, "dev_loss_tmo", "unset", 30},
        {"word and non-number", "dev_loss_tmo x", "%s %d", 1, "dev_loss_tmo", "unset", 0},
        {"single word", "vendors", "%s %s", 1, "vendors", "unset", 0},
        {"word fills the size exactly", "abcdefghijklmno", "%s", 1, "abcdefghijklmno", "unset", 0},
        {"word longer than its size empties it", "abcdefghijklmnop", "%s", 0, "", "unset", 0},
        {"leading blanks skipped", "   abc", "%s", 1, "abc", "unset", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        char first[16] = "unset";
        char second[16] = "unset";
        int number = 0;
        int ret = std::strstr(row.format, "%d") != nullptr
                      ? sscanf_s(row.source, row.format, first, sizeof(first), &number)
                      : sscanf_s(row.source, row.format, first, sizeof(first), second, sizeof(second));
        EXPECT_EQ(ret, row.ret);
        EXPECT_STREQ(first, row.first);
        EXPECT_STREQ(second, row.second);
        EXPECT_EQ(number, row.number);
    }
}

TEST(SecurecTest, StrtokS)
{
    char text[] = "a b";
    char *context = nullptr;
    EXPECT_EQ(strtok_s(text, nullptr, &context), nullptr);
    EXPECT_EQ(strtok_s(text, " ", nullptr), nullptr);
    struct Row {
        const char *text;
        const char *delimiters;
        std::vector<std::string> tokens;
    } rows[] = {
        {"8:16 8:32 259:0", " ", {"8:16", "8:32", "259:0"}},
        {"  a  b ", " ", {"a", "b"}},
        {"a,b;c", ",;", {"a", "b", "c"}},
        {"   ", " ", {}},
        {"", " ", {}},
        {"abc", " ", {"abc"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        std::string buf = row.text;
        std::vector<std::string> tokens;
        for (char *t = strtok_s(buf.data(), row.delimiters, &context); t != nullptr;
             t = strtok_s(nullptr, row.delimiters, &context)) {
            EXPECT_GE(t, buf.data());  // cut in place
            EXPECT_LT(t, buf.data() + buf.size());
            tokens.emplace_back(t);
        }
        EXPECT_EQ(tokens, row.tokens);
        EXPECT_EQ(strtok_s(nullptr, row.delimiters, &context), nullptr);  // stays at the end
    }
}

}  // namespace
