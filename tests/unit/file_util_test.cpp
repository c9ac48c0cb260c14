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

// ---- reading and writing ----------------------------------------------------------

class FileIoTest : public ::testing::Test {
protected:
    // What the call added to the trace file.
    std::string Added(size_t before) const { return trace_.Text().substr(before); }

    qmtest::TraceCapture trace_;
    qmtest::TempDir dir_;
    // Joined with the directory, a name of this length gives a path of 255: refused.
    std::string longName_ = std::string(255 - dir_.Path().size() - 1, 'n');
};

TEST_F(FileIoTest, ReadIsOneReadOfAtMostLengthWithTheTrailingNewlineCut)
{
    struct Row {
        const char *name;
        std::string file;
        std::string content;  // written to "attr"
        int32_t length;
        int32_t ret;            // -1: any negative value
        std::string buffer;     // all 16 bytes after the call, 'x' past the part shown
        const char *message;    // error record expected; null: none
    } rows[] = {
        {"negative length", "attr", "30\n", -1, -1, "", nullptr},
        {"missing file", "missing", "", 15, -1, "", "open file{"},
        {"joined path of 255", longName_, "", 15, -1, "", "structure full name fail with dir{"},
        {"file is a directory", ".", "", 15, -1, "", "read fail in file{"},
        {"attribute with newline", "attr", "30\n", 15, 3, std::string("30\0", 3), nullptr},
        {"no newline, no terminator added", "attr", "abc", 15, 3, "abc", nullptr},
        {"only a newline", "attr", "\n", 15, 1, std::string("\0", 1), nullptr},
        {"cut short: newline beyond length stays unread", "attr", "12345\n", 3, 3, "123", nullptr},
        {"newline inside is kept", "attr", "a\nb\n", 15, 4, std::string("a\nb\0", 4), nullptr},
        {"empty file", "attr", "", 15, 0, "", nullptr},
        {"length 0", "attr", "30\n", 0, 0, "", nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        qmtest::WriteFile(dir_.File("attr"), row.content);
        char buf[16];
        std::memset(buf, 'x', sizeof(buf));
        size_t before = trace_.Text().size();
        int32_t ret = INTF_UTIL_Read(dir_.Path().c_str(), row.file.c_str(), buf, row.length);
        if (row.ret < 0) {
            EXPECT_LT(ret, 0);
        } else {
            EXPECT_EQ(ret, row.ret);
        }
        EXPECT_EQ(std::string(buf, sizeof(buf)), row.buffer + std::string(sizeof(buf) - row.buffer.size(), 'x'));
        std::string added = Added(before);
        if (row.message == nullptr) {
            EXPECT_EQ(added, "");
        } else {
            EXPECT_NE(added.find(std::string("[ERROR]") + "[UDEV  ][INTF_UTIL_Read: "), std::string::npos) << added;
            EXPECT_NE(added.find(row.message), std::string::npos) << added;
        }
    }
    char buf[4];
    EXPECT_LT(INTF_UTIL_Read(nullptr, "x", buf, 1), 0);
    EXPECT_LT(INTF_UTIL_Read(dir_.Path().c_str(), "attr", nullptr, 1), 0);
}

// No O_CREAT and no O_TRUNC: the target is an existing attribute file.
TEST_F(FileIoTest, WriteGoesIntoTheExistingFileWithoutTruncating)
{
    const std::string longestName(longName_.size() - 1, 'n');  // joined path of 254 still fits
    struct Row {
        std::string file;
        const char *before;  // null: the file does not exist
        std::string data;
        int32_t ret;
        const char *after;    // null: no file afterwards
        std::string message;  // error record expected; empty: none
    } rows[] = {
        {"missing", nullptr, "5", -1, nullptr, "open file{" + dir_.File("missing") + "} failed!"},
        {longName_, nullptr, "5", -1, nullptr, "structure full name fail with path{" + dir_.Path() + "} file{"},
        {".", nullptr, "5", -1, nullptr, "open file{" + dir_.File(".") + "} failed!"},  // a directory
        {"attr", "60\n", "30", 2, "30\n", ""},
        {"attr", "", "120", 3, "120", ""},
        {"attr", "abc", "", 0, "abc", ""},
        {longestName, "x", "y", 1, "y", ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.file.substr(0, 10) + " " + row.data);
        if (row.before != nullptr) {
            qmtest::WriteFile(dir_.File(row.file), row.before);
        }
        size_t before = trace_.Text().size();
        EXPECT_EQ(INTF_UTIL_Write(dir_.Path().c_str(), row.file.c_str(), row.data.data(),
                                  static_cast<uint32_t>(row.data.size())),
                  row.ret);
        if (row.after != nullptr) {
            EXPECT_EQ(qmtest::ReadFile(dir_.File(row.file)), row.after);
        } else if (row.file != ".") {
            EXPECT_NE(::access(dir_.File(row.file).c_str(), F_OK), 0) << "created";
        }
        std::string added = Added(before);
        if (row.message.empty()) {
            EXPECT_EQ(added, "");
        } else {
            EXPECT_NE(added.find("[ERROR]"), std::string::npos) << added;
            EXPECT_NE(added.find(row.message), std::string::npos) << added;
        }
    }
    EXPECT_EQ(INTF_UTIL_Write(nullptr, "x", "5", 1), -1);
}

// ---- tokens -------------------------------------------------------------------

TEST(StrSepTest, CutsAtEachWholeDelimiterInTurn)
{
    char text[] = "a b";
    char *cursor = text;
    EXPECT_EQ(UTIL_StrSep(nullptr, " "), nullptr);
    EXPECT_EQ(UTIL_StrSep(&cursor, nullptr), nullptr);
    EXPECT_EQ(cursor, text);
    cursor = nullptr;
    EXPECT_EQ(UTIL_StrSep(&cursor, " "), nullptr);
    EXPECT_EQ(cursor, nullptr);

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
        std::string buf = row.text;
        std::vector<std::string> tokens;
        for (char *cursor = buf.data(); cursor != nullptr;) {
            tokens.emplace_back(UTIL_StrSep(&cursor, row.delimiter));
        }
        EXPECT_EQ(tokens, row.tokens);
    }
}

