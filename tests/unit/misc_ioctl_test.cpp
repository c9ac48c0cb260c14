// The misc-device channel against a scripted fake driver (the test binary's
// ioctl): request numbers, records on the wire, status pass-through, the
// GET size negotiation, and replies that a broken or hostile driver might
// send. The channel opens a plain file of the test's own.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "support/sys_wrap.h"
#include "support/trace_capture.h"
#include "util_ret.h"

namespace {

constexpr uint32_t OK = 1024;
constexpr uint32_t BUF_SHORT = 1038;
constexpr uint32_t NO_OVERRIDE = 0xDEADBEEF;

// One scripted answer of the fake driver: ioctl return, status, needLen,
// text for the data area (bounded by bufLen), and dataLen (else the length
// of the text as copied).
struct Reply {
    Reply(int r = 0, uint32_t s = OK, uint32_t n = 0, std::string t = "", uint32_t d = NO_OVERRIDE)
        : ret(r), status(s), needLen(n), text(std::move(t)), dataLen(d)
    {
    }
    int ret;
    uint32_t status;
    uint32_t needLen;
    std::string text;
    uint32_t dataLen;
};

// What the daemon put on the wire.
struct Call {
    int fd = -1;
    unsigned long request = 0;
    bool nullArg = false;
    uint32_t bufLen = 0;
    std::string data;  // all bufLen bytes of the data area
};

struct FakeDriver {
    std::vector<Reply> replies;
    size_t next = 0;
    std::vector<Call> calls;
};
FakeDriver g_fake;

int FakeIoctl(int fd, unsigned long request, void *arg)
{
    Call call{fd, request, arg == nullptr, 0, ""};
    static const Reply fallback;
    const Reply &reply = g_fake.next < g_fake.replies.size() ? g_fake.replies[g_fake.next++] : fallback;
    if (arg != nullptr) {
        auto *param = static_cast<MiscCtrlParam *>(arg);
        char *data = reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN;
        call.bufLen = param->bufLen;
        call.data.assign(data, param->bufLen);  // the whole declared area must be readable
        param->status = reply.status;
        param->needLen = reply.needLen;
        size_t copied = reply.text.size() < param->bufLen ? reply.text.size() : param->bufLen - 1;
        std::memcpy(data, reply.text.data(), copied);
        data[copied] = '\0';
        param->dataLen = reply.dataLen != NO_OVERRIDE ? reply.dataLen : static_cast<uint32_t>(copied);
    }
    g_fake.calls.push_back(call);
    return reply.ret;
}

// The descriptor of this process open on `path`, or -1.
int FdOf(const std::string &path)
{
    DIR *fds = ::opendir("/proc/self/fd");
    int found = -1;
    for (struct dirent *entry = ::readdir(fds); entry != nullptr && found < 0; entry = ::readdir(fds)) {
        char target[512] = {};
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 && path == target) {
            found = std::atoi(entry->d_name);
        }
    }
    ::closedir(fds);
    return found;
}

class MiscIoctlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qmtest::WriteFile(node_, "");
        qmtest::ReplaceIoctl(FakeIoctl);
        Script({});
    }
    void TearDown() override
    {
        INTF_UTIL_MiscIoctlClose();
        qmtest::ReplaceIoctl(nullptr);
    }

    // Opens the channel on the test's node (if it is not open) and scripts
    // the driver's answers.
    void Script(std::vector<Reply> replies)
    {
        g_fake = FakeDriver{std::move(replies), 0, {}};
        (void)INTF_UTIL_MiscIoctlInitAt(node_.c_str());
        fd_ = FdOf(node_);
    }

    qmtest::TempDir dir_;
    std::string node_ = dir_.File("misc_qmnv");
    int fd_ = -1;
    qmtest::TraceCapture trace_;
};

// ---- not open, open and close ----------------------------------------------------

