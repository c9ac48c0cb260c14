// SAN-boot arguments (count, WWN, boot partition name) and the readiness
// report, with the by-uuid listing pointed at a private directory and the
// service manager replaced by a local notify socket. The lab's SAN-boot
// tests prove the refusals' exit and the boot partition's link end to end.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/notify_capture.h"
#include "support/sys_wrap.h"
#include "support/trace_capture.h"
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

// Runs `body` in a child process, so that it starts from the process-wide
// start values (no arguments taken, readiness not sent); its failures are
// reported by the child and fail the test here.
void InFreshProcess(const std::function<void()> &body)
{
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        g_syslog.clear();
        qmtest::ReplaceSyslog(CatchSyslog);
        body();
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child's failures are above";
}

int Process(const std::vector<std::string> &args)
{
    static std::vector<std::string> kept;
    static std::vector<char *> argv;
    kept = args;
    argv.clear();
    for (std::string &arg : kept) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return UDEV_ProcessSanbootParameter(static_cast<int>(kept.size()), argv.data());
}

// ---- arguments ------------------------------------------------------------

TEST(SanbootTest, ArgumentsChooseLogModeAndReadinessOrEndStartUp)
{
    const struct {
        const char *name;
        std::vector<std::string> args;
        int ret;
        bool syslogMode;
        int readyState;  // 0: ready at the first turn; 1: waits for the partition
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
        InFreshProcess([&] {
            if (row.ret == UDEV_RET_OK) {
                UDEV_SetSyslogMode();  // an accepted call sets or clears it itself
            }
            EXPECT_EQ(Process(row.args), row.ret);
            EXPECT_EQ(UDEV_IsSyslogMode(), row.syslogMode);
            EXPECT_EQ(g_syslog.empty(), row.syslogMessage == nullptr);
            EXPECT_TRUE(row.syslogMessage == nullptr || SyslogHas(row.syslogMessage));
            // Readiness tells the state: at the first turn whatever the
            // listing; or only once the listing shows the stored name.
            qmtest::TempDir dir;
            qmtest::NotifyCapture notify;
            UDEV_PutReadyIn(dir.File("absent").c_str());
            EXPECT_EQ(notify.Take().size(), row.readyState == 0 ? 1u : 0u);
            if (row.readyState == 1) {
                ASSERT_EQ(::symlink(("../../" + row.partName).c_str(), dir.File("1111-aaaa").c_str()), 0);
                UDEV_PutReadyIn(dir.Path().c_str());
                EXPECT_EQ(notify.Take(), std::vector<std::string>{"READY=1"});
                EXPECT_TRUE(SyslogHas("has already found root dir{" + row.partName + "}.\n"));
            }
        });
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

TEST(SanbootTest, BootPartitionWaitFollowsTheByUuidListing)
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
        InFreshProcess([&] {
            qmtest::TempDir dir;
            std::string byUuid = row.dirExists ? dir.Path() : dir.File("absent");
            for (const Link &link : row.links) {
                ASSERT_EQ(::symlink(link.target, dir.File(link.name).c_str()), 0);
            }
            qmtest::NotifyCapture notify;
            ASSERT_EQ(Process({"qmudev", WWN34, row.partName}), UDEV_RET_OK);
            UDEV_PutReadyIn(byUuid.c_str());
            std::vector<std::string> expected;
            if (row.ready) {
                expected.push_back("READY=1");
            }
            EXPECT_EQ(notify.Take(), expected);
            EXPECT_EQ(SyslogHas(std::string("has already found root dir{") + row.partName + "}.\n"), row.ready);
            // Sent once: the next turn says nothing, whatever the listing.
            UDEV_PutReadyIn(byUuid.c_str());
            EXPECT_TRUE(notify.Take().empty());
        });
    }
}

TEST(SanbootTest, CommandLineThatDoesNotFitIsLoggedAndRetriedNextTurn)
{
    g_syslog.clear();
    qmtest::ReplaceSyslog(CatchSyslog);
    qmtest::NotifyCapture notify;
    ASSERT_EQ(Process({"qmudev", WWN34, std::string(31, 'q')}), UDEV_RET_OK);
    // 128 bytes hold the fixed directory and a 31-character name; a longer
    // directory here pushes the line past them.
    std::string longDir = "/tmp/" + std::string(80, 'd');
    UDEV_PutReadyIn(longDir.c_str());
    UDEV_PutReadyIn(longDir.c_str());
    EXPECT_TRUE(notify.Take().empty());
    size_t failures = 0;
    for (const std::string &record : g_syslog) {
        failures += record == "sprintf_s partition disk name string fail\n" ? 1 : 0;
    }
    EXPECT_EQ(failures, 2u);
    qmtest::ReplaceSyslog(nullptr);
}

}  // namespace
