// Memory at the daemon's orderly end. The daemon stops in order only from
// inside: a worker thread that ends sets the stop flag, the main loop
// leaves, the threads are stopped, the lists and the configuration are
// released and main returns 0. Here the monitor thread ends on a failed
// poll (the lab's fault switch) after start-up and a few events of every
// kind, with one node still waiting for a retry on the handle thread's
// working list (every ADD of its disk is refused).
//
// In the ASan+UBSan build LeakSanitizer runs at that exit; the lab turns
// every sanitizer report in a daemon's standard error into a test failure,
// and LeakSanitizer's thread log (log_threads=1) shows that the check ran
// at all. In the plain and TSan builds the same scenario checks the
// orderly end itself (and, under TSan, the tear-down's memory accesses).
//
// The daemon's clock is not sped up here: nothing in the scenario waits for
// the two-minute retry. Wake-ups of the handle thread lost while it was busy
// are made up for by harmless events (a loop device's change, dropped by the
// daemon).
#include <cerrno>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// Whether the daemon that the lab runs carries AddressSanitizer.
bool DaemonUnderAsan()
{
    std::ifstream in(DaemonBinaryPath(), std::ios::binary);
    std::string binary((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return binary.find("__asan_init") != std::string::npos;
}

TEST(LeakCheck, OrderlyStopAfterEventsOfEveryKindLeavesNoLeak)
{
    Lab lab;
    Testbed &tb = lab.testbed();
    BlockDevice fc = tb.AddFcDisk({.host = 2, .port = 7, .lun = 1});
    BlockDevice iscsi = tb.AddIscsiDisk({.session = 5, .lun = 1});
    NvmeController ctrl = tb.AddNvmeController({.instance = 0});
    BlockDevice nvme = tb.AddNvmeNamespace(ctrl, {.nsIndex = 1});
    BlockDevice refused = tb.AddLocalDisk();
    BlockDevice foreign = tb.AddLocalDisk({.target = 1, .id = {.vendor = "OTHER", .model = "DISK"}});
    lab.driver().SetFor(DriverOp::Add, refused.DevNum(), DriverReply::Status(1030));
    lab.driver().SetDeviceList({kEndOfScan});  // the driver has it, udev does not: the scan removes it

    const bool asan = DaemonUnderAsan();
    DaemonOptions options;
    if (asan) {
        options.env = {{"LSAN_OPTIONS", "log_threads=1"}};
    }
    Live live(lab);
    Daemon &d = live.Start(options);
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    auto answered = [](const Requests &all, DriverOp op, const std::string &devNum) {
        return CountAnswered(all, op, devNum) > 0;
    };
    ASSERT_TRUE(live.WaitRequests(
        [&](const Requests &all) {
            return answered(all, DriverOp::Add, fc.DevNum()) && answered(all, DriverOp::Add, iscsi.DevNum()) &&
                   answered(all, DriverOp::Add, nvme.DevNum()) && answered(all, DriverOp::Add, refused.DevNum()) &&
                   answered(all, DriverOp::Remove, kEndOfScan);
        },
        60s))
        << d.Stderr();
    // The refused ADD's node is kept for a retry two minutes later.
    const std::string retryRecord = "add retry udev event add(" + refused.DevNum() + ")";
    ASSERT_TRUE(lab.WaitTrace(retryRecord, 10s));

    // Live events: a new disk, a change, a removal, and events the daemon
    // drops (a loop device, an action it does not handle, a foreign vendor).
    BlockDevice hot = tb.AddFcDisk({.host = 2, .port = 7, .lun = 2});
    ASSERT_EQ(tb.Emit(hot.syspath, "add"), 1u);
    ASSERT_EQ(tb.Emit(nvme.syspath, "change"), 1u);
    ASSERT_EQ(tb.RemoveAndEmit(iscsi.syspath), 1u);
    ASSERT_EQ(tb.Emit(fc.syspath, "move"), 1u);
    ASSERT_EQ(tb.Emit(foreign.syspath, "add"), 1u);
    ASSERT_TRUE(live.WaitRequests(
        [&](const Requests &all) {
            return answered(all, DriverOp::Add, hot.DevNum()) && answered(all, DriverOp::Change, nvme.DevNum()) &&
                   answered(all, DriverOp::Remove, iscsi.DevNum());
        },
        60s))
        << d.Stderr();

    // The orderly stop.
    ASSERT_TRUE(d.WaitMonitorIdle(30s));
    d.FailNextPoll(ENOMEM);
    live.Nudge();
    auto status = d.WaitExit(60s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not stop after its monitor thread ended";
    EXPECT_EQ(status->Describe(), "exit 0") << d.Stderr();
    EXPECT_EQ(NotifyTexts(lab), (std::vector<std::string>{"READY=1", "STATUS=shutdown"}));
    EXPECT_TRUE(TraceContains(lab.TraceLog(), "poll func run failed."));

    const std::string err = d.Stderr();
    EXPECT_TRUE(SanitizerReports(err).empty()) << err;
    if (asan) {
        EXPECT_NE(err.find("Processing thread"), std::string::npos)
            << "no sign that LeakSanitizer looked at the daemon's exit:\n"
            << err;
    }
}

}  // namespace
}  // namespace qmlab::test
