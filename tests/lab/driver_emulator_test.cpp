// The emulated driver and its shim, seen from a client that talks to
// /dev/misc_qmnv the way the daemon does (the ioctl probe).
#include <cerrno>

#include <gtest/gtest.h>

#include "lab_support.h"

namespace qmlab::test {
namespace {

constexpr uint32_t kOk = 1024;

// --- Failure paths first. -------------------------------------------------

TEST(DriverEmulatorOpen, FailsWithEnoentWhenTheDaemonIsNotGivenTheDriver)
{
    Lab lab;
    auto out = RunProbe(lab, {"open"}, /*driver=*/false);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Fields(out[0])["ret"], "-1");
    EXPECT_EQ(Fields(out[0])["errno"], std::to_string(ENOENT));
    EXPECT_EQ(lab.driver().Count(DriverOp::Open), 0u) << "the emulator was never reached";
}

TEST(DriverEmulatorOpen, FailsWithEnoentWhenTheDeviceIsAbsentAndRecordsTheAttempt)
{
    Lab lab;
    lab.driver().SetPresent(false);
    auto out = RunProbe(lab, {"open"});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Fields(out[0])["errno"], std::to_string(ENOENT));
    auto opens = lab.driver().Requests(DriverOp::Open);
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].ret, -1);
    EXPECT_EQ(opens[0].err, ENOENT);
}

TEST(DriverEmulatorOpen, FailsWithTheScriptedErrno)
{
    Lab lab;
    lab.driver().SetOpenError(EACCES);
    auto out = RunProbe(lab, {"open"});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Fields(out[0])["errno"], std::to_string(EACCES));
}

TEST(DriverEmulatorIoctl, ScriptedFailureGivesANegativeReturnAndErrno)
{
    struct Case {
        DriverOp op;
        std::vector<std::string> steps;
        std::string step;
    };
    const Case cases[] = {
        {DriverOp::Start, {"open", "start"}, "start"},
        {DriverOp::Add, {"open", "add", "8:16 scsi QMESH VDISK 2:0:1:3"}, "add"},
        {DriverOp::Remove, {"open", "remove", "8:16"}, "remove"},
        {DriverOp::Change, {"open", "change", "8:16"}, "change"},
        {DriverOp::Get, {"open", "get", "1024"}, "get"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(DriverOpName(c.op));
        Lab lab;
        lab.driver().SetDefault(c.op, DriverReply::Fail(EIO));
        auto out = RunProbe(lab, c.steps);
        ASSERT_EQ(out.size(), 2u);
        auto f = Fields(out[1]);
        EXPECT_EQ(f[""], c.step);
        EXPECT_EQ(f["ret"], "-1");
        EXPECT_EQ(f["errno"], std::to_string(EIO));
    }
}

TEST(DriverEmulatorIoctl, UnknownRequestNumbersFailWithEnotty)
{
    Lab lab;
    auto out = RunProbe(lab, {"open", "ioctl", "0x5401"});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(Fields(out[1])["errno"], std::to_string(ENOTTY));
    ASSERT_EQ(lab.driver().Count(DriverOp::Other), 1u);
    EXPECT_EQ(lab.driver().Requests(DriverOp::Other)[0].number, 0x5401u);
}

TEST(DriverEmulatorGet, NeverWritesPastTheCallersDataArea)
{
    Lab lab;
    lab.driver().Queue(DriverOp::Get, DriverReply::List(std::string(500, '7')));
    auto out = RunProbe(lab, {"open", "get", "16"});
    ASSERT_EQ(out.size(), 2u);
    auto f = Fields(out[1]);
    EXPECT_EQ(f["guard"], "ok");
    EXPECT_EQ(f["text"], std::string(16, '7')) << "exactly bufLen bytes come back";
    EXPECT_EQ(f["bufLen"], "16") << "bufLen is the caller's, never rewritten";
}

TEST(DriverEmulatorGet, AnswersBufferShortWithTheLengthItNeeds)
{
    Lab lab;
    std::vector<std::string> devs;
    for (int i = 0; i < 200; ++i) {
        devs.push_back("8:" + std::to_string(i * 16));
    }
    lab.driver().SetDeviceList(devs);
    std::string text;
    for (const auto &d : devs) {
        text += (text.empty() ? "" : " ") + d;
    }
    auto out = RunProbe(lab, {"open", "get", "1024", "get", std::to_string(text.size() + 1)});
    ASSERT_EQ(out.size(), 3u);
    auto small = Fields(out[1]);
    EXPECT_EQ(small["status"], "1038");
    EXPECT_EQ(small["needLen"], std::to_string(text.size()));
    EXPECT_EQ(small["guard"], "ok");
    auto big = Fields(out[2]);
    EXPECT_EQ(big["status"], std::to_string(kOk));
    EXPECT_EQ(big["dataLen"], std::to_string(text.size()));
    EXPECT_EQ(big["text"], text);
}

// --- What a working driver does. ------------------------------------------

TEST(DriverEmulatorRecord, KeepsEveryRequestInOrderWithItsText)
{
    Lab lab;
    auto out = RunProbe(lab, {"open", "start", "add", "8:16 scsi QMESH VDISK 2:0:1:3", "remove", "8:32", "change",
                              "8:48", "get", "1024", "close"});
    ASSERT_EQ(out.size(), 7u);
    ASSERT_TRUE(lab.driver().WaitCount(DriverOp::Close, 1, 10s));
    auto all = lab.driver().Requests();
    ASSERT_EQ(all.size(), 7u);
    const DriverOp order[] = {DriverOp::Open, DriverOp::Start, DriverOp::Add, DriverOp::Remove,
                              DriverOp::Change, DriverOp::Get, DriverOp::Close};
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].op, order[i]) << i;
        if (i > 0) {
            EXPECT_LT(all[i - 1].stamp.seq, all[i].stamp.seq);
        }
    }
    EXPECT_TRUE(all[1].argNull) << "START carries a null argument";
    EXPECT_EQ(all[1].number, 0xC014AC0Du);
    EXPECT_EQ(all[2].text, "8:16 scsi QMESH VDISK 2:0:1:3");
    EXPECT_EQ(all[2].DevNum(), "8:16");
    EXPECT_EQ(all[2].bufLen, all[2].text.size() + 1);
    EXPECT_EQ(all[3].text, "8:32");
    EXPECT_EQ(all[4].text, "8:48");
    EXPECT_EQ(all[5].text, "");
    EXPECT_EQ(lab.driver().OpenCount(), 0);
}

