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

std::string Fill(const std::string &head)  // head, then untouched bytes
{
    return head + std::string(BUF - head.size(), 'x');
}

const std::string ZEROED(BUF, '\0');
const std::string UNTOUCHED(BUF, 'x');
const char SRC[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

enum class Mem { Cpy, Set };

TEST(SecurecTest, MemcpySAndMemsetS)
{
    struct Row {
        Mem fn;
        bool nullDest;
        size_t destMax;
        int src;  // -1 null, -2 SRC, else dest + src
        size_t count;
        errno_t ret;
        std::string after;
    } rows[] = {
        {Mem::Cpy, false, 0, -2, 3, 34, UNTOUCHED}, {Mem::Cpy, false, TOO_BIG, -2, 3, 34, UNTOUCHED},  // range
        {Mem::Cpy, true, BUF, -2, 3, 22, UNTOUCHED},                                                   // null dest
        {Mem::Cpy, false, BUF, -1, 3, 150, ZEROED},                       // null src: destMax bytes zeroed
        {Mem::Cpy, false, 8, -2, 9, 162, Fill(std::string(8, '\0'))},    // count above destMax: zeroed
        {Mem::Cpy, false, BUF, 2, 4, 182, ZEROED},                        // overlap
        {Mem::Cpy, true, 0, -1, 3, 34, UNTOUCHED},                        // range before null dest
        {Mem::Cpy, true, BUF, -1, 3, 22, UNTOUCHED},                      // null dest before null src
        {Mem::Cpy, false, 4, 2, 5, 162, Fill(std::string(4, '\0'))},     // size before overlap
        {Mem::Cpy, false, BUF, -2, 3, 0, Fill("ABC")}, {Mem::Cpy, false, BUF, -2, BUF, 0, "ABCDEFGHIJKLMNOP"},
        {Mem::Cpy, false, BUF, -2, 0, 0, UNTOUCHED},                      // count 0
        {Mem::Cpy, false, BUF, 0, 8, 0, UNTOUCHED},                       // dest equal to src
        {Mem::Cpy, false, 8, 8, 8, 0, UNTOUCHED},                         // adjacent is no overlap
        {Mem::Set, false, 0, 0, 3, 34, UNTOUCHED}, {Mem::Set, false, TOO_BIG, 0, 3, 34, UNTOUCHED},  // range
        {Mem::Set, true, BUF, 0, 3, 22, UNTOUCHED},                       // null dest
        {Mem::Set, false, 8, 0, 9, 162, Fill("########")},                // count above destMax: filled
        {Mem::Set, false, BUF, 0, 3, 0, Fill("###")}, {Mem::Set, false, BUF, 0, 0, 0, UNTOUCHED},
        {Mem::Set, false, BUF, 0, BUF, 0, std::string(BUF, '#')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Dest dest;
        char *d = row.nullDest ? nullptr : dest.b;
        const void *src = row.src == -1 ? nullptr : row.src == -2 ? SRC : dest.b + row.src;
        EXPECT_EQ(row.fn == Mem::Cpy ? memcpy_s(d, row.destMax, src, row.count)
                                     : memset_s(d, row.destMax, '#', row.count),
                  row.ret);
        EXPECT_EQ(dest.All(), row.after);
    }
}

// After an error only the first byte is guaranteed: the text is empty.
enum class Str { Cpy, Ncpy, Cat };

TEST(SecurecTest, StrcpySStrncpySStrcatS)
{
    struct Row {
        Str fn;
        bool nullDest;
        const char *initial;  // dest text before the call (null: 'x' everywhere)
        size_t destMax;
        const char *src;  // null: null source; "@N": dest + N
        size_t count;     // strncpy_s only
        errno_t ret;
        const char *text;  // dest text afterwards; null: dest untouched
    } rows[] = {
        {Str::Cpy, false, nullptr, 0, "abc", 0, 34, nullptr},
        {Str::Cpy, false, nullptr, TOO_BIG, "abc", 0, 34, nullptr},
        {Str::Cpy, true, nullptr, BUF, "abc", 0, 22, nullptr}, {Str::Cpy, false, "keep", BUF, nullptr, 0, 150, ""},
        {Str::Cpy, false, "keep", BUF, "0123456789abcdef", 0, 162, ""},  // 16 characters into 16 bytes
        {Str::Cpy, false, "abcdef", BUF, "@2", 0, 182, ""},              // overlap
        {Str::Cpy, false, nullptr, 4, "abc", 0, 0, "abc"}, {Str::Cpy, false, "keep", BUF, "", 0, 0, ""},
        {Str::Ncpy, false, nullptr, 0, "abc", 3, 34, nullptr},
        {Str::Ncpy, false, nullptr, TOO_BIG, "abc", 3, 34, nullptr},
        {Str::Ncpy, true, nullptr, BUF, "abc", 3, 22, nullptr}, {Str::Ncpy, false, "keep", BUF, nullptr, 3, 150, ""},
        {Str::Ncpy, false, "keep", BUF, "abc", 0, 0, ""},                // count 0 empties and succeeds
        {Str::Ncpy, false, nullptr, BUF, "abcdefgh", 5, 0, "abcde"},     // count below destMax cuts
        {Str::Ncpy, false, nullptr, BUF, "abc", 10, 0, "abc"},           // count above the source's length
        {Str::Ncpy, false, nullptr, 4, "abc", 4, 0, "abc"},              // count at destMax, short source
        {Str::Ncpy, false, "keep", 4, "abcd", 4, 162, ""},               // count at destMax, source of destMax
        {Str::Ncpy, false, "keep", 4, "abcdefgh", 100, 162, ""},         // count above destMax, long source
        {Str::Ncpy, false, "abcdef", BUF, "@2", 3, 182, ""},             // overlap
        {Str::Cat, false, "ab", 0, "cd", 0, 34, nullptr}, {Str::Cat, false, "ab", TOO_BIG, "cd", 0, 34, nullptr},
        {Str::Cat, true, nullptr, BUF, "cd", 0, 22, nullptr}, {Str::Cat, false, "ab", BUF, nullptr, 0, 150, ""},
        {Str::Cat, false, "abcdef", 4, "cd", 0, 150, ""},                // no NUL within destMax
        {Str::Cat, false, "ab", 4, "cd", 0, 162, ""},                    // joined text and NUL do not fit
        {Str::Cat, false, "abcdef", BUF, "@2", 0, 182, ""},              // overlap
        {Str::Cat, false, "ab", 5, "cd", 0, 0, "abcd"},                  // fits exactly
        {Str::Cat, false, "", BUF, "cd", 0, 0, "cd"}, {Str::Cat, false, "ab", BUF, "", 0, 0, "ab"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Dest dest(row.initial);
        const std::string before = dest.All();
        char *d = row.nullDest ? nullptr : dest.b;
        const char *src = row.src != nullptr && row.src[0] == '@' ? dest.b + (row.src[1] - '0') : row.src;
        EXPECT_EQ(row.fn == Str::Cpy    ? strcpy_s(d, row.destMax, src)
                  : row.fn == Str::Ncpy ? strncpy_s(d, row.destMax, src, row.count)
                                        : strcat_s(d, row.destMax, src),
                  row.ret);
        EXPECT_EQ(row.text == nullptr ? dest.All() : std::string(dest.b), row.text == nullptr ? before : row.text);
    }
}

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
        bool counted;
        bool nullDest;
        size_t destMax;
        size_t count;
        const char *format;  // null: null format
        const char *arg;
        int ret;
        const char *text;  // dest afterwards; null: untouched
    } rows[] = {
        {false, true, BUF, 0, "%s", "abc", -1, nullptr}, {false, false, 0, 0, "%s", "abc", -1, nullptr},
        {false, false, BUF, 0, nullptr, "abc", -1, ""},                   // null format empties
        {false, false, 4, 0, "%s", "abcd", -1, ""},                       // output and NUL do not fit
        {false, false, 4, 0, "%s", "abc", 3, "abc"}, {false, false, BUF, 0, "%s", "", 0, ""},
        {false, false, BUF, 0, "%s:0", "8", 3, "8:0"}, {false, false, 0x7FFFFFFF, 0, "%s", "abc", 3, "abc"},
        {true, true, BUF, 5, "%s", "abc", -1, nullptr}, {true, false, 0, 5, "%s", "abc", -1, nullptr},
        {true, false, BUF, 5, nullptr, "abc", -1, ""},                    // null format empties
        {true, false, BUF, 0x7FFFFFFF, "%s", "abc", -1, ""},              // count above the limit empties
        {true, false, BUF, 5, "%s", "abcdefgh", -1, "abcde"},             // count below destMax: the cut text stays
        {true, false, BUF, 5, "%s", "abcde", 5, "abcde"}, {true, false, BUF, 0, "%s", "a", -1, ""},
        {true, false, BUF, 0, "%s", "", 0, ""},
        {true, false, 4, 4, "%s", "abcd", -1, ""},                        // count at destMax, does not fit: emptied
        {true, false, 4, 100, "%s", "abcdefgh", -1, ""},                  // count above destMax: emptied
        {true, false, 4, SIZE_MAX, "%s", "abcd", -1, ""},                 // count all ones acts as destMax
        {true, false, 4, SIZE_MAX, "%s", "abc", 3, "abc"}, {true, false, 4, 4, "%s", "abc", 3, "abc"},
    };
    static const char *const names[] = {" (sprintf_s)", " (snprintf_s)", " (vsnprintf_s)"};
    for (const auto &row : rows) {
        for (int routine = row.counted ? 1 : 0; routine <= (row.counted ? 2 : 0); ++routine) {
            SCOPED_TRACE(std::to_string(&row - rows) + names[routine]);
            Dest dest("keep");
            const std::string before = dest.All();
            EXPECT_EQ(Format(routine, row.nullDest ? nullptr : dest.b, row.destMax, row.count, row.format, row.arg),
                      row.ret);
            EXPECT_EQ(row.text == nullptr ? dest.All() : std::string(dest.b), row.text == nullptr ? before : row.text);
        }
    }
}

TEST(SecurecTest, SscanfSNumbersAndLiterals)
{
    struct Row {
        const char *source;
        const char *format;
        int ret;
        std::vector<int> values;  // of the stored conversions
    } rows[] = {
        {nullptr, "%d", -1, {}},   {"1", nullptr, -1, {}},    {"", "%d", -1, {}},      {"  ", "%d", -1, {}},
        {"abc", "%d", 0, {}},      {"010", "%i", 1, {8}},     {"0x1f", "%i", 1, {31}}, {"0X1F", "%i", 1, {31}},
        {"-12", "%i", 1, {-12}},   {"010", "%d", 1, {10}},    {"0x1f", "%d", 1, {0}},  {"  42", "%d", 1, {42}},
        {"b5", "a%d", 0, {}},      {"sessionX", "session%d", 0, {}},
        {"3:0:0:1", "%i:%i:%i:%i", 4, {3, 0, 0, 1}},
        {"3:0", "%i:%i:%i:%i", 2, {3, 0}},  // input ends at a literal
        {"3-0:0:1", "%i:%i:%i:%i", 1, {3}},  // literal mismatch after a conversion
        {"nvme0n1", "nvme%dn%d", 2, {0, 1}},
        {"rport-2:0-3", "rport-%d:%d-%d", 3, {2, 0, 3}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.source ? row.source : "(null)") + " / " + (row.format ? row.format : "(null)"));
        std::vector<int> v(4, 0);
        EXPECT_EQ(sscanf_s(row.source, row.format, &v[0], &v[1], &v[2], &v[3]), row.ret);
        v.resize(row.values.size());
        EXPECT_EQ(v, row.values);
    }
}