TEST_F(MiscIoctlTest, EveryRequestFailsWithoutTouchingTheDriverWhenNotOpen)
{
    INTF_UTIL_MiscIoctlClose();
    // Closed, then open on descriptor 0, which counts as closed too.
    int savedStdin = ::dup(0);
    for (bool onZero : {false, true}) {
        SCOPED_TRACE(onZero ? "descriptor 0" : "closed");
        if (onZero) {
            ::close(0);
            ASSERT_EQ(INTF_UTIL_MiscIoctlInitAt(node_.c_str()), UDEV_RET_OK);
            ASSERT_EQ(FdOf(node_), 0);
        }
        EXPECT_EQ(INTF_UTIL_MiscIoctlStart(), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
        EXPECT_EQ(INTF_UTIL_MiscIoctlAdd("8:32 scsi V P 1:0:0:1"), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlRemove("8:32"), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlChange("8:32"), UDEV_RET_FAIL);
        INTF_UTIL_MiscIoctlClose();  // nothing to close; must not close fd 0
        EXPECT_EQ(FdOf(node_), onZero ? 0 : -1);
    }
    ::dup2(savedStdin, 0);
    ::close(savedStdin);
    EXPECT_TRUE(g_fake.calls.empty());
    std::string log = trace_.Text();
    EXPECT_EQ(qmtest::CountOf(log, "misc ioctl device not open."), 4u);
    EXPECT_EQ(qmtest::CountOf(log, "add{8:32 scsi V P 1:0:0:1} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "remove{8:32} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "change{8:32} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "[WARN]"), 6u);
}

TEST_F(MiscIoctlTest, OpenFailureOpenWhenOpenAndCloseTwice)
{
    // Already open: warns, keeps the descriptor, opens nothing.
    ASSERT_GT(fd_, 0);
    EXPECT_EQ(INTF_UTIL_MiscIoctlInitAt(dir_.File("missing").c_str()), UDEV_RET_OK);
    EXPECT_EQ(FdOf(node_), fd_);
    EXPECT_TRUE(trace_.Has("[WARN][UDEV  ][INTF_UTIL_MiscIoctlInitAt: "));
    EXPECT_TRUE(trace_.Has("already open /dev/misc_qmnv."));

    INTF_UTIL_MiscIoctlClose();
    EXPECT_EQ(INTF_UTIL_MiscIoctlInitAt(dir_.File("missing").c_str()), UDEV_RET_FAIL);
    EXPECT_TRUE(trace_.Has("[ERROR][UDEV  ][INTF_UTIL_MiscIoctlInitAt: "));
    EXPECT_TRUE(trace_.Has("Failed to open /dev/misc_qmnv."));
    EXPECT_EQ(INTF_UTIL_MiscIoctlStart(), UDEV_RET_FAIL) << "a failed open leaves the channel closed";

    ASSERT_EQ(INTF_UTIL_MiscIoctlInitAt(node_.c_str()), UDEV_RET_OK);
    int fd = FdOf(node_);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    INTF_UTIL_MiscIoctlClose();
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);  // really closed
    EXPECT_EQ(INTF_UTIL_MiscIoctlStart(), UDEV_RET_FAIL);
    INTF_UTIL_MiscIoctlClose();
    EXPECT_TRUE(g_fake.calls.empty());
}

// ---- start, add, remove, change --------------------------------------------------

// Start sends no record and reads no status; the events send their text
// and hand back the driver's status unchanged, whatever it is.
TEST_F(MiscIoctlTest, RequestsSendTheirRecordAndReturnTheStatus)
{
    enum Which { Start, Add, Remove, Change };
    struct Row {
        Which which;
        int ret;
        uint32_t status;
        int expected;
        std::string message;
    } rows[] = {
        {Start, -1, OK, UDEV_RET_FAIL, "misc ioctl start fail with ret=-1."},
        {Add, -5, OK, UDEV_RET_FAIL, "add{8:32 scsi VENDOR PRODUCT 3:0:0:1}  fail with ret{-5}."},
        {Remove, -5, OK, UDEV_RET_FAIL, "remove{8:32}  fail with ret{-5}."},
        {Change, -5, OK, UDEV_RET_FAIL, "change{259:7}  fail with ret{-5}."},
        {Start, 0, 1030, UDEV_RET_OK, "misc ioctl start success."},
        {Start, 5, 1030, UDEV_RET_OK, "misc ioctl start success."},
        {Add, 0, OK, 1024, "device{8:32 scsi VENDOR PRODUCT 3:0:0:1} action{add} with ret{1024}."},
        {Add, 0, 7, 7, "device{8:32 scsi VENDOR PRODUCT 3:0:0:1} action{add} with ret{7}."},
        {Remove, 0, 1030, 1030, "device{8:32} action{remove} with ret{1030}."},
        {Change, 0, 1056, 1056, "device{259:7} action{change} with ret{1056}."},
    };
    const struct {
        int (*fn)(const char *);
        unsigned long request;
        const char *text;
    } events[] = {{nullptr, 0xC014AC0D, nullptr},
                  {INTF_UTIL_MiscIoctlAdd, 0xC014AC0A, "8:32 scsi VENDOR PRODUCT 3:0:0:1"},
                  {INTF_UTIL_MiscIoctlRemove, 0xC014AC0B, "8:32"},
                  {INTF_UTIL_MiscIoctlChange, 0xC014AC0E, "259:7"}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        const auto &event = events[row.which];
        Script({Reply{row.ret, row.status}});
        size_t before = trace_.Text().size();
        EXPECT_EQ(row.which == Start ? INTF_UTIL_MiscIoctlStart() : event.fn(event.text), row.expected);
        ASSERT_EQ(g_fake.calls.size(), 1u);
        const Call &call = g_fake.calls[0];
        EXPECT_EQ(call.fd, fd_);
        EXPECT_EQ(call.request, event.request);
        EXPECT_EQ(call.nullArg, row.which == Start);
        if (row.which != Start) {
            EXPECT_EQ(call.bufLen, std::strlen(event.text) + 1);
            EXPECT_EQ(call.data, std::string(event.text) + '\0');
        }
        std::string added = trace_.Text().substr(before);
        EXPECT_NE(added.find(row.message), std::string::npos) << added;
        EXPECT_EQ(added.find("[ERROR]") == std::string::npos, row.ret >= 0) << added;
    }
}

// A zero-length record fails the builder's assertion, which holds the thread:
// an empty event text, and a driver asking for a larger area of 0 bytes.
TEST_F(MiscIoctlTest, ZeroLengthRecordHoldsTheThreadInTheBuilderAssertion)
{
    const std::function<void()> bodies[] = {[] { (void)INTF_UTIL_MiscIoctlRemove(""); },
                                            [] { (void)INTF_UTIL_MiscIoctlGet(); }};
    Script({Reply{0, BUF_SHORT, 0}});
    for (const auto &body : bodies) {
        qmtest::HangResult result = qmtest::RunUntilTraceHas(trace_.Path(), "exception \"len != 0\"", body);
        EXPECT_TRUE(result.recordSeen);
        EXPECT_TRUE(result.stillRunning);
        qmtest::WriteFile(trace_.Path(), "");
    }
    EXPECT_TRUE(g_fake.calls.empty());  // the children's calls stay theirs
}

// ---- the record builder ------------------------------------------------------

TEST_F(MiscIoctlTest, BuilderTakesTheTextLengthOrZeroesTheAskedArea)
{
    const std::string tooLong(MISC_GET_MAX_LEN + 1, 'a');
    struct Row {
        const char *text;  // null: a zeroed area of lenArg + 1 bytes
        uint32_t lenArg;
        uint32_t bufLen;  // 0: refused
    } rows[] = {
        {tooLong.c_str(), 0, 0},
        {nullptr, UINT32_MAX, 0},
        {nullptr, UINT32_MAX - 19, 0},  // bufLen and the allocation would wrap
        {"8:32", 0, 5},
        {"8:32", 1000, 5},
        {"1", 7, 2},
        {"8:32 scsi VENDOR PRODUCT 3:0:0:1", 3, 33},
        {nullptr, 1, 2},
        {nullptr, 1023, 1024},
        {nullptr, 4000, 4001},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.lenArg) + " " + std::to_string(row.bufLen));
        size_t before = trace_.Text().size();
        MallocPtr<MiscCtrlParam> param = UTIL_MiscAllocCtrlNode(row.text, row.lenArg);
        if (row.bufLen == 0) {
            EXPECT_EQ(param, nullptr);
            EXPECT_NE(trace_.Text().find("[ERROR]", before), std::string::npos);
            continue;
        }
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(param->bufLen, row.bufLen);
        const char *data = reinterpret_cast<const char *>(param.get()) + MISC_CTRL_HEAD_LEN;
        std::string expected = row.text != nullptr ? std::string(row.text) + '\0' : std::string(row.bufLen, '\0');
        EXPECT_EQ(std::string(data, row.bufLen), expected);
    }
}

