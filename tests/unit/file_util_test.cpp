// Whole-file read/write of attribute files (in a private directory), the
// token cutter, the character-class tests and the hex formatter.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file_util.h"
#include "support/trace_capture.h"
#include "util_ret.h"

namespace {

// ---- reading ------------------------------------------------------------------

TEST(FileReadTest, FailuresReturnNegativeAndLogThePath)
{
    qmtest::TraceCapture trace;
    qmtest::TempDir dir;
    char buf[16] = {};
    std::string longName(255 - dir.Path().size() - 1, 'n');  // joined path of exactly 255
    struct Row {
        const char *name;
        std::string file;
        int32_t length;
        const char *message;  // null: no record
    } rows[] = {
        {"negative length", "present", -1, nullptr},
        {"missing file", "missing", 15, "open file{"},
        {"joined path of 255", longName, 15, "structure full name fail with dir{"},
        {"file is a directory", ".", 15, "read fail in file{"},
    };
    qmtest::WriteFile(dir.File("present"), "30\n");
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        std::string before = trace.Text();
        EXPECT_LT(INTF_UTIL_Read(dir.Path().c_str(), row.file.c_str(), buf, row.length), 0);
        std::string added = trace.Text().substr(before.size());
        if (row.message == nullptr) {
            EXPECT_TRUE(added.empty());
        } else {
            EXPECT_NE(added.find(row.message), std::string::npos) << added;
            EXPECT_NE(added.find("[ERROR]"), std::string::npos);
        }
    }
    EXPECT_LT(INTF_UTIL_Read(nullptr, "x", buf, 1), 0);
    EXPECT_LT(INTF_UTIL_Read(dir.Path().c_str(), "present", nullptr, 1), 0);
}

