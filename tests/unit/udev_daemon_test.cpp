// Start-up pieces that can run outside a full daemon: the single-instance
// pid-file lock (against a private path, with a second process as the
// competing instance) and the driver start trigger. The pid file's content
// and mode, and the argument refusal, are proven end to end (lab lifecycle).
#include <cstring>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "support/sys_wrap.h"
#include "support/trace_capture.h"
#include "udev_daemon.h"
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
    qmtest::TraceCapture trace_;
    qmtest::TempDir dir_;
};

// ---- failures -------------------------------------------------------------

TEST_F(PidLockTest, PidFileThatCannotBeOpenedEndsTheProcessWithStatusOne)
{
    std::string path = dir_.File("missing/qmudev.pid");
    EXPECT_EXIT(UDEV_CheckRunningAt(path.c_str()), ::testing::ExitedWithCode(1), "");
    EXPECT_TRUE(trace_.Has("can't open " + path + ": No such file or directory"));
}

TEST_F(PidLockTest, HeldLockRefusesTheOtherInstanceSilentlyEitherWay)
{
    std::string path = dir_.File("qmudev.pid");
    {
        LockHolder first(path);
        ASSERT_TRUE(first.Won());
        std::string before = qmtest::ReadFile(path);
        EXPECT_EQ(before, PidContent(first.Pid()));
        EXPECT_FALSE(UDEV_CheckRunningAt(path.c_str()));
        EXPECT_EQ(qmtest::ReadFile(path), before);
        EXPECT_FALSE(trace_.Has("can't lock"));
        EXPECT_FALSE(trace_.Has("[ERROR]"));
    }
    // Won here, the lock outlives the call: another process is refused
    // (nothing here closes a descriptor of the file, which would drop it).
    ASSERT_TRUE(UDEV_CheckRunningAt(path.c_str()));
    LockHolder other(path);
    EXPECT_FALSE(other.Won());
}

TEST_F(PidLockTest, WinnerTruncatesOnlyAfterTheLockAndRewritesThePid)
{
    std::string path = dir_.File("qmudev.pid");
    qmtest::WriteFile(path, "12345678901234567890 stale content\n");
    {
        LockHolder earlier(path);
        ASSERT_TRUE(earlier.Won());
        EXPECT_EQ(qmtest::ReadFile(path), PidContent(earlier.Pid()));
    }  // the earlier instance has ended: its lock is gone, its pid stays
    ASSERT_TRUE(UDEV_CheckRunningAt(path.c_str()));
    EXPECT_EQ(qmtest::ReadFile(path), PidContent(::getpid()));
    EXPECT_FALSE(trace_.Has("[ERROR]"));
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
        bool open;
        int ret;
        bool expected;
        const char *message;
    } rows[] = {
        {false, 0, false, "Failed to trigger ioctl."},
        {true, -1, false, "Failed to trigger ioctl."},
        {true, 0, true, "Success to trigger ioctl"},
    };
    qmtest::ReplaceIoctl(FakeStart);
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.open) + " " + std::to_string(row.ret));
        g_startRet = row.ret;
        g_startRequest = 0;
        if (row.open) {
            ASSERT_EQ(INTF_UTIL_MiscIoctlInitAt("/dev/null"), UDEV_RET_OK);
        }
        EXPECT_EQ(UDEV_TriggerAchieveBindInfo(), row.expected);
        EXPECT_EQ(g_startRequest, row.open ? MISC_IOCTL_START : 0ul);
        EXPECT_TRUE(trace.Has(row.message));
        INTF_UTIL_MiscIoctlClose();
    }
    qmtest::ReplaceIoctl(nullptr);
}

}  // namespace