// ---- GET ------------------------------------------------------------------

TEST_F(MiscIoctlTest, GetFailuresAndHostileRepliesGiveNull)
{
    struct Row {
        const char *name;
        std::vector<Reply> replies;
        const char *message;
    } rows[] = {
        {"ioctl fails", {{-14, OK, 0, "8:16"}}, "get device numbers fail with ret=-14."},
        {"status 1030", {{0, 1030, 0, "8:16"}}, "alloc devnums fail with ret{1030}."},
        {"status 0", {{0, 0, 0, "8:16"}}, "alloc devnums fail with ret{0}."},
        {"dataLen beyond the first area", {{0, OK, 0, "8:16", 1024 + 5}}, "exceeds its data area{1024}"},
        // The record has three spare bytes behind the offered area; they are
        // not the driver's to fill.
        {"dataLen into the spare bytes", {{0, OK, 0, "8:16", 1024 + 1}}, "exceeds its data area{1024}"},
        {"dataLen all ones", {{0, OK, 0, "8:16", UINT32_MAX}}, "reply dataLen{4294967295} exceeds"},
        {"needLen all ones", {{0, BUF_SHORT, UINT32_MAX}}, "driver asks for len{4294967295}, above the limit"},
        {"needLen above 16 MiB", {{0, BUF_SHORT, MISC_GET_MAX_LEN + 1}}, "driver asks for len{16777217}"},
        {"dataLen beyond the grown area",
         {{0, BUF_SHORT, 100}, {0, OK, 0, "8:16", 100 + 5}},
         "exceeds its data area{101}"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Script(row.replies);
        size_t before = trace_.Text().size();
        EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
        EXPECT_EQ(g_fake.calls.size(), row.replies.size());
        std::string added = trace_.Text().substr(before);
        EXPECT_NE(added.find(row.message), std::string::npos) << added;
        EXPECT_NE(added.find("[ERROR]"), std::string::npos);
    }
}

TEST_F(MiscIoctlTest, GetNegotiatesTheDataAreaWithTheDriver)
{
    std::string big(3999, '7');
    struct Row {
        const char *name;
        std::vector<Reply> replies;
        std::vector<uint32_t> bufLens;
        std::string expected;
    } rows[] = {
        {"first area suffices", {{0, OK, 9, "8:16 8:32"}}, {1024}, "8:16 8:32"},
        {"empty list is an empty text", {{0, OK, 0, ""}}, {1024}, ""},
        {"grow to needLen 4000", {{0, BUF_SHORT, 4000}, {0, OK, 3999, big}}, {1024, 4001}, big},
        {"several rounds",
         {{0, BUF_SHORT, 1500}, {0, BUF_SHORT, 2000}, {0, BUF_SHORT, 5}, {0, OK, 4, "8:16"}},
         {1024, 1501, 2001, 6},
         "8:16"},
        {"dataLen fills the offered area", {{0, OK, 0, "8:16", 1024}}, {1024}, "8:16"},
        {"needLen exactly at the limit",
         {{0, BUF_SHORT, MISC_GET_MAX_LEN}, {0, OK, 4, "8:16"}},
         {1024, MISC_GET_MAX_LEN + 1},
         "8:16"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Script(row.replies);
        MallocPtr<char> list = INTF_UTIL_MiscIoctlGet();
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(std::string(list.get()), row.expected);
        ASSERT_EQ(g_fake.calls.size(), row.bufLens.size());
        for (size_t i = 0; i < row.bufLens.size(); ++i) {
            const Call &call = g_fake.calls[i];
            EXPECT_EQ(call.request, 0xC014AC0Cul);
            EXPECT_EQ(call.bufLen, row.bufLens[i]);
            EXPECT_EQ(call.data, std::string(row.bufLens[i], '\0')) << "data area not zeroed, call " << i;
        }
    }
}

// ---- copying the list out ----------------------------------------------------

TEST(MiscAllocDeviceNumsTest, ReplySizesAreCheckedAgainstTheOfferedArea)
{
    qmtest::TraceCapture trace;
    struct Row {
        const char *name;
        uint32_t status;
        uint32_t dataLen;
        size_t recordSize;     // the block is exactly this large
        const char *expected;  // null: refused
    } rows[] = {
        {"block smaller than the header", OK, 0, 8, nullptr},
        // A record of 64 bytes offers 45 (its bufLen); the 3 bytes behind are spare.
        {"dataLen one past the area", OK, 46, 64, nullptr},
        {"dataLen 1 in a header-only block", OK, 1, 16, nullptr},
        {"dataLen fills the area", OK, 45, 64, "8:16"},
        {"dataLen 0 in a header-only block", OK, 0, 16, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        MallocPtr<char> block(static_cast<char *>(std::calloc(1, row.recordSize)));
        ASSERT_NE(block, nullptr);
        auto *param = reinterpret_cast<MiscCtrlParam *>(block.get());
        if (row.recordSize >= MISC_CTRL_HEAD_LEN) {
            param->status = row.status;
            param->dataLen = row.dataLen;
        }
        if (row.recordSize >= MISC_CTRL_HEAD_LEN + 4) {
            std::memcpy(block.get() + MISC_CTRL_HEAD_LEN, "8:16", 4);
        }
        MallocPtr<char> list = UTIL_MiscAllocDeviceNums(param, row.recordSize);
        EXPECT_STREQ(list.get(), row.expected);
    }
}

}  // namespace
