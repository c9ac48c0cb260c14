// The time-out settings of qmLinux.conf: the file's lines, the table's names
// and ranges, lookups, the empty line that holds the reading thread, and the
// shipped sample.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "support/unit_support.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

#ifndef QMUDEV_SOURCE_DIR
#error "QMUDEV_SOURCE_DIR must name the source tree"
#endif

namespace {

// dev_loss_tmo, fast_io_fail_tmo, recovery_tmo, scsi_timeout.
using Settings = std::array<int, 4>;
constexpr Settings kDefaults{5, 4, 5, 30};
const char *const kNames[] = {"dev_loss_tmo", "fast_io_fail_tmo", "recovery_tmo", "scsi_timeout"};

Settings Current()
{
    Settings values{};
    for (int i = 0; i < 4; ++i) {
        char text[16] = {0};
        EXPECT_EQ(UDEV_GetQmLinuxCfgValue(kNames[i], text, sizeof(text)), UDEV_RET_OK) << kNames[i];
        values[i] = std::stoi("0" + std::string(text));
    }
    return values;
}

void Set(const Settings &values)
{
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(UDEV_UpdateQmLinuxCfg(kNames[i], values[i]), UDEV_RET_OK);
    }
}

class QmLinuxTest : public ::testing::Test {
protected:
    std::string Write(const std::string &content)
    {
        qmtest::WriteFile(dir_.File("qmLinux.conf"), content);
        return dir_.File("qmLinux.conf");
    }
    int Load(const std::string &content) { return UDEV_InitQmLinuxConfigFromPath(Write(content).c_str()); }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

TEST_F(QmLinuxTest, MissingFileKeepsDefaults)
{
    EXPECT_EQ(UDEV_InitQmLinuxConfigFromPath(dir_.File("absent.conf").c_str()), UDEV_RET_FAIL);
    EXPECT_EQ(Current(), kDefaults);
    EXPECT_TRUE(trace_.Has("init qmLinux config fail with ret{1030}.\n"));
}

// An empty line fails the cleaner's length check, which writes its record
// and holds the thread for good.
TEST_F(QmLinuxTest, EmptyLineHoldsTheReadingThread)
{
    std::string path = Write("scsi_timeout=60\n\nscsi_timeout=90\n");
    EXPECT_TRUE(qmtest::HeldAfterRecord(trace_.Path(), "exception",
                                        [&] { (void)UDEV_InitQmLinuxConfigFromPath(path.c_str()); }));
    EXPECT_NE(trace_.Text().find("[ERROR][UDEV  ][UDEV_ClearCharacters: "), std::string::npos);
    EXPECT_NE(trace_.Text().find("]*** Assertion on file \"(null)\" function \"UDEV_ClearCharacters\" line "),
              std::string::npos);
    EXPECT_NE(trace_.Text().find(" exception \"bufferLen != 0\"\n"), std::string::npos);
}

TEST_F(QmLinuxTest, LinesOfTheFile)
{
    struct Row {
        const char *name;
        std::string content;
        Settings expected;
    } rows[] = {
        {"dev_loss below lowest", "dev_loss_tmo=0\n", kDefaults}, {"lowest", "dev_loss_tmo=1\n", {1, 4, 5, 30}},
        {"dev_loss highest", "dev_loss_tmo=600\n", {600, 4, 5, 30}}, {"above", "dev_loss_tmo=601\n", kDefaults},
        {"fast_io_fail lowest", "fast_io_fail_tmo=0\n", {5, 0, 5, 30}},
        {"fast_io_fail highest", "fast_io_fail_tmo=599\n", {5, 599, 5, 30}},
        {"fast_io_fail above highest", "fast_io_fail_tmo=600\n", kDefaults},
        {"recovery lowest", "recovery_tmo=0\n", {5, 4, 0, 30}}, {"negative", "recovery_tmo=-1\n", kDefaults},
        {"recovery highest", "recovery_tmo=600\n", {5, 4, 600, 30}},
        {"scsi_timeout below lowest", "scsi_timeout=0\n", kDefaults},
        {"scsi_timeout highest", "scsi_timeout=600\n", {5, 4, 5, 600}},
        {"out of range keeps the earlier value", "scsi_timeout=60\nscsi_timeout=700\n", {5, 4, 5, 60}},
        {"later line overrides", "scsi_timeout=60\nscsi_timeout=90\n", {5, 4, 5, 90}},
        {"documented example", "dev_loss_tmo = 30\nfast_io_fail_tmo=5;\n", {30, 5, 5, 30}},
        {"quoted value", "scsi_timeout = \"60\"\n", {5, 4, 5, 60}},
        {"blank without equals joins the name", "scsi_timeout 60\n", kDefaults},
        {"capital name unknown", "SCSI_TIMEOUT=60\n", kDefaults}, {"prefix unknown", "scsi_time=60\n", kDefaults},
        {"name without number skipped", "scsi_timeout=\n", kDefaults}, {"=\n skipped", "=\n", kDefaults},
        {"name with word skipped", "scsi_timeout=abc\n", kDefaults},
        {"blank-only line harmless", "   \t\nscsi_timeout=60\n", {5, 4, 5, 60}},
        {"last line without newline not applied", "dev_loss_tmo=30\nscsi_timeout=60", {30, 4, 5, 30}},
        {"carriage return dropped", "scsi_timeout=60\r\n", {5, 4, 5, 60}},
        {"high bytes dropped", "scsi_\xfftimeout=6\x80" "0\n", {5, 4, 5, 60}},
        {"NUL ends the line", std::string("scsi_timeout=6\0" "0\n", 17), {5, 4, 5, 6}},
        {"backslash kept breaks the value", "scsi_timeout=\\\n60\n", kDefaults},
        {"name of 64 skipped", std::string(64, 'n') + "=60\nscsi_timeout=60\n", {5, 4, 5, 60}},
        {"line of 511 skipped", "scsi_timeout=60" + std::string(496, ' ') + "\ndev_loss_tmo=7\n", {7, 4, 5, 30}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Set(kDefaults);
        EXPECT_EQ(Load(row.content), UDEV_RET_OK);
        EXPECT_EQ(Current(), row.expected);
    }
}

// Out-of-range values are refused whole; a lookup writes nothing beyond
// the size it is given.
TEST_F(QmLinuxTest, UpdateAndLookupByName)
{
    EXPECT_EQ(UDEV_UpdateQmLinuxCfg("", 10), UDEV_RET_NOT_FOUND);
    EXPECT_EQ(UDEV_UpdateQmLinuxCfg("recovery_tmo", INT32_MIN), UDEV_RET_FAIL);
    EXPECT_EQ(UDEV_UpdateQmLinuxCfg("scsi_timeout", INT32_MAX), UDEV_RET_FAIL);
    EXPECT_EQ(Current(), kDefaults);
    char buffer[16];
    for (uint32_t size : {0u, 2u, 3u}) {
        std::fill(std::begin(buffer), std::end(buffer), 'Z');
        EXPECT_EQ(UDEV_GetQmLinuxCfgValue("scsi_timeout", buffer, size), size < 3 ? UDEV_RET_FAIL : UDEV_RET_OK);
        EXPECT_EQ(std::string(buffer + size, sizeof(buffer) - size), std::string(sizeof(buffer) - size, 'Z'));
        EXPECT_TRUE(size < 3 || std::string(buffer) == "30");
    }
    EXPECT_EQ(UDEV_GetQmLinuxCfgValue("SCSI_TIMEOUT", buffer, sizeof(buffer)), UDEV_RET_NOT_FOUND);
    EXPECT_TRUE(trace_.Has("sprintf_s attr{scsi_timeout} value{30} fail.\n"));
    EXPECT_TRUE(trace_.Has("get atrr{SCSI_TIMEOUT} value is not find.\n"));
}

// The shipped settings are the built-in defaults written out, without an
// empty line (which would hold the reader). Values unlike them are set
// first, so that a line the reader skips shows up.
TEST_F(QmLinuxTest, ShippedSampleSetsEveryDefault)
{
    const std::string sample = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qmLinux.conf";
    const std::string text = qmtest::ReadFile(sample);
    ASSERT_EQ(text.find("\n\n"), std::string::npos);
    ASSERT_NE(text[0], '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
    Set({600, 599, 600, 600});
    ASSERT_EQ(UDEV_InitQmLinuxConfigFromPath(sample.c_str()), UDEV_RET_OK);
    EXPECT_EQ(Current(), kDefaults);
}

}  // namespace
