// The time-out settings: the file's lines, the table's ranges, lookups, and
// the empty line that holds the reading thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "mpi_usr_if.h"
#include "support/trace_capture.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

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

template <size_t N>
std::string Bytes(const char (&text)[N])
{
    return std::string(text, N - 1);
}

class QmLinuxTest : public ::testing::Test {
protected:
    void SetUp() override { UDEV_ResetQmLinuxConfigForTest(); }
    void TearDown() override { UDEV_ResetQmLinuxConfigForTest(); }

    std::string WriteFile(const std::string &content)
    {
        std::string path = dir_.File("qmLinux.conf");
        qmtest::WriteFile(path, content);
        return path;
    }

    int Load(const std::string &content) { return UDEV_InitQmLinuxConfigFromPath(WriteFile(content).c_str()); }
    bool TraceHas(const std::string &text) const { return trace_.Has(text); }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

// ---- failures first -----------------------------------------------------------

TEST_F(QmLinuxTest, MissingFileKeepsDefaults)
{
    EXPECT_EQ(UDEV_InitQmLinuxConfigFromPath(dir_.File("absent.conf").c_str()), UDEV_RET_FAIL);
    EXPECT_EQ(Current(), kDefaults);
    EXPECT_TRUE(TraceHas("init qmLinux config fail with ret{1030}.\n"));
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
    EXPECT_TRUE(TraceHas("function \"UDEV_ClearCharacters\""));
}

// ---- lines of the file ----------------------------------------------------------

struct FileCase {
    const char *name;
    std::string content;
    Settings expected;
};

class QmLinuxFileTest : public QmLinuxTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(QmLinuxFileTest, Applies)
{
    EXPECT_EQ(Load(GetParam().content), UDEV_RET_OK);
    EXPECT_EQ(Current(), GetParam().expected);
}

const FileCase kFileCases[] = {
    {"DevLossBelowLowest", "dev_loss_tmo=0\n", kDefaults},
    {"DevLossLowest", "dev_loss_tmo=1\n", {1, 4, 5, 30}},
    {"DevLossHighest", "dev_loss_tmo=600\n", {600, 4, 5, 30}},
    {"DevLossAboveHighest", "dev_loss_tmo=601\n", kDefaults},
    {"FastIoFailLowest", "fast_io_fail_tmo=0\n", {5, 0, 5, 30}},
    {"FastIoFailHighest", "fast_io_fail_tmo=599\n", {5, 599, 5, 30}},
    {"FastIoFailAboveHighest", "fast_io_fail_tmo=600\n", kDefaults},
    {"RecoveryLowest", "recovery_tmo=0\n", {5, 4, 0, 30}},
    {"RecoveryNegative", "recovery_tmo=-1\n", kDefaults},
    {"RecoveryHighest", "recovery_tmo=600\n", {5, 4, 600, 30}},
    {"ScsiTimeoutBelowLowest", "scsi_timeout=0\n", kDefaults},
    {"ScsiTimeoutHighest", "scsi_timeout=600\n", {5, 4, 5, 600}},
    {"OutOfRangeKeepsEarlierValue", "scsi_timeout=60\nscsi_timeout=700\n", {5, 4, 5, 60}},
    {"LaterLineOverrides", "scsi_timeout=60\nscsi_timeout=90\n", {5, 4, 5, 90}},
    {"DocumentedExample", "dev_loss_tmo = 30\nfast_io_fail_tmo=5;\n", {30, 5, 5, 30}},
    {"BlanksAroundEquals", "scsi_timeout = 60\n", {5, 4, 5, 60}},
    {"NoBlanks", "scsi_timeout=60\n", {5, 4, 5, 60}},
    {"TrailingSemicolon", "scsi_timeout = 60;\n", {5, 4, 5, 60}},
    {"QuotedValue", "scsi_timeout = \"60\"\n", {5, 4, 5, 60}},
    {"BlankWithoutEqualsJoinsName", "scsi_timeout 60\n", kDefaults},
    {"CapitalNameUnknown", "SCSI_TIMEOUT=60\n", kDefaults},
    {"NameWithoutNumberSkipped", "scsi_timeout=\n", kDefaults},
    {"NameWithWordSkipped", "scsi_timeout=abc\n", kDefaults},
    {"NameAloneSkipped", "scsi_timeout\n", kDefaults},
    {"EqualsAloneSkipped", "=\n", kDefaults},
    {"BlankOnlyLineHarmless", "   \t\nscsi_timeout=60\n", {5, 4, 5, 60}},
    {"LastLineWithoutNewlineNotApplied", "dev_loss_tmo=30\nscsi_timeout=60", {30, 4, 5, 30}},
    {"CarriageReturnDropped", "scsi_timeout=60\r\n", {5, 4, 5, 60}},
    {"HighBytesDropped", "scsi_\xfftimeout=6\x80" "0\n", {5, 4, 5, 60}},
    {"NulEndsTheLine", Bytes("scsi_timeout=6\0" "0\n"), {5, 4, 5, 6}},
    {"BackslashKeptBreaksValue", "scsi_timeout=\\\n60\n", kDefaults},
    {"NameOf64Skipped", std::string(64, 'n') + "=60\nscsi_timeout=60\n", {5, 4, 5, 60}},
    {"Line510Applied", "scsi_timeout=60" + std::string(495, ' ') + "\n", {5, 4, 5, 60}},
    {"Line511Skipped", "scsi_timeout=60" + std::string(496, ' ') + "\ndev_loss_tmo=7\n", {7, 4, 5, 30}},
    {"Line600SkippedNextRead", "scsi_timeout=60" + std::string(585, ' ') + "\ndev_loss_tmo=7\n", {7, 4, 5, 30}},
};
INSTANTIATE_TEST_SUITE_P(Lines, QmLinuxFileTest, ::testing::ValuesIn(kFileCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(QmLinuxTest, RejectedLinesAreReported)
{
    ASSERT_EQ(Load("dev_loss_tmo=0\nscsi_timeout 60\nSCSI_TIMEOUT=60\n" + std::string(600, 'x') + "\n"), UDEV_RET_OK);
    EXPECT_TRUE(TraceHas("get atrr{dev_loss_tmo} value{0} is out range{1, 600}.\n"));
    EXPECT_TRUE(TraceHas("update attr{dev_loss_tmo} to value{0} fail with ret{1030}.\n"));
    EXPECT_TRUE(TraceHas("get atrr{scsi_timeout60} value is not find.\n"));
    EXPECT_TRUE(TraceHas("get atrr{SCSI_TIMEOUT} value{60} is not find.\n"));
    EXPECT_TRUE(TraceHas("update attr{SCSI_TIMEOUT} to value{60} fail with ret{1056}.\n"));
    EXPECT_TRUE(TraceHas("line over max number{512} of char:" + std::string(511, 'x') + "\n"));
}

// ---- the table by name ----------------------------------------------------------

struct UpdateCase {
    const char *name;
    const char *setting;
    int32_t value;
    int ret;
    Settings after;
};

class QmLinuxUpdateTest : public QmLinuxTest, public ::testing::WithParamInterface<UpdateCase> {};

TEST_P(QmLinuxUpdateTest, Stores)
{
    EXPECT_EQ(UDEV_UpdateQmLinuxCfg(GetParam().setting, GetParam().value), GetParam().ret);
    EXPECT_EQ(Current(), GetParam().after);
}

const UpdateCase kUpdateCases[] = {
    {"UnknownName", "timeout", 10, UDEV_RET_NOT_FOUND, kDefaults},
    {"EmptyName", "", 10, UDEV_RET_NOT_FOUND, kDefaults},
    {"NameCaseDiffers", "Scsi_timeout", 10, UDEV_RET_NOT_FOUND, kDefaults},
    {"NamePrefix", "scsi_time", 10, UDEV_RET_NOT_FOUND, kDefaults},
    {"MinimumInt", "recovery_tmo", INT32_MIN, UDEV_RET_FAIL, kDefaults},
    {"MaximumInt", "scsi_timeout", INT32_MAX, UDEV_RET_FAIL, kDefaults},
    {"InRange", "scsi_timeout", 45, UDEV_RET_OK, {5, 4, 5, 45}},
};
INSTANTIATE_TEST_SUITE_P(ByName, QmLinuxUpdateTest, ::testing::ValuesIn(kUpdateCases),
                         [](const auto &info) { return std::string(info.param.name); });

struct LookupCase {
    const char *name;
    const char *setting;
    uint32_t bufferLen;
    int ret;
    const char *text;  // expected text on success
};

class QmLinuxLookupTest : public QmLinuxTest, public ::testing::WithParamInterface<LookupCase> {};

TEST_P(QmLinuxLookupTest, Writes)
{
    char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 'Z');
    ASSERT_LE(GetParam().bufferLen, sizeof(buffer));
    EXPECT_EQ(UDEV_GetQmLinuxCfgValue(GetParam().setting, buffer, GetParam().bufferLen), GetParam().ret);
    if (GetParam().ret == UDEV_RET_OK) {
        EXPECT_STREQ(buffer, GetParam().text);
    }
    for (size_t i = GetParam().bufferLen; i < sizeof(buffer); i++) {
        EXPECT_EQ(buffer[i], 'Z') << "written beyond the given size at " << i;
    }
}

const LookupCase kLookupCases[] = {
    {"UnknownName", "scsi_timeout60", 16, UDEV_RET_NOT_FOUND, nullptr},
    {"CapitalName", "SCSI_TIMEOUT", 16, UDEV_RET_NOT_FOUND, nullptr},
    {"ZeroSize", "scsi_timeout", 0, UDEV_RET_FAIL, nullptr},
    {"TooSmallForTerminator", "scsi_timeout", 2, UDEV_RET_FAIL, nullptr},
    {"JustFits", "scsi_timeout", 3, UDEV_RET_OK, "30"},
};
INSTANTIATE_TEST_SUITE_P(ByName, QmLinuxLookupTest, ::testing::ValuesIn(kLookupCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(QmLinuxTest, FailedLookupsAreReported)
{
    char small[2];
    ASSERT_EQ(UDEV_GetQmLinuxCfgValue("scsi_timeout", small, sizeof(small)), UDEV_RET_FAIL);
    char buffer[16];
    ASSERT_EQ(UDEV_GetQmLinuxCfgValue("nothing", buffer, sizeof(buffer)), UDEV_RET_NOT_FOUND);
    EXPECT_TRUE(TraceHas("sprintf_s attr{scsi_timeout} value{30} fail.\n"));
    EXPECT_TRUE(TraceHas("get atrr{nothing} value is not find.\n"));
}

}  // namespace
