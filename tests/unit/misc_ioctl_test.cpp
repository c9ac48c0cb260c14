// The misc channel's GET against replies that a broken or hostile driver
// might send: the size negotiation, the limits on what the driver asks for
// and on what it says it wrote, and the record builder's own bounds.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "misc_ioctl.h"
#include "support/unit_support.h"
#include "util_ret.h"

namespace {

constexpr uint32_t OK = 1024;
constexpr uint32_t SHORT = 1038;  // the data area is too small: ask again with needLen
constexpr uint32_t AS_COPIED = 0xDEADBEEF;

// One scripted answer: ioctl return, status, needLen, text put into the
// data area (bounded by bufLen), and dataLen (else the length copied).
struct Reply {
    int ret = 0;
    uint32_t status = OK;
    uint32_t needLen = 0;
    std::string text;
    uint32_t dataLen = AS_COPIED;
};

// Answers GETs from `replies` in turn; records each offered bufLen and
// checks that the offered area came zeroed.
struct ScriptedDriver {
    std::vector<Reply> replies;
    std::vector<uint32_t> bufLens;
    qmtest::FakeDriver driver{[this](unsigned long request, MiscCtrlParam *param) {
        EXPECT_EQ(request, MISC_IOCTL_GET_DEVNUMS);
        const Reply &reply = replies.at(bufLens.size());
        bufLens.push_back(param->bufLen);
        EXPECT_EQ(std::string(qmtest::DataOf(param), param->bufLen), std::string(param->bufLen, '\0'));
        size_t copied = std::min<size_t>(reply.text.size(), param->bufLen - 1);
        std::memcpy(qmtest::DataOf(param), reply.text.data(), copied);
        param->status = reply.status;
        param->needLen = reply.needLen;
        param->dataLen = reply.dataLen != AS_COPIED ? reply.dataLen : static_cast<uint32_t>(copied);
        return reply.ret;
    }};
};

// The first area is 1024 bytes; a record of n + 20 bytes offers n + 1, and
// the three spare bytes behind are not the driver's to fill.
TEST(MiscGet, AreaFollowsTheDriverWithinLimitsAndRepliesStayInIt)
{
    qmtest::TraceCapture trace;
    const std::string big(3999, '7');
    struct Row {
        const char *name;
        std::vector<Reply> replies;
        std::vector<uint32_t> bufLens;
        const char *result;  // the list; null: no list, and this record
    } rows[] = {
        {"ioctl fails", {{-14, OK, 0, "8:16"}}, {1024}, "get device numbers fail with ret=-14."},
        {"status 1030", {{0, 1030, 0, "8:16"}}, {1024}, "alloc devnums fail with ret{1030}."},
        {"status 0", {{0, 0, 0, "8:16"}}, {1024}, "alloc devnums fail with ret{0}."},
        {"dataLen beyond the area", {{0, OK, 0, "8:16", 1024 + 5}}, {1024}, "exceeds its data area{1024}"},
        {"dataLen into the spare bytes", {{0, OK, 0, "8:16", 1024 + 1}}, {1024}, "exceeds its data area{1024}"},
        {"dataLen all ones", {{0, OK, 0, "8:16", UINT32_MAX}}, {1024}, "reply dataLen{4294967295} exceeds"},
        {"needLen all ones", {{0, SHORT, UINT32_MAX}}, {1024}, "driver asks for len{4294967295}, above the limit"},
        {"needLen above 16 MiB", {{0, SHORT, MISC_GET_MAX_LEN + 1}}, {1024}, "driver asks for len{16777217}"},
        {"dataLen beyond the grown area", {{0, SHORT, 100}, {0, OK, 0, "8:16", 100 + 5}}, {1024, 101},
         "exceeds its data area{101}"},
        {"first area suffices", {{0, OK, 9, "8:16 8:32"}}, {1024}, nullptr},
        {"empty list", {{0, OK, 0, ""}}, {1024}, nullptr},
        {"dataLen fills the area", {{0, OK, 0, "8:16", 1024}}, {1024}, nullptr},
        {"grow to needLen 4000", {{0, SHORT, 4000}, {0, OK, 3999, big}}, {1024, 4001}, nullptr},
        {"several rounds, shrinking too", {{0, SHORT, 1500}, {0, SHORT, 2000}, {0, SHORT, 5}, {0, OK, 4, "8:16"}},
         {1024, 1501, 2001, 6}, nullptr},
        {"needLen at the limit", {{0, SHORT, MISC_GET_MAX_LEN}, {0, OK, 4, "8:16"}}, {1024, MISC_GET_MAX_LEN + 1},
         nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedDriver driver{row.replies};
        MallocPtr<char> list = INTF_UTIL_MiscIoctlGet();
        EXPECT_EQ(driver.bufLens, row.bufLens);
        std::string added = trace.Added();
        if (row.result != nullptr) {
            EXPECT_EQ(list, nullptr);
            EXPECT_NE(added.find(row.result), std::string::npos) << added;
            EXPECT_NE(added.find("[ERROR]"), std::string::npos);
        } else {
            ASSERT_NE(list, nullptr);
            EXPECT_EQ(std::string(list.get()), row.replies.back().text);
        }
    }
}

// A driver asking for an area of 0 bytes fails the record builder's
// assertion, which holds the scan's thread for good.
TEST(MiscGet, AskingForZeroBytesHoldsTheThread)
{
    qmtest::TraceCapture trace;
    ScriptedDriver driver{{{0, SHORT, 0}}};
    EXPECT_TRUE(
        qmtest::HeldAfterRecord(trace.Path(), "exception \"len != 0\"", [] { (void)INTF_UTIL_MiscIoctlGet(); }));
}

// A text makes a record of its length; a length alone, a zeroed area of
// length + 1 bytes. Sizes that would wrap or pass the GET limit are refused.
TEST(MiscRecord, BuilderRefusesSizesThatWrapOrPassTheLimit)
{
    qmtest::TraceCapture trace;
    const std::string tooLong(MISC_GET_MAX_LEN + 1, 'a');
    struct Row {
        const char *text;
        uint32_t lenArg;
        uint32_t bufLen;  // 0: refused
    } rows[] = {{tooLong.c_str(), 0, 0}, {nullptr, UINT32_MAX, 0}, {nullptr, UINT32_MAX - 19, 0},
                {"8:32", 1000, 5},       {nullptr, 1, 2},           {nullptr, 1023, 1024}};
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.lenArg) + " " + std::to_string(row.bufLen));
        MallocPtr<MiscCtrlParam> param = UTIL_MiscAllocCtrlNode(row.text, row.lenArg);
        ASSERT_EQ(param == nullptr, row.bufLen == 0);
        if (param == nullptr) {
            EXPECT_NE(trace.Added().find("[ERROR]"), std::string::npos);
            continue;
        }
        EXPECT_EQ(param->bufLen, row.bufLen);
        std::string expected = row.text != nullptr ? std::string(row.text) + '\0' : std::string(row.bufLen, '\0');
        EXPECT_EQ(std::string(qmtest::DataOf(param.get()), row.bufLen), expected);
    }
}

}  // namespace
