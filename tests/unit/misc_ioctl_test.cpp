// The misc-device channel against a scripted fake driver: request numbers,
// records on the wire, status pass-through, the GET size negotiation, and
// replies that a broken or hostile driver might send.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "misc_ioctl.h"
#include "support/trace_capture.h"
#include "util_ret.h"

namespace {

constexpr int FAKE_FD = 42;

// One scripted answer of the fake driver.
struct Reply {
    int ret = 0;              // ioctl return
    uint32_t status = 1024;   // written into the record
    uint32_t needLen = 0;
    std::string text;         // written into the data area (bounded by bufLen)
    bool overrideDataLen = false;
    uint32_t dataLen = 0;     // used instead of text.size() when overridden
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
    Reply fallback;  // once the script is used up
};
FakeDriver g_fake;

int FakeIoctl(int fd, unsigned long request, void *arg)
{
    Call call;
    call.fd = fd;
    call.request = request;
    call.nullArg = arg == nullptr;
    const Reply &reply = g_fake.next < g_fake.replies.size() ? g_fake.replies[g_fake.next++] : g_fake.fallback;
    if (arg != nullptr) {
        auto *param = static_cast<MiscCtrlParam *>(arg);
        char *data = reinterpret_cast<char *>(param) + MISC_CTRL_HEAD_LEN;
        call.bufLen = param->bufLen;
        call.data.assign(data, param->bufLen);  // the whole declared area must be readable
        param->status = reply.status;
        param->needLen = reply.needLen;
        size_t room = param->bufLen;
        size_t copied = reply.text.size() < room ? reply.text.size() : room - 1;
        std::memcpy(data, reply.text.data(), copied);
        data[copied] = '\0';
        param->dataLen = reply.overrideDataLen ? reply.dataLen : static_cast<uint32_t>(copied);
    }
    g_fake.calls.push_back(call);
    return reply.ret;
}

class MiscIoctlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_fake = FakeDriver();
        UTIL_MiscSetForTest(FAKE_FD, FakeIoctl);
    }
    void TearDown() override { UTIL_MiscSetForTest(-1, nullptr); }

    qmtest::TraceCapture trace_;
};

std::string TextOf(const MallocPtr<char> &text)
{
    return text ? std::string(text.get()) : std::string("<null>");
}

// ---- not open -----------------------------------------------------------

