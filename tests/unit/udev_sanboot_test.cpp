// SAN-boot arguments (count, WWN, boot partition name) and the readiness
// report, with the by-uuid listing pointed at a private directory and the
// service manager replaced by a local notify socket. The lab's SAN-boot
// tests prove the refusals' exit and the boot partition's link end to end.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/notify_capture.h"
#include "support/trace_capture.h"
#include "udev_enrich.h"
#include "udev_log.h"
#include "udev_sanboot.h"
#include "util_ret.h"

namespace {

std::vector<std::string> g_syslog;

void CatchSyslog(const char *text)
{
    g_syslog.emplace_back(text);
}

bool SyslogHas(const std::string &needle)
{
    for (const std::string &record : g_syslog) {
        if (record.find(needle) != std::string::npos) {
            return true;
        }
    }
    return false;
}

const std::string HEX32 = "60050768108101234567890abcdefABC";  // 32 hex digits
const std::string WWN34 = "0x" + HEX32;

class SanbootTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_syslog.clear();
        UDEV_SetSyslogSinkForTest(CatchSyslog);
        UDEV_ResetFlagsForTest();
        UDEV_ResetEnrichForTest();
        UDEV_ResetSanbootForTest();
    }
    void TearDown() override
    {
        UDEV_ResetSanbootForTest();
        UDEV_ResetEnrichForTest();
        UDEV_ResetFlagsForTest();
        UDEV_SetSyslogSinkForTest(nullptr);
    }

    int Process(const std::vector<std::string> &args)
    {
        args_ = args;
        argv_.clear();
        for (std::string &arg : args_) {
            argv_.push_back(arg.data());
        }
        argv_.push_back(nullptr);
        return UDEV_ProcessSanbootParameter(static_cast<int>(args_.size()), argv_.data());
    }

    std::vector<std::string> args_;
    std::vector<char *> argv_;
};

// ---- arguments ------------------------------------------------------------