TEST(DriverEmulatorScript, AnswersPerDeviceThenQueuedThenDefault)
{
    Lab lab;
    DriverEmulator &drv = lab.driver();
    drv.SetFor(DriverOp::Add, "8:16", DriverReply::Status(1061));
    drv.SetFor(DriverOp::Remove, "8:32", DriverReply::Status(1055));
    drv.QueueFor(DriverOp::Add, "8:48", DriverReply::Status(1030));  // refused once, accepted later
    drv.SetDefault(DriverOp::Change, DriverReply::Status(1056));
    auto out = RunProbe(lab, {"open", "add", "8:16 x", "add", "8:16 x", "remove", "8:32", "remove", "8:64", "add",
                              "8:48 y", "add", "8:48 y", "change", "8:16"});
    ASSERT_EQ(out.size(), 8u);
    const char *expected[] = {"1061", "1061", "1055", "1024", "1030", "1024", "1056"};
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(Fields(out[i + 1])["status"], expected[i]) << out[i + 1];
    }
}

TEST(DriverEmulatorScript, GrowingNeedLenIsAnsweredInTurn)
{
    Lab lab;
    lab.driver().SetDeviceList({"8:0", "8:16"});
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(2000));
    lab.driver().Queue(DriverOp::Get, DriverReply::BufferShort(4000));
    auto out = RunProbe(lab, {"open", "get", "1024", "get", "2001", "get", "4001"});
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(Fields(out[1])["needLen"], "2000");
    EXPECT_EQ(Fields(out[2])["needLen"], "4000");
    EXPECT_EQ(Fields(out[3])["text"], "8:0 8:16");
    auto gets = lab.driver().Requests(DriverOp::Get);
    ASSERT_EQ(gets.size(), 3u);
    EXPECT_EQ(gets[1].bufLen, 2001u);
    EXPECT_EQ(gets[2].bufLen, 4001u);
}

TEST(DriverEmulatorHold, HeldRequestBlocksItsCallerButNotAnotherRequest)
{
    Lab lab;
    DriverEmulator &drv = lab.driver();
    drv.Hold(DriverOp::Add);
    DaemonOptions holder;
    holder.binary = IoctlProbePath();
    holder.args = {"open", "add", "8:16 held"};
    Daemon &blocked = lab.Start(holder);
    ASSERT_TRUE(drv.WaitHeld(1, 10s));

    drv.SetDeviceList({"8:16"});
    auto out = RunProbe(lab, {"open", "get", "1024"});  // answered while the add is held
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(Fields(out[1])["text"], "8:16");
    EXPECT_TRUE(blocked.Running());
    EXPECT_FALSE(drv.Requests(DriverOp::Add)[0].answered);

    drv.Release();
    auto status = blocked.WaitExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_NE(blocked.Stdout().find("add ret=0 errno=0 status=1024"), std::string::npos) << blocked.Stdout();
    EXPECT_EQ(drv.HeldCount(), 0u);
    EXPECT_TRUE(drv.Requests(DriverOp::Add)[0].answered);
}

}  // namespace
}  // namespace qmlab::test