TEST_F(MiscIoctlTest, EveryRequestFailsWithoutTouchingTheDriverWhenNotOpen)
{
    for (int fd : {0, -1}) {
        SCOPED_TRACE(fd);
        UTIL_MiscSetForTest(fd, FakeIoctl);
        EXPECT_EQ(INTF_UTIL_MiscIoctlStart(), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
        EXPECT_EQ(INTF_UTIL_MiscIoctlAdd("8:32 scsi V P 1:0:0:1"), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlRemove("8:32"), UDEV_RET_FAIL);
        EXPECT_EQ(INTF_UTIL_MiscIoctlChange("8:32"), UDEV_RET_FAIL);
        INTF_UTIL_MiscIoctlClose();  // nothing to close; must not close fd 0
        EXPECT_EQ(UTIL_MiscGetFd(), fd);
    }
    EXPECT_TRUE(g_fake.calls.empty());
    std::string log = trace_.Text();
    EXPECT_EQ(qmtest::CountOf(log, "misc ioctl device not open."), 4u);
    EXPECT_EQ(qmtest::CountOf(log, "add{8:32 scsi V P 1:0:0:1} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "remove{8:32} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "change{8:32} not open /dev/misc_qmnv."), 2u);
    EXPECT_EQ(qmtest::CountOf(log, "[WARN]"), 6u);
}

// ---- open and close -----------------------------------------------------

TEST_F(MiscIoctlTest, OpenFailureKeepsTheNegativeDescriptor)
{
    UTIL_MiscSetForTest(-1, FakeIoctl);
    qmtest::TempDir dir;
    EXPECT_EQ(INTF_UTIL_MiscIoctlInitAt(dir.File("missing").c_str()), UDEV_RET_FAIL);
    EXPECT_LT(UTIL_MiscGetFd(), 0);
    EXPECT_TRUE(trace_.Has("[ERROR]"));
    EXPECT_TRUE(trace_.Has("Failed to open /dev/misc_qmnv."));
}

TEST_F(MiscIoctlTest, InitWhenOpenWarnsAndKeepsTheDescriptor)
{
    qmtest::TempDir dir;
    EXPECT_EQ(INTF_UTIL_MiscIoctlInitAt(dir.File("missing").c_str()), UDEV_RET_OK);
    EXPECT_EQ(UTIL_MiscGetFd(), FAKE_FD);
    EXPECT_TRUE(trace_.Has("[WARN]"));
    EXPECT_TRUE(trace_.Has("already open /dev/misc_qmnv."));
}

TEST_F(MiscIoctlTest, OpenThenCloseTwice)
{
    UTIL_MiscSetForTest(-1, FakeIoctl);
    qmtest::TempDir dir;
    std::string node = dir.File("misc_qmnv");
    qmtest::WriteFile(node, "");
    ASSERT_EQ(INTF_UTIL_MiscIoctlInitAt(node.c_str()), UDEV_RET_OK);
    int fd = UTIL_MiscGetFd();
    EXPECT_GT(fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    INTF_UTIL_MiscIoctlClose();
    EXPECT_EQ(UTIL_MiscGetFd(), -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);  // really closed
    INTF_UTIL_MiscIoctlClose();
    EXPECT_EQ(UTIL_MiscGetFd(), -1);
}

// ---- start ----------------------------------------------------------------

TEST_F(MiscIoctlTest, StartSendsNoRecordAndReadsNoStatus)
{
    struct Row {
        int ret;
        uint32_t status;  // ignored by start
        int expected;
        const char *message;
    } rows[] = {
        {-1, 1024, UDEV_RET_FAIL, "misc ioctl start fail with ret=-1."},
        {-22, 1024, UDEV_RET_FAIL, "misc ioctl start fail with ret=-22."},
        {0, 1030, UDEV_RET_OK, "misc ioctl start success."},
        {5, 1030, UDEV_RET_OK, "misc ioctl start success."},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.ret);
        g_fake = FakeDriver();
        g_fake.replies = {Reply{row.ret, row.status, 0, "", false, 0}};
        EXPECT_EQ(INTF_UTIL_MiscIoctlStart(), row.expected);
        ASSERT_EQ(g_fake.calls.size(), 1u);
        EXPECT_EQ(g_fake.calls[0].request, 0xC014AC0Dul);
        EXPECT_TRUE(g_fake.calls[0].nullArg);
        EXPECT_EQ(g_fake.calls[0].fd, FAKE_FD);
        EXPECT_TRUE(trace_.Has(row.message));
    }
}

// ---- add / remove / change ------------------------------------------------

using EventFn = int (*)(const char *);
struct EventRow {
    const char *name;
    EventFn fn;
    unsigned long request;
    const char *text;
};
const EventRow EVENT_ROWS[] = {
    {"add", INTF_UTIL_MiscIoctlAdd, 0xC014AC0A, "8:32 scsi VENDOR PRODUCT 3:0:0:1"},
    {"remove", INTF_UTIL_MiscIoctlRemove, 0xC014AC0B, "8:32"},
    {"change", INTF_UTIL_MiscIoctlChange, 0xC014AC0E, "259:7"},
};

TEST_F(MiscIoctlTest, EventIoctlFailureReportsTheReturnNotTheStatus)
{
    for (const EventRow &row : EVENT_ROWS) {
        SCOPED_TRACE(row.name);
        g_fake = FakeDriver();
        g_fake.replies = {Reply{-5, 1024, 0, "", false, 0}};
        EXPECT_EQ(row.fn(row.text), UDEV_RET_FAIL);
        std::string expected = std::string(row.name) + "{" + row.text + "}  fail with ret{-5}.";
        EXPECT_TRUE(trace_.Has(expected)) << expected;
    }
}

TEST_F(MiscIoctlTest, EventRecordCarriesTheTextAndTheStatusComesBackUnchanged)
{
    for (const EventRow &row : EVENT_ROWS) {
        for (uint32_t status : {1024u, 1030u, 1052u, 1055u, 1056u, 1061u, 7u}) {
            SCOPED_TRACE(std::string(row.name) + " status " + std::to_string(status));
            g_fake = FakeDriver();
            g_fake.replies = {Reply{0, status, 0, "", false, 0}};
            EXPECT_EQ(row.fn(row.text), static_cast<int>(status));
            ASSERT_EQ(g_fake.calls.size(), 1u);
            const Call &call = g_fake.calls[0];
            EXPECT_EQ(call.request, row.request);
            EXPECT_EQ(call.fd, FAKE_FD);
            EXPECT_EQ(call.bufLen, std::strlen(row.text) + 1);
            EXPECT_EQ(call.data, std::string(row.text) + '\0');
            std::string expected = std::string("device{") + row.text + "} action{" + row.name + "} with ret{" +
                                   std::to_string(status) + "}.";
            EXPECT_TRUE(trace_.Has(expected)) << expected;
        }
    }
    EXPECT_FALSE(trace_.Has("[ERROR]"));
}

TEST_F(MiscIoctlTest, EmptyEventTextHoldsTheThreadInTheBuilderAssertion)
{
    qmtest::HangResult result = qmtest::RunUntilTraceHas(trace_.Path(), "exception \"len != 0\"",
                                                         [] { (void)INTF_UTIL_MiscIoctlRemove(""); });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
    EXPECT_TRUE(g_fake.calls.empty());
}

// ---- the record builder ------------------------------------------------------

TEST_F(MiscIoctlTest, BuilderTakesTheTextLengthAndIgnoresTheArgument)
{
    struct Row {
        const char *text;
        uint32_t lenArg;
        uint32_t bufLen;
    } rows[] = {
        {"8:32", 0, 5},
        {"8:32", 1000, 5},
        {"1", 7, 2},
        {"8:32 scsi VENDOR PRODUCT 3:0:0:1", 3, 33},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        MallocPtr<MiscCtrlParam> param = UTIL_MiscAllocCtrlNode(row.text, row.lenArg);
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(param->bufLen, row.bufLen);
        const char *data = reinterpret_cast<const char *>(param.get()) + MISC_CTRL_HEAD_LEN;
        EXPECT_EQ(std::string(data, row.bufLen), std::string(row.text) + '\0');
    }
}

TEST_F(MiscIoctlTest, BuilderWithoutTextZeroesTheWholeDataArea)
{
    for (uint32_t len : {1u, 3u, 1023u, 4000u}) {
        SCOPED_TRACE(len);
        MallocPtr<MiscCtrlParam> param = UTIL_MiscAllocCtrlNode(nullptr, len);
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(param->bufLen, len + 1);
        const char *data = reinterpret_cast<const char *>(param.get()) + MISC_CTRL_HEAD_LEN;
        // The three spare bytes beyond bufLen belong to the block too.
        std::string area(data, len + 4);
        EXPECT_EQ(area.substr(0, len + 1), std::string(len + 1, '\0'));
    }
}

TEST_F(MiscIoctlTest, BuilderRefusesALengthWhoseBufLenWouldWrap)
{
    EXPECT_EQ(UTIL_MiscAllocCtrlNode(nullptr, UINT32_MAX), nullptr);
    EXPECT_EQ(UTIL_MiscAllocCtrlNode(nullptr, UINT32_MAX - 19), nullptr);
    EXPECT_TRUE(trace_.Has("[ERROR]"));
}

// ---- GET ------------------------------------------------------------------

TEST_F(MiscIoctlTest, GetIoctlFailureFreesAndReportsTheReturn)
{
    g_fake.replies = {Reply{-14, 1024, 0, "8:16", false, 0}};
    EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
    EXPECT_TRUE(trace_.Has("get device numbers fail with ret=-14."));
}

TEST_F(MiscIoctlTest, GetWithAFailureStatusGivesNull)
{
    for (uint32_t status : {1030u, 0u, 1061u}) {
        SCOPED_TRACE(status);
        g_fake = FakeDriver();
        g_fake.replies = {Reply{0, status, 0, "8:16", false, 0}};
        EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
        EXPECT_EQ(g_fake.calls.size(), 1u);
        EXPECT_TRUE(trace_.Has("alloc devnums fail with ret{" + std::to_string(status) + "}."));
    }
}

TEST_F(MiscIoctlTest, HostileGetRepliesFailWithoutTrustingTheirSizes)
{
    struct Row {
        const char *name;
        std::vector<Reply> replies;
        size_t calls;
    } rows[] = {
        {"dataLen beyond the first area", {Reply{0, 1024, 0, "8:16", true, 1024 + 5}}, 1},
        {"dataLen all ones", {Reply{0, 1024, 0, "8:16", true, UINT32_MAX}}, 1},
        {"needLen all ones", {Reply{0, 1038, UINT32_MAX, "", false, 0}}, 1},
        {"needLen would wrap the record", {Reply{0, 1038, UINT32_MAX - 10, "", false, 0}}, 1},
        {"needLen above 16 MiB", {Reply{0, 1038, 16u * 1024u * 1024u + 1u, "", false, 0}}, 1},
        // The record has three spare bytes behind the offered area; they are
        // not the driver's to fill.
        {"dataLen into the spare bytes", {Reply{0, 1024, 0, "8:16", true, 1024 + 1}}, 1},
        {"dataLen beyond the grown area",
         {Reply{0, 1038, 100, "", false, 0}, Reply{0, 1024, 0, "8:16", true, 100 + 5}},
         2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        g_fake = FakeDriver();
        g_fake.replies = row.replies;
        EXPECT_EQ(INTF_UTIL_MiscIoctlGet(), nullptr);
        EXPECT_EQ(g_fake.calls.size(), row.calls);
    }
    EXPECT_EQ(qmtest::CountOf(trace_.Text(), "[ERROR]"), 7u);
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
        {"first area suffices", {Reply{0, 1024, 9, "8:16 8:32", false, 0}}, {1024}, "8:16 8:32"},
        {"empty list is an empty text", {Reply{0, 1024, 0, "", false, 0}}, {1024}, ""},
        {"grow to needLen 4000",
         {Reply{0, 1038, 4000, "", false, 0}, Reply{0, 1024, 3999, big, false, 0}},
         {1024, 4001},
         big},
        {"several rounds",
         {Reply{0, 1038, 1500, "", false, 0}, Reply{0, 1038, 2000, "", false, 0},
          Reply{0, 1038, 5, "", false, 0}, Reply{0, 1024, 4, "8:16", false, 0}},
         {1024, 1501, 2001, 6},
         "8:16"},
        {"dataLen fills the offered area", {Reply{0, 1024, 0, "8:16", true, 1024}}, {1024}, "8:16"},
        {"needLen exactly at the limit",
         {Reply{0, 1038, 16u * 1024u * 1024u, "", false, 0}, Reply{0, 1024, 4, "8:16", false, 0}},
         {1024, 16u * 1024u * 1024u + 1u},
         "8:16"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        g_fake = FakeDriver();
        g_fake.replies = row.replies;
        MallocPtr<char> list = INTF_UTIL_MiscIoctlGet();
        EXPECT_EQ(TextOf(list), row.expected);
        ASSERT_EQ(g_fake.calls.size(), row.bufLens.size());
        for (size_t i = 0; i < row.bufLens.size(); ++i) {
            const Call &call = g_fake.calls[i];
            EXPECT_EQ(call.request, 0xC014AC0Cul);
            EXPECT_EQ(call.bufLen, row.bufLens[i]);
            EXPECT_EQ(call.data, std::string(row.bufLens[i], '\0')) << "data area not zeroed, call " << i;
        }
    }
}

TEST_F(MiscIoctlTest, GetReplyWithNeedLenZeroHoldsTheThreadInTheBuilderAssertion)
{
    g_fake.replies = {Reply{0, 1038, 0, "", false, 0}};
    qmtest::HangResult result = qmtest::RunUntilTraceHas(trace_.Path(), "exception \"len != 0\"",
                                                         [] { (void)INTF_UTIL_MiscIoctlGet(); });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
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
        {"block smaller than the header", 1024, 0, 8, nullptr},
        {"block of one byte", 1024, 0, 1, nullptr},
        {"status not OK", 1038, 4, 64, nullptr},
        // A record of 64 bytes offers 45 (its bufLen); the 3 bytes behind are spare.
        {"dataLen one past the area", 1024, 46, 64, nullptr},
        {"dataLen fills the area", 1024, 45, 64, "8:16"},
        {"dataLen 0", 1024, 0, 64, ""},
        {"dataLen 0 in a header-only block", 1024, 0, 16, ""},
        {"dataLen 1 in a header-only block", 1024, 1, 16, nullptr},
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
        if (row.expected == nullptr) {
            EXPECT_EQ(list, nullptr);
        } else {
            ASSERT_NE(list, nullptr);
            EXPECT_EQ(std::string(list.get()), row.expected);
        }
    }
}

}  // namespace
