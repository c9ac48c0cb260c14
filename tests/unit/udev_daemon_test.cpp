// Start-up pieces that can run outside a full daemon: the single-instance
// pid-file lock (against a private path, with a second process as the
// competing instance), the driver start trigger, and the argument refusal
// of the entry point.
#include <cstring>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "support/notify_capture.h"
#include "support/trace_capture.h"
#include "udev_daemon.h"
#include "udev_log.h"
#include "util_ret.h"

namespace {

std::string PidContent(pid_t pid)
{
    return std::to_string(pid) + std::string(1, '\0');
}

// Another process that takes the lock and keeps it until Release().
class LockHolder {
public:
    explicit LockHolder(const std::string &path)
    {
        int toChild[2];
        int fromChild[2];
        if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(toChild[1]);
            ::close(fromChild[0]);
            char won = UDEV_CheckRunningAt(path.c_str()) ? 1 : 0;
            (void)!::write(fromChild[1], &won, 1);
            char c;
            (void)!::read(toChild[0], &c, 1);  // until the parent lets go
            ::_exit(0);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        release_ = toChild[1];
        char won = 0;
        won_ = ::read(fromChild[0], &won, 1) == 1 && won == 1;
        ::close(fromChild[0]);
    }
    ~LockHolder() { Release(); }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;

    bool Won() const { return won_; }
    pid_t Pid() const { return pid_; }
    void Release()
    {
        if (release_ >= 0) {
            ::close(release_);
            release_ = -1;
        }
        if (pid_ > 0) {
            int status = 0;
            ::waitpid(pid_, &status, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool won_ = false;
};

class PidLockTest : public ::testing::Test {
protected:
    void SetUp() override { oldMask_ = ::umask(022); }
    void TearDown() override { ::umask(oldMask_); }

    qmtest::TraceCapture trace_;
    qmtest::TempDir dir_;
    mode_t oldMask_ = 0;
};

// ---- failures -------------------------------------------------------------

TEST_F(PidLockTest, PidFileThatCannotBeOpenedEndsTheProcessWithStatusOne)
{
    std::string path = dir_.File("missing/qmudev.pid");
    EXPECT_EXIT(UDEV_CheckRunningAt(path.c_str()), ::testing::ExitedWithCode(1), "");
    EXPECT_TRUE(trace_.Has("can't open " + path + ": No such file or directory"));
}

TEST_F(PidLockTest, SecondInstanceIsRefusedSilentlyAndLeavesTheFileAlone)
{
    std::string path = dir_.File("qmudev.pid");
    LockHolder first(path);
    ASSERT_TRUE(first.Won());
    std::string before = qmtest::ReadFile(path);
    EXPECT_EQ(before, PidContent(first.Pid()));

    EXPECT_FALSE(UDEV_CheckRunningAt(path.c_str()));
    EXPECT_EQ(qmtest::ReadFile(path), before);
    EXPECT_FALSE(trace_.Has("can't lock"));
    EXPECT_FALSE(trace_.Has("[ERROR]"));

    // Refused twice in a row: the refusal itself must not disturb the holder.
    LockHolder third(path);
    EXPECT_FALSE(third.Won());
    EXPECT_EQ(qmtest::ReadFile(path), before);
}

TEST(LockFileTest, BadDescriptorIsReportedByTheLockCall)
{
    errno = 0;
    EXPECT_EQ(UDEV_LockFile(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- success --------------------------------------------------------------

TEST_F(PidLockTest, NewPidFileHasMode0644AndHoldsPidDigitsThenOneNul)
{
    std::string path = dir_.File("qmudev.pid");
    LockHolder holder(path);
    ASSERT_TRUE(holder.Won());
    struct stat st = {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(qmtest::ReadFile(path), PidContent(holder.Pid()));
}

TEST_F(PidLockTest, WinnerTruncatesOnlyAfterTheLockAndRewritesThePid)
{
    std::string path = dir_.File("qmudev.pid");
    qmtest::WriteFile(path, "12345678901234567890 stale content\n");
    {
        LockHolder earlier(path);
        ASSERT_TRUE(earlier.Won());
    }  // the earlier instance has ended: its lock is gone, its pid stays
    ASSERT_TRUE(UDEV_CheckRunningAt(path.c_str()));
    EXPECT_EQ(qmtest::ReadFile(path), PidContent(::getpid()));
    EXPECT_FALSE(trace_.Has("[ERROR]"));
}

TEST_F(PidLockTest, LockIsHeldAfterTheCallReturns)
{
    std::string path = dir_.File("qmudev.pid");
    ASSERT_TRUE(UDEV_CheckRunningAt(path.c_str()));
    // The check looks from another process, without closing any descriptor
    // of the file here (that would drop this process's lock).
    LockHolder other(path);
    EXPECT_FALSE(other.Won());
}

// ---- the driver start trigger ----------------------------------------------

int g_startRet = 0;
unsigned long g_startRequest = 0;
int FakeStart(int, unsigned long request, void *)
{
    g_startRequest = request;
    return g_startRet;
}

TEST(TriggerAchieveBindInfoTest, FollowsTheStartRequest)
{
    qmtest::TraceCapture trace;
    struct Row {
        int fd;
        int ret;
        bool expected;
        const char *message;
    } rows[] = {
        {0, 0, false, "Failed to trigger ioctl."},
        {7, -1, false, "Failed to trigger ioctl."},
        {7, 0, true, "Success to trigger ioctl"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.fd * 10 + row.ret);
        g_startRet = row.ret;
        g_startRequest = 0;
        UTIL_MiscSetForTest(row.fd, FakeStart);
        EXPECT_EQ(UDEV_TriggerAchieveBindInfo(), row.expected);
        EXPECT_EQ(g_startRequest, row.fd > 0 ? MISC_IOCTL_START : 0ul);
        EXPECT_TRUE(trace.Has(row.message));
    }
    UTIL_MiscSetForTest(-1, nullptr);
}

// ---- the entry point -------------------------------------------------------

int g_syslogRecords = 0;

TEST(UdevMainTest, FourOrMoreArgumentsEndWithStatusOneAndNoNotification)
{
    qmtest::NotifyCapture notify;
    g_syslogRecords = 0;
    UDEV_SetSyslogSinkForTest([](const char *) { ++g_syslogRecords; });
    char prog[] = "qmudev";
    char a[] = "a";
    for (int argc : {4, 5, 9}) {
        SCOPED_TRACE(argc);
        char *argv[] = {prog, a, a, a, a, a, a, a, a, nullptr};
        UDEV_ResetFlagsForTest();
        EXPECT_EQ(UDEV_Main(argc, argv), 1);
        EXPECT_FALSE(UDEV_IsSyslogMode());
    }
    EXPECT_TRUE(notify.Take().empty());
    EXPECT_EQ(g_syslogRecords, 0);
    UDEV_SetSyslogSinkForTest(nullptr);
}

}  // namespace