// ---- character classes and hex -----------------------------------------------------

TEST(CharClassTest, DigitAndHexStrings)
{
    struct Row {
        const char *text;
        bool digits;
        bool hex;
    } rows[] = {
        {nullptr, false, false}, {"", true, true},       {"0123456789", true, true}, {"abcdef", false, true},
        {"ABCDEF", false, true}, {"0x1f", false, false}, {"g", false, false},        {"G", false, false},
        {" 1", false, false},    {"1 ", false, false},   {"-1", false, false},       {"12\n", false, false},
        {"/", false, false},     {":", false, false},    {"@", false, false},        {"`", false, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text == nullptr ? "(null)" : row.text);
        EXPECT_EQ(UTIL_IsDigitString(row.text), row.digits);
        EXPECT_EQ(UTIL_IsHexString(row.text), row.hex);
    }
}

// Two lower-case digits per byte, then a NUL; nothing beyond outSize.
TEST(BytesToHexTest, RefusesTooSmallOutputElseWritesTwoDigitsPerByte)
{
    const uint8_t bytes[4] = {0xde, 0xad, 0xbe, 0xef};
    char out[16];
    EXPECT_EQ(UTIL_BytesToHexString(nullptr, 4, out, 16), UDEV_RET_INVALID_PARAM);
    EXPECT_EQ(UTIL_BytesToHexString(bytes, 4, nullptr, 16), UDEV_RET_INVALID_PARAM);
    struct Row {
        std::vector<uint8_t> bytes;
        uint32_t count;
        uint32_t outSize;
        std::string out;  // empty: refused, out untouched
    } rows[] = {
        {{0xde, 0xad, 0xbe, 0xef}, 4, 8, ""},
        {{}, 0, 0, ""},
        {{}, 0x80000000u, 0, ""},
        {{0xde, 0xad, 0xbe, 0xef}, 4, 9, "deadbeef"},
        {{0x00, 0x0a, 0xff}, 3, 16, "000aff"},
        {{0x7}, 1, 3, "07"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.count) + " into " + std::to_string(row.outSize));
        std::memset(out, 'x', sizeof(out));
        EXPECT_EQ(UTIL_BytesToHexString(row.bytes.empty() ? bytes : row.bytes.data(), row.count, out, row.outSize),
                  row.out.empty() ? UDEV_RET_INVALID_PARAM : UDEV_RET_OK);
        std::string expected = row.out.empty() ? std::string() : row.out + '\0';
        EXPECT_EQ(std::string(out, sizeof(out)), expected + std::string(sizeof(out) - expected.size(), 'x'));
    }
}

}  // namespace