TEST_F(SanbootTest, ArgumentsChooseLogModeAndReadinessOrEndStartUp)
{
    const struct {
        const char *name;
        std::vector<std::string> args;
        int ret;
        bool syslogMode;
        int readyState;
        std::string partName;
        const char *syslogMessage;  // expected in the system log; null: none at all
    } rows[] = {
        {"six arguments", {"qmudev", "a", "b", "c", "d", "e"}, UDEV_RET_FAIL, false, 0, "", nullptr},
        {"WWN of 33", {"qmudev", "0x" + HEX32.substr(1)}, UDEV_RET_FAIL, true, 0, "", "get the boot lun wwn failed"},
        {"empty WWN", {"qmudev", ""}, UDEV_RET_FAIL, true, 0, "", "get the boot lun wwn failed"},
        {"bad WWN before a good name", {"qmudev", "0x1", "sda1"}, UDEV_RET_FAIL, true, 0, "",
         "get the boot lun wwn failed"},
        {"name not lower case or digits", {"qmudev", WWN34, "sdA/1"}, UDEV_RET_FAIL, true, 0, "",
         "get boot lun part name failed"},
        {"name of 32", {"qmudev", WWN34, std::string(32, 'p')}, UDEV_RET_FAIL, true, 0, "",
         "get the input parameter partition disk name pppppppppppppppppppppppppppppppp failed.\n"},
        {"no argument", {"qmudev"}, UDEV_RET_OK, false, 0, "", nullptr},
        {"WWN only", {"qmudev", WWN34}, UDEV_RET_OK, true, 0, "", nullptr},
        {"WWN of 34 without 0x", {"qmudev", "12" + HEX32}, UDEV_RET_OK, true, 0, "", nullptr},
        {"WWN and name", {"qmudev", WWN34, "sda1"}, UDEV_RET_OK, true, 1, "sda1", nullptr},
        {"empty name", {"qmudev", WWN34, ""}, UDEV_RET_OK, true, 1, "", nullptr},
        {"name of 31", {"qmudev", WWN34, std::string(31, 'z')}, UDEV_RET_OK, true, 1, std::string(31, 'z'), nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        if (row.ret == UDEV_RET_OK) {
            UDEV_SetSyslogMode();  // an accepted call sets or clears it itself
        }
        EXPECT_EQ(Process(row.args), row.ret);
        EXPECT_EQ(UDEV_IsSyslogMode(), row.syslogMode);
        EXPECT_EQ(UDEV_GetReadyState(), row.readyState);
        EXPECT_EQ(UDEV_GetBootPartNameForTest(), row.partName);
        EXPECT_EQ(g_syslog.empty(), row.syslogMessage == nullptr);
        EXPECT_TRUE(row.syslogMessage == nullptr || SyslogHas(row.syslogMessage));
    }
}

TEST(PartNameTest, OnlyDigitsAndLowerCaseLetters)
{
    struct Row {
        const char *name;
        bool valid;
    } rows[] = {
        {nullptr, false}, {"", true},     {"nvme0n1p2", true}, {"az09", true}, {"A", false},
        {"sdA", false},   {"/", false},   {"-", false},        {"sd_a", false}, {"sda\n", false},
        {"\xc3\xa9", false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name == nullptr ? "(null)" : row.name);
        EXPECT_EQ(UDEV_IsValidPartName(row.name), row.valid);
    }
}

// ---- readiness ----------------------------------------------------------------

struct Link {
    const char *name;
    const char *target;
};

struct ReadyRow {
    const char *name;
    const char *partName;
    std::vector<Link> links;
    bool dirExists;
    bool ready;
};

TEST_F(SanbootTest, BootPartitionWaitFollowsTheByUuidListing)
{
    const ReadyRow rows[] = {
        {"no directory", "sda1", {}, false, false},
        {"other partitions only", "sda1", {{"1111-aaaa", "../../sdb1"}, {"2222-bbbb", "../../sda11"}}, true, false},
        {"partition present", "sda1", {{"1111-aaaa", "../../sdb1"}, {"3333-cccc", "../../sda1"}}, true, true},
        {"suffix of a longer name counts", "da1", {{"3333-cccc", "../../sda1"}}, true, true},
        {"empty name counts every line", "", {}, true, true},
    };
    for (const ReadyRow &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        qmtest::TempDir dir;
        std::string byUuid = row.dirExists ? dir.Path() : dir.File("absent");
        for (const Link &link : row.links) {
            ASSERT_EQ(::symlink(link.target, dir.File(link.name).c_str()), 0);
        }
        qmtest::NotifyCapture notify;
        ASSERT_EQ(Process({"qmudev", WWN34, row.partName}), UDEV_RET_OK);
        UDEV_SetByUuidDirForTest(byUuid.c_str());
        UDEV_PutReady();
        std::vector<std::string> expected;
        if (row.ready) {
            expected.push_back("READY=1");
        }
        EXPECT_EQ(notify.Take(), expected);
        EXPECT_EQ(UDEV_GetReadyState(), row.ready ? -1 : 1);
        EXPECT_EQ(SyslogHas(std::string("has already found root dir{") + row.partName + "}.\n"), row.ready);
        UDEV_SetByUuidDirForTest(nullptr);
    }
}

TEST_F(SanbootTest, CommandLineThatDoesNotFitIsLoggedAndRetriedNextTurn)
{
    qmtest::NotifyCapture notify;
    ASSERT_EQ(Process({"qmudev", WWN34, std::string(31, 'q')}), UDEV_RET_OK);
    // 128 bytes hold the fixed directory and a 31-character name; a longer
    // directory here pushes the line past them.
    std::string longDir = "/tmp/" + std::string(80, 'd');
    UDEV_SetByUuidDirForTest(longDir.c_str());
    UDEV_PutReady();
    UDEV_PutReady();
    EXPECT_TRUE(notify.Take().empty());
    EXPECT_EQ(UDEV_GetReadyState(), 1);
    size_t failures = 0;
    for (const std::string &record : g_syslog) {
        failures += record == "sprintf_s partition disk name string fail\n" ? 1 : 0;
    }
    EXPECT_EQ(failures, 2u);
    UDEV_SetByUuidDirForTest(nullptr);
}

}  // namespace
