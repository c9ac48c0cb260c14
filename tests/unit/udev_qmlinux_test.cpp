// The time-out settings: the file's lines, the table's ranges, lookups, the
// empty line that holds the reading thread, and the shipped sample.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "mpi_usr_if.h"
#include "support/trace_capture.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

#ifndef QMUDEV_SOURCE_DIR
#error "QMUDEV_SOURCE_DIR must name the source tree"
#endif

namespace {

struct Settings {
    int devLoss;
    int fastIoFail;
    int recovery;
    int scsiTimeout;
    bool operator==(const Settings &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Settings &s)
{
    return os << "{" << s.devLoss << ", " << s.fastIoFail << ", " << s.recovery << ", " << s.scsiTimeout << "}";
}

constexpr Settings kDefaults{5, 4, 5, 30};

int Value(const char *name)
{
    char text[16] = {0};
    if (UDEV_GetQmLinuxCfgValue(name, text, sizeof(text)) != UDEV_RET_OK) {
        ADD_FAILURE() << "no value for " << name;
        return -1;
    }
    return std::stoi(text);
}

Settings Current()
{
    return {Value("dev_loss_tmo"), Value("fast_io_fail_tmo"), Value("recovery_tmo"), Value("scsi_timeout")};
}

class QmLinuxTest : public ::testing::Test {
protected:
    // The settings are process-wide: a file that names every default puts
    // them back between rows.
    void RestoreDefaults()
    {
        ASSERT_EQ(Load("dev_loss_tmo=5\nfast_io_fail_tmo=4\nrecovery_tmo=5\nscsi_timeout=30\n"), UDEV_RET_OK);
        ASSERT_EQ(Current(), kDefaults);
    }

    std::string WriteFile(const std::string &content)
    {
        std::string path = dir_.File("qmLinux.conf");
        qmtest::WriteFile(path, content);
        return path;
    }

