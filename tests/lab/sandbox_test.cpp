// The sandbox's replacements of the daemon's fixed paths, the captures,
// and the trace-file parser.
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "lab_support.h"

namespace qmlab::test {
namespace {

bool Exists(const char *path)
{
    struct stat st {};
    return ::stat(path, &st) == 0;
}

// --- Failure paths first. -------------------------------------------------

TEST(SandboxPaths, MissingFilesAndDirectoriesAreMissing)
{
    Sandbox sb({.vendorConfig = std::nullopt, .timeoutConfig = std::nullopt, .logDir = LogDir::Missing});
    EXPECT_FALSE(Exists(kVendorConfigPath));
    EXPECT_FALSE(Exists(kTimeoutConfigPath));
    EXPECT_FALSE(Exists(kLogDirPath));
    EXPECT_FALSE(Exists(kPidFilePath));
}

TEST(SandboxPaths, ReadOnlyLogDirectoryRefusesWrites)
{
    Sandbox sb({.logDir = LogDir::ReadOnly});
    ASSERT_TRUE(Exists(kLogDirPath));
    EXPECT_THROW(WriteFile(kTraceLogPath, "x"), std::system_error);
}

TEST(SandboxPaths, DriverMajorCanBeUnregistered)
{
    Sandbox sb({.driverMajor = std::nullopt});
    EXPECT_EQ(ReadFile("/proc/devices").value_or("").find("quillmesh"), std::string::npos);
    sb.SetDriverMajor(252);
    EXPECT_NE(ReadFile("/proc/devices").value_or("").find("\n252 quillmesh\n"), std::string::npos);
}

TEST(SandboxLvm, StubFollowsThePlanAndLogsEachRun)
{
    Sandbox sb({.lvmPlan = {{0, 5}, {0, 0}}});
    struct Case {
        int exitCode;
    };
    for (const Case c : {Case{5}, Case{0}, Case{0}}) {
        int status = std::system("/usr/sbin/lvm pvscan --cache --activate ay 2>/dev/null 1>/dev/null");
        EXPECT_EQ(WEXITSTATUS(status), c.exitCode);
    }
    auto runs = sb.LvmRuns();
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_EQ(runs[0].args, "pvscan --cache --activate ay");
    EXPECT_EQ(runs[2].index, 3);
}

// --- What the sandbox provides. -------------------------------------------

TEST(SandboxPaths, ConfigurationFilesLogDirectoryAndByUuidAreTheScenarios)
{
    Sandbox sb({.timeoutConfig = "scsi_timeout = 60\n"});
    EXPECT_EQ(ReadFile(kVendorConfigPath), std::string(kDefaultVendorConfig));
    EXPECT_EQ(ReadFile(kTimeoutConfigPath), "scsi_timeout = 60\n");
    sb.SetVendorConfig("[vendors]\n");
    EXPECT_EQ(ReadFile(kVendorConfigPath), "[vendors]\n");
    EXPECT_TRUE(Exists(kLogDirPath));
    WriteFile(kTraceLogPath, "x");
    WriteFile(kPidFilePath, "1");

    sb.AddByUuidLink("1234-ABCD", "sdb1");
    char target[256] = {};
    ASSERT_GT(::readlink("/dev/disk/by-uuid/1234-ABCD", target, sizeof(target) - 1), 0);
    EXPECT_STREQ(target, "../../sdb1");
    sb.RemoveByUuidLink("1234-ABCD");
    EXPECT_FALSE(Exists("/dev/disk/by-uuid/1234-ABCD"));
    EXPECT_TRUE(Exists("/dev/null")) << "the rest of /dev is still there";
}

TEST(SandboxCapture, SystemLogAndNotificationsAreRecordedWithTheSendersPid)
{
    Sandbox sb;
    ::openlog("qmlabtest", LOG_PID | LOG_CONS, 0);
    ::syslog(LOG_INFO, "%s", "hello from the lab\n");
    ::closelog();
    ::setenv("NOTIFY_SOCKET", sb.NotifySocketPath().c_str(), 1);
    ::sd_notify(0, "READY=1");
    ::unsetenv("NOTIFY_SOCKET");

    auto ready = sb.Notify().WaitText("READY=1", 10s);
    ASSERT_TRUE(ready.has_value());
    EXPECT_EQ(ready->pid, ::getpid());
    ASSERT_TRUE(sb.Syslog().Sync());
    auto records = sb.SyslogRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].ident, "qmlabtest");
    EXPECT_EQ(records[0].pid, ::getpid());
    EXPECT_EQ(records[0].priority, LOG_INFO) << "facility 0, as openlog was given";
    EXPECT_EQ(records[0].message, "hello from the lab\n");
}

TEST(TraceLogParser, SplitsRecordsAndTheirFields)
{
    struct Case {
        const char *name;
        std::string text;
        std::vector<std::string> messages;
    };
    const std::string a = "[1][2024-05-01 10:00:00][0000534216000088][INFO][UDEV  ][UDEV_Init: 136]";
    const std::string b = "[2][][0000534216000089][ERROR][UDEV  ][UDEV_CheckRunning: 137]";
    const Case cases[] = {
        {"empty file", "", {}},
        {"one record", a + "started\n", {"started\n"}},
        {"message without line end runs into the next head", a + "sprintf_s failed." + b + "x\n",
         {"sprintf_s failed.", "x\n"}},
        {"message with brackets", a + "dev{[8:16]} [3] ok\n" + b + "y\n", {"dev{[8:16]} [3] ok\n", "y\n"}},
        {"text before the first record is ignored", "garbage\n" + a + "m\n", {"m\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto records = ParseTraceLog(c.text);
        ASSERT_EQ(records.size(), c.messages.size());
        for (size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(records[i].message, c.messages[i]);
        }
    }
    auto r = ParseTraceLog(a + "m\n" + b + "n\n");
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].sequence, 1);
    EXPECT_EQ(r[0].time, "2024-05-01 10:00:00");
    EXPECT_EQ(r[0].magic, 0x5342u);
    EXPECT_EQ(r[0].module, 22u);
    EXPECT_EQ(r[0].keyLine, 0x88u);
    EXPECT_EQ(r[0].level, "INFO");
    EXPECT_EQ(r[0].moduleName, "UDEV");
    EXPECT_EQ(r[0].function, "UDEV_Init");
    EXPECT_EQ(r[0].line, 136);
    EXPECT_EQ(r[1].time, "");
    EXPECT_EQ(r[1].level, "ERROR");
    EXPECT_EQ(r[1].raw, b + "n\n");
}

}  // namespace
}  // namespace qmlab::test