TEST(FileReadTest, OneReadOfAtMostLengthWithTheTrailingNewlineCut)
{
    qmtest::TempDir dir;
    struct Row {
        const char *name;
        std::string content;
        int32_t length;
        int32_t ret;
        std::string buffer;  // all 16 bytes after the call (pre-filled with 'x' past the zeroed part)
    } rows[] = {
        {"attribute with newline", "30\n", 15, 3, std::string("30\0", 3)},
        {"no newline, no terminator added", "abc", 15, 3, "abc"},
        {"only a newline", "\n", 15, 1, std::string("\0", 1)},
        {"cut short: newline beyond length stays unread", "12345\n", 3, 3, "123"},
        {"newline inside is kept", "a\nb\n", 15, 4, std::string("a\nb\0", 4)},
        {"empty file", "", 15, 0, ""},
        {"length 0", "30\n", 0, 0, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        qmtest::WriteFile(dir.File("attr"), row.content);
        char buf[16];
        std::memset(buf, 'x', sizeof(buf));
        EXPECT_EQ(INTF_UTIL_Read(dir.Path().c_str(), "attr", buf, row.length), row.ret);
        std::string expected = row.buffer + std::string(sizeof(buf) - row.buffer.size(), 'x');
        EXPECT_EQ(std::string(buf, sizeof(buf)), expected);
    }
}

// ---- writing ------------------------------------------------------------------

TEST(FileWriteTest, FailuresReturnNegativeAndCreateNothing)
{
    qmtest::TraceCapture trace;
    qmtest::TempDir dir;
    std::string longName(255 - dir.Path().size() - 1, 'n');
    EXPECT_EQ(INTF_UTIL_Write(dir.Path().c_str(), "missing", "5", 1), -1);
    EXPECT_TRUE(trace.Has("open file{" + dir.File("missing") + "} failed!"));
    EXPECT_FALSE(::access(dir.File("missing").c_str(), F_OK) == 0);

    EXPECT_EQ(INTF_UTIL_Write(dir.Path().c_str(), longName.c_str(), "5", 1), -1);
    EXPECT_TRUE(trace.Has("structure full name fail with path{" + dir.Path() + "} file{"));

    EXPECT_LT(INTF_UTIL_Write(dir.Path().c_str(), ".", "5", 1), 0);  // a directory does not open for writing
    EXPECT_EQ(INTF_UTIL_Write(nullptr, "x", "5", 1), -1);
}

TEST(FileWriteTest, WritesIntoTheExistingFileWithoutTruncating)
{
    qmtest::TempDir dir;
    std::string longestName(255 - dir.Path().size() - 2, 'n');  // joined path of 254 still fits
    struct Row {
        std::string file;
        std::string before;
        std::string data;
        int32_t ret;
        std::string after;
    } rows[] = {
        {"attr", "60\n", "30", 2, "30\n"},
        {"attr", "", "120", 3, "120"},
        {"attr", "abc", "", 0, "abc"},
        {longestName, "x", "y", 1, "y"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.data);
        qmtest::WriteFile(dir.File(row.file), row.before);
        EXPECT_EQ(INTF_UTIL_Write(dir.Path().c_str(), row.file.c_str(), row.data.data(),
                                  static_cast<uint32_t>(row.data.size())),
                  row.ret);
        EXPECT_EQ(qmtest::ReadFile(dir.File(row.file)), row.after);
    }
}

// ---- tokens -------------------------------------------------------------------

std::vector<std::string> SplitAll(std::string text, const char *delimiter)
{
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char *cursor = buf.data();
    std::vector<std::string> tokens;
    while (cursor != nullptr) {
        tokens.emplace_back(UTIL_StrSep(&cursor, delimiter));
    }
    return tokens;
}

TEST(StrSepTest, NullArgumentsGiveNull)
{
    char text[] = "a b";
    char *cursor = text;
    EXPECT_EQ(UTIL_StrSep(nullptr, " "), nullptr);
    EXPECT_EQ(UTIL_StrSep(&cursor, nullptr), nullptr);
    EXPECT_EQ(cursor, text);
    cursor = nullptr;
    EXPECT_EQ(UTIL_StrSep(&cursor, " "), nullptr);
    EXPECT_EQ(cursor, nullptr);
}

TEST(StrSepTest, CutsAtEachDelimiterInTurn)
{
    struct Row {
        const char *text;
        const char *delimiter;
        std::vector<std::string> tokens;
    } rows[] = {
        {"8:16 8:32 259:0", " ", {"8:16", "8:32", "259:0"}},
        {"a::b::c", "::", {"a", "b", "c"}},
        {"a:::b", "::", {"a", ":b"}},
        {"::a::", "::", {"", "a", ""}},
        {"a  b", " ", {"a", "", "b"}},
        {"abc", "", {"abc"}},
        {"ab", "abc", {"ab"}},
        {"abc", "abc", {"", ""}},
        {"", " ", {""}},
        {"no delimiter", "#", {"no delimiter"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.text) + " / " + row.delimiter);
        EXPECT_EQ(SplitAll(row.text, row.delimiter), row.tokens);
    }
}

// ---- character classes ------------------------------------------------------------

TEST(CharClassTest, DigitAndHexStrings)
{
    struct Row {
        const char *text;
        bool digits;
        bool hex;
    } rows[] = {
        {nullptr, false, false}, {"", true, true},        {"0123456789", true, true}, {"abcdef", false, true},
        {"ABCDEF", false, true}, {"0x1f", false, false},  {"g", false, false},        {"G", false, false},
        {" 1", false, false},    {"1 ", false, false},    {"-1", false, false},       {"12\n", false, false},
        {"/", false, false},     {":", false, false},     {"@", false, false},        {"`", false, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text == nullptr ? "(null)" : row.text);
        EXPECT_EQ(UTIL_IsDigitString(row.text), row.digits);
        EXPECT_EQ(UTIL_IsHexString(row.text), row.hex);
    }
}

// ---- hex ---------------------------------------------------------------------------

TEST(BytesToHexTest, RefusesMissingBuffersAndTooSmallOutput)
{
    const uint8_t bytes[4] = {0xde, 0xad, 0xbe, 0xef};
    char out[16];
    std::memset(out, 'x', sizeof(out));
    EXPECT_EQ(UTIL_BytesToHexString(nullptr, 4, out, 16), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(UTIL_BytesToHexString(bytes, 4, nullptr, 16), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(UTIL_BytesToHexString(bytes, 4, out, 8), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(UTIL_BytesToHexString(bytes, 0, out, 0), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(UTIL_BytesToHexString(bytes, 0x80000000u, out, 0), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(std::string(out, sizeof(out)), std::string(16, 'x'));
}

TEST(BytesToHexTest, TwoLowerCaseDigitsPerByteThenNul)
{
    struct Row {
        std::vector<uint8_t> bytes;
        uint32_t outSize;
        std::string out;
    } rows[] = {
        {{0xde, 0xad, 0xbe, 0xef}, 9, "deadbeef"},
        {{0x00, 0x0a, 0xff}, 16, "000aff"},
        {{0x7}, 3, "07"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.out);
        std::vector<char> out(row.outSize + 1, 'x');
        EXPECT_EQ(UTIL_BytesToHexString(row.bytes.data(), static_cast<uint32_t>(row.bytes.size()), out.data(),
                                        row.outSize),
                  UDEV_RET_OK);
        EXPECT_EQ(std::string(out.data()), row.out);
        EXPECT_EQ(out[row.outSize], 'x');  // nothing beyond outSize
    }
}

}  // namespace
