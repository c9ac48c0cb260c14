// The general line reader (the time-out settings file's): which lines reach
// the callback, with which length, and what stops the reading.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "read_line.h"
#include "support/unit_support.h"
#include "util_ret.h"

namespace {

struct Recorder {
    std::vector<std::string> lines;  // the bytes up to lineLen
    size_t refuseAt = SIZE_MAX;      // index of the line to refuse
};

int Record(char *line, uint32_t lineLen, void *ctx)
{
    auto *recorder = static_cast<Recorder *>(ctx);
    EXPECT_EQ(line[lineLen], '\0') << "line not terminated at its length";
    recorder->lines.emplace_back(line, lineLen);
    return recorder->lines.size() - 1 == recorder->refuseAt ? UDEV_RET_FAIL : UDEV_RET_OK;
}

class ReadLineTest : public ::testing::Test {
protected:
    int Read(const std::string &content, Recorder *recorder)
    {
        qmtest::WriteFile(dir_.File("input.conf"), content);
        return INTF_UTIL_ReadFileHandleByLine(dir_.File("input.conf").c_str(), recorder, Record);
    }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

TEST_F(ReadLineTest, MissingFileOrRefusedLineStopsReading)
{
    Recorder recorder;
    std::string path = dir_.File("absent.conf");
    EXPECT_EQ(INTF_UTIL_ReadFileHandleByLine(path.c_str(), &recorder, Record), UDEV_RET_FAIL);
    EXPECT_TRUE(recorder.lines.empty());
    EXPECT_TRUE(trace_.Has("can't open " + path + ": No such file or directory\n"));

    recorder.refuseAt = 1;
    EXPECT_EQ(Read("a\nb\nc\n", &recorder), UDEV_RET_CALLBACK_FAIL);
    EXPECT_EQ(recorder.lines, (std::vector<std::string>{"a", "b"}));
}

// A line of 511 characters or more is skipped whole, rest included, and
// reported with its first 511.
TEST_F(ReadLineTest, PassesLines)
{
    const std::string a510(510, 'a');
    struct Row {
        const char *name;
        std::string content;
        std::vector<std::string> lines;
    } rows[] = {
        {"empty file", "", {}},
        {"two lines", "a\nb\n", {"a", "b"}},
        {"last line without newline not passed", "a\nb", {"a"}},
        {"empty lines passed empty", "\n\na\n", {"", "", "a"}},
        {"carriage return kept", "a\r\n", {"a\r"}},
        {"backslash newline joins, keeping the backslash", "a\\\nb\n", {"a\\b"}},
        {"backslash mid-line does not join", "a\\b\nc\n", {"a\\b", "c"}},
        {"backslash joins several", "a\\\nb\\\nc\n", {"a\\b\\c"}},
        {"joined line without end not passed", "a\\\nb", {}},
        {"NUL inside kept with the length", std::string("a\0b\n", 4), {std::string("a\0b", 3)}},
        {"line of 510 passed", a510 + "\nb\n", {a510, "b"}},
        {"line of 511 skipped whole", a510 + "a\nb\n", {"b"}},
        {"line of 600 skipped whole", a510 + "a" + std::string(89, 'y') + "\nb\n", {"b"}},
        {"joined past the limit skipped whole", std::string(300, 'a') + "\\\n" + std::string(300, 'c') + "\nb\n",
         {"b"}},
        {"backslash as character 511 does not join", a510 + "\\\nb\nc\n", {"b", "c"}},
        {"long line without end not passed", std::string(600, 'a'), {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Recorder recorder;
        EXPECT_EQ(Read(row.content, &recorder), UDEV_RET_OK);
        EXPECT_EQ(recorder.lines, row.lines);
    }
    // A skipped line is reported with the 511 characters it kept.
    const std::string report = "line over max number{512} of char:";
    EXPECT_TRUE(trace_.Has(report + a510 + "a\n"));
    EXPECT_TRUE(trace_.Has(report + std::string(300, 'a') + "\\" + std::string(210, 'c') + "\n"));
    EXPECT_TRUE(trace_.Has(report + a510 + "\\\n"));
}

}  // namespace
