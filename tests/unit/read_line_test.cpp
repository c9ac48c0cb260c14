// The general line reader: which lines reach the callback, with which
// length, and what stops the reading.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "read_line.h"
#include "support/trace_capture.h"
#include "util_ret.h"

namespace {

struct Recorder {
    std::vector<std::string> lines;     // the bytes up to lineLen
    std::vector<size_t> textLengths;    // strlen of what was passed
    size_t refuseAt = SIZE_MAX;         // index of the line to refuse
};

int Record(char *line, uint32_t lineLen, void *ctx)
{
    auto *recorder = static_cast<Recorder *>(ctx);
    if (line[lineLen] != '\0') {
        ADD_FAILURE() << "line not terminated at its length";
    }
    recorder->lines.emplace_back(line, lineLen);
    recorder->textLengths.push_back(std::strlen(line));
    return recorder->lines.size() - 1 == recorder->refuseAt ? UDEV_RET_FAIL : UDEV_RET_OK;
}

template <size_t N>
std::string Bytes(const char (&text)[N])
{
    return std::string(text, N - 1);
}

class ReadLineTest : public ::testing::Test {
protected:
    int Read(const std::string &content, Recorder *recorder)
    {
        std::string path = dir_.File("input.conf");
        qmtest::WriteFile(path, content);
        return INTF_UTIL_ReadFileHandleByLine(path.c_str(), recorder, Record);
    }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

TEST_F(ReadLineTest, MissingFileFails)
{
    Recorder recorder;
    std::string path = dir_.File("absent.conf");
    EXPECT_EQ(INTF_UTIL_ReadFileHandleByLine(path.c_str(), &recorder, Record), UDEV_RET_FAIL);
    EXPECT_TRUE(recorder.lines.empty());
    EXPECT_TRUE(trace_.Has("can't open " + path + ": No such file or directory\n"));
}

TEST_F(ReadLineTest, RefusedLineStopsReading)
{
    Recorder recorder;
    recorder.refuseAt = 1;
    EXPECT_EQ(Read("a\nb\nc\n", &recorder), UDEV_RET_CALLBACK_FAIL);
    EXPECT_EQ(recorder.lines, (std::vector<std::string>{"a", "b"}));
}

struct LinesCase {
    const char *name;
    std::string content;
    std::vector<std::string> lines;
};

class ReadLinesTest : public ReadLineTest, public ::testing::WithParamInterface<LinesCase> {};

TEST_P(ReadLinesTest, PassesLines)
{
    Recorder recorder;
    EXPECT_EQ(Read(GetParam().content, &recorder), UDEV_RET_OK);
    EXPECT_EQ(recorder.lines, GetParam().lines);
}

const LinesCase kLinesCases[] = {
    {"EmptyFile", "", {}},
    {"TwoLines", "a\nb\n", {"a", "b"}},
    {"LastLineWithoutNewlineNotPassed", "a\nb", {"a"}},
    {"EmptyLinesPassedEmpty", "\n\na\n", {"", "", "a"}},
    {"CarriageReturnKept", "a\r\n", {"a\r"}},
    {"BackslashNewlineJoinsKeepingBackslash", "a\\\nb\n", {"a\\b"}},
    {"BackslashMidLineDoesNotJoin", "a\\b\nc\n", {"a\\b", "c"}},
    {"BackslashJoinsSeveral", "a\\\nb\\\nc\n", {"a\\b\\c"}},
    {"JoinedLineWithoutEndNotPassed", "a\\\nb", {}},
    {"NulInsideKeptWithLength", Bytes("a\0b\n"), {Bytes("a\0b")}},
    {"Line510Passed", std::string(510, 'a') + "\nb\n", {std::string(510, 'a'), "b"}},
    {"Line511SkippedWhole", std::string(511, 'a') + "\nb\n", {"b"}},
    {"Line600SkippedWhole", std::string(600, 'a') + "\nb\n", {"b"}},
    {"JoinedPastLimitSkippedWhole", std::string(300, 'a') + "\\\n" + std::string(300, 'c') + "\nb\n", {"b"}},
    {"BackslashAsCharacter511DoesNotJoin", std::string(510, 'a') + "\\\nb\nc\n", {"b", "c"}},
    {"LongLineWithoutEndNotPassed", std::string(600, 'a'), {}},
};
INSTANTIATE_TEST_SUITE_P(Lines, ReadLinesTest, ::testing::ValuesIn(kLinesCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ReadLineTest, LongLineIsReportedWithItsFirst511Characters)
{
    Recorder recorder;
    ASSERT_EQ(Read(std::string(511, 'x') + std::string(89, 'y') + "\n", &recorder), UDEV_RET_OK);
    EXPECT_TRUE(trace_.Has("line over max number{512} of char:" + std::string(511, 'x') + "\n"));
}

TEST_F(ReadLineTest, JunkContentStaysInsideTheBuffer)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 100; round++) {
        std::string content;
        size_t length = static_cast<size_t>(byte(random)) * 16;
        for (size_t i = 0; i < length; i++) {
            int value = byte(random);
            content.push_back(value < 24 ? '\n' : value < 32 ? '\\' : static_cast<char>(value));
        }
        Recorder recorder;
        ASSERT_EQ(Read(content, &recorder), UDEV_RET_OK);
        for (size_t i = 0; i < recorder.lines.size(); i++) {
            EXPECT_LT(recorder.lines[i].size(), 511u);
            EXPECT_LE(recorder.textLengths[i], recorder.lines[i].size());
        }
    }
}

}  // namespace