// "%s" takes the size of its buffer; a word that does not fit empties it.
TEST(SecurecTest, SscanfSStringsWithSize)
{
    struct Row {
        const char *source;
        const char *format;
        int ret;
        const char *first;
        const char *second;  // "%s %s" only
        int number;          // "%s %d" only
    } rows[] = {
        {"ruler_name r1", "%s %s", 2, "ruler_name", "r1", 0},
        {"dev_loss_tmo 30", "%s %d", 2, "dev_loss_tmo", "unset", 30},
        {"dev_loss_tmo x", "%s %d", 1, "dev_loss_tmo", "unset", 0},
        {"vendors", "%s %s", 1, "vendors", "unset", 0},
        {"abcdefghijklmno", "%s", 1, "abcdefghijklmno", "unset", 0},
        {"abcdefghijklmnop", "%s", 0, "", "unset", 0},
        {"   abc", "%s", 1, "abc", "unset", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.source);
        char first[16] = "unset";
        char second[16] = "unset";
        int number = 0;
        EXPECT_EQ(std::strstr(row.format, "%d") != nullptr
                      ? sscanf_s(row.source, row.format, first, sizeof(first), &number)
                      : sscanf_s(row.source, row.format, first, sizeof(first), second, sizeof(second)),
                  row.ret);
        EXPECT_EQ(std::string(first) + "|" + second + "|" + std::to_string(number),
                  std::string(row.first) + "|" + row.second + "|" + std::to_string(row.number));
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
        {"8:16 8:32 259:0", " ", {"8:16", "8:32", "259:0"}}, {"  a  b ", " ", {"a", "b"}},
        {"a,b;c", ",;", {"a", "b", "c"}}, {"   ", " ", {}}, {"", " ", {}}, {"abc", " ", {"abc"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        std::string buf = row.text;
        std::vector<std::string> tokens;
        for (char *t = strtok_s(buf.data(), row.delimiters, &context); t != nullptr;
             t = strtok_s(nullptr, row.delimiters, &context)) {
            tokens.emplace_back(t);
        }
        EXPECT_EQ(tokens, row.tokens);
        EXPECT_EQ(strtok_s(nullptr, row.delimiters, &context), nullptr);  // stays at the end
    }
}

}  // namespace