    int Load(const std::string &content) { return UDEV_InitQmLinuxConfigFromPath(WriteFile(content).c_str()); }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

// ---- failures first -----------------------------------------------------------

TEST_F(QmLinuxTest, MissingFileKeepsDefaults)
{
    EXPECT_EQ(UDEV_InitQmLinuxConfigFromPath(dir_.File("absent.conf").c_str()), UDEV_RET_FAIL);
    EXPECT_EQ(Current(), kDefaults);
    EXPECT_TRUE(trace_.Has("init qmLinux config fail with ret{1030}.\n"));
}

// An empty line fails the cleaner's length check, which holds the thread for good.
TEST_F(QmLinuxTest, EmptyLineHoldsTheReadingThread)
{
    std::string path = WriteFile("scsi_timeout=60\n\nscsi_timeout=90\n");
    qmtest::HangResult result = qmtest::RunUntilTraceHas(trace_.Path(), "exception \"bufferLen != 0\"", [&] {
        (void)UDEV_InitQmLinuxConfigFromPath(path.c_str());
    });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
    EXPECT_TRUE(trace_.Has("function \"UDEV_ClearCharacters\""));
}

// ---- lines of the file ----------------------------------------------------------

TEST_F(QmLinuxTest, LinesOfTheFile)
{
    struct Row {
        const char *name;
        std::string content;
        Settings expected;
    } rows[] = {
        {"dev_loss below lowest", "dev_loss_tmo=0\n", kDefaults},
        {"dev_loss lowest", "dev_loss_tmo=1\n", {1, 4, 5, 30}},
        {"dev_loss highest", "dev_loss_tmo=600\n", {600, 4, 5, 30}},
        {"dev_loss above highest", "dev_loss_tmo=601\n", kDefaults},
        {"fast_io_fail lowest", "fast_io_fail_tmo=0\n", {5, 0, 5, 30}},
        {"fast_io_fail highest", "fast_io_fail_tmo=599\n", {5, 599, 5, 30}},
        {"fast_io_fail above highest", "fast_io_fail_tmo=600\n", kDefaults},
        {"recovery lowest", "recovery_tmo=0\n", {5, 4, 0, 30}},
        {"recovery negative", "recovery_tmo=-1\n", kDefaults},
        {"recovery highest", "recovery_tmo=600\n", {5, 4, 600, 30}},
        {"scsi_timeout below lowest", "scsi_timeout=0\n", kDefaults},
        {"scsi_timeout highest", "scsi_timeout=600\n", {5, 4, 5, 600}},
        {"out of range keeps the earlier value", "scsi_timeout=60\nscsi_timeout=700\n", {5, 4, 5, 60}},
        {"later line overrides", "scsi_timeout=60\nscsi_timeout=90\n", {5, 4, 5, 90}},
        {"documented example", "dev_loss_tmo = 30\nfast_io_fail_tmo=5;\n", {30, 5, 5, 30}},
        {"quoted value", "scsi_timeout = \"60\"\n", {5, 4, 5, 60}},
        {"blank without equals joins the name", "scsi_timeout 60\n", kDefaults},
        {"capital name unknown", "SCSI_TIMEOUT=60\n", kDefaults},
        {"name without number skipped", "scsi_timeout=\n", kDefaults},
        {"name with word skipped", "scsi_timeout=abc\n", kDefaults},
        {"equals alone skipped", "=\n", kDefaults},
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
        RestoreDefaults();
        EXPECT_EQ(Load(row.content), UDEV_RET_OK);
        EXPECT_EQ(Current(), row.expected);
    }
}

TEST_F(QmLinuxTest, RejectedLinesAreReported)
{
    ASSERT_EQ(Load("dev_loss_tmo=0\nscsi_timeout 60\nSCSI_TIMEOUT=60\n"), UDEV_RET_OK);
    EXPECT_TRUE(trace_.Has("get atrr{dev_loss_tmo} value{0} is out range{1, 600}.\n"));
    EXPECT_TRUE(trace_.Has("update attr{dev_loss_tmo} to value{0} fail with ret{1030}.\n"));
    EXPECT_TRUE(trace_.Has("get atrr{scsi_timeout60} value is not find.\n"));
    EXPECT_TRUE(trace_.Has("get atrr{SCSI_TIMEOUT} value{60} is not find.\n"));
    EXPECT_TRUE(trace_.Has("update attr{SCSI_TIMEOUT} to value{60} fail with ret{1056}.\n"));
}

// ---- the table by name ----------------------------------------------------------

TEST_F(QmLinuxTest, UpdateByName)
{
    struct Row {
        const char *setting;
        int32_t value;
        int ret;
        Settings after;
    } rows[] = {
        {"", 10, UDEV_RET_NOT_FOUND, kDefaults},
        {"Scsi_timeout", 10, UDEV_RET_NOT_FOUND, kDefaults},
        {"scsi_time", 10, UDEV_RET_NOT_FOUND, kDefaults},  // a prefix
        {"recovery_tmo", INT32_MIN, UDEV_RET_FAIL, kDefaults},
        {"scsi_timeout", INT32_MAX, UDEV_RET_FAIL, kDefaults},
        {"scsi_timeout", 45, UDEV_RET_OK, {5, 4, 5, 45}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.setting) + " " + std::to_string(row.value));
        EXPECT_EQ(UDEV_UpdateQmLinuxCfg(row.setting, row.value), row.ret);
        EXPECT_EQ(Current(), row.after);
    }
}

// Nothing is written beyond the given size.
TEST_F(QmLinuxTest, LookupByName)
{
    struct Row {
        const char *setting;
        uint32_t bufferLen;
        int ret;
        const char *text;  // on success; else the expected record
    } rows[] = {
        {"scsi_timeout60", 16, UDEV_RET_NOT_FOUND, "get atrr{scsi_timeout60} value is not find.\n"},
        {"SCSI_TIMEOUT", 16, UDEV_RET_NOT_FOUND, "get atrr{SCSI_TIMEOUT} value is not find.\n"},
        {"scsi_timeout", 0, UDEV_RET_FAIL, "sprintf_s attr{scsi_timeout} value{30} fail.\n"},
        {"scsi_timeout", 2, UDEV_RET_FAIL, "sprintf_s attr{scsi_timeout} value{30} fail.\n"},
        {"scsi_timeout", 3, UDEV_RET_OK, "30"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.setting) + " " + std::to_string(row.bufferLen));
        char buffer[16];
        std::fill(std::begin(buffer), std::end(buffer), 'Z');
        size_t before = trace_.Text().size();
        EXPECT_EQ(UDEV_GetQmLinuxCfgValue(row.setting, buffer, row.bufferLen), row.ret);
        if (row.ret == UDEV_RET_OK) {
            EXPECT_STREQ(buffer, row.text);
        } else {
            EXPECT_NE(trace_.Text().find(row.text, before), std::string::npos);
        }
        EXPECT_EQ(std::string(buffer + row.bufferLen, sizeof(buffer) - row.bufferLen),
                  std::string(sizeof(buffer) - row.bufferLen, 'Z'));
    }
}

// ---- the shipped sample ----------------------------------------------------------

// The shipped settings are the built-in defaults written out. Values unlike
// them are set first, so that a line the reader skips shows up unchanged.
TEST_F(QmLinuxTest, ShippedSampleSetsEveryDefault)
{
    const std::string sample = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qmLinux.conf";
    const std::string text = qmtest::ReadFile(sample);
    ASSERT_FALSE(text.empty());
    // An empty line would hold the reader for good (see above): not read then.
    ASSERT_EQ(text.find("\n\n"), std::string::npos);
    ASSERT_NE(text[0], '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
    EXPECT_EQ(Current(), kDefaults);
    for (const char *name : {"dev_loss_tmo", "recovery_tmo", "scsi_timeout"}) {
        ASSERT_EQ(UDEV_UpdateQmLinuxCfg(name, 600), UDEV_RET_OK);
    }
    ASSERT_EQ(UDEV_UpdateQmLinuxCfg("fast_io_fail_tmo", 599), UDEV_RET_OK);
    ASSERT_EQ(UDEV_InitQmLinuxConfigFromPath(sample.c_str()), UDEV_RET_OK);
    EXPECT_EQ(Current(), kDefaults);
}

}  // namespace
