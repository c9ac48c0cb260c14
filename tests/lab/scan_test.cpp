// The start-up scan and the road to readiness, end to end: the daemon's
// start-up sequence seen from the driver, the configuration files and its
// threads; the scan's batch against udev's disks and the driver's list;
// events that come while the scan runs; and a scan whose driver list
// cannot be had.
#include <cerrno>

#include <sys/syscall.h>

#include <gtest/gtest.h>

#include "flow_support.h"

namespace qmlab::flow {
namespace {

// START, GET and the events, in the order the driver received them.
std::vector<std::string> Conversation(const Requests &all)
{
    std::vector<std::string> out;
    for (const auto &r : all) {
        switch (r.op) {
        case DriverOp::Start:
        case DriverOp::Get:
            out.push_back(DriverOpName(r.op));
            break;
        case DriverOp::Add:
        case DriverOp::Remove:
        case DriverOp::Change:
            out.push_back(Req(r.op, r.DevNum()));
            break;
        default:
            break;
        }
    }
    return out;
}

// --- Failure paths first. -------------------------------------------------

TEST(ScanFailure, DriverListThatCannotBeHadEndsTheStartInOrder)
{
    struct Case {
        const char *name;
        DriverReply reply;
        const char *record;  // the misc channel's own word for it
    };
    const Case cases[] = {
        {"ioctl error", DriverReply::Fail(EIO), "get device numbers fail with ret=-1."},
        {"refused status", DriverReply::Status(1030), "alloc devnums fail with ret{1030}."},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Lab lab;
        lab.testbed().AddLocalDisk();
        lab.driver().SetDefault(DriverOp::Get, c.reply);
        Daemon &d = lab.Start();
        // Below the destroyers' own 30 s wait: a thread that would not stop
        // shows as a hang here.
        auto status = d.WaitExit(25s);
        ASSERT_TRUE(status.has_value()) << "the daemon hangs after the failed scan";
        EXPECT_EQ(status->Describe(), "exit 1") << d.Stderr();
        EXPECT_EQ(NotifyTexts(lab), std::vector<std::string>{"STATUS=shutdown"});
        EXPECT_TRUE(LabProcesses(lab).empty()) << "something the daemon started is still running";

        // The whole batch is dropped: the disk udev has is never added.
        EXPECT_EQ(Conversation(lab.driver().Requests()), (std::vector<std::string>{"START", "GET"}));
        EXPECT_EQ(lab.driver().OpenCount(), 0) << "the device was not closed";
        auto trace = lab.TraceLog();
        std::vector<long> order;
        for (const char *text : {c.record, "ioctl inquiry failed.", "get devices from kernel failed.",
                                 "Update physical device failed.", "synchronization physical device failed."}) {
            order.push_back(IndexOf(trace, text));
            EXPECT_GE(order.back(), 0) << "no record \"" << text << "\"";
        }
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
        EXPECT_EQ(trace[order.back()].level, "ERROR");
        EXPECT_TRUE(RecordsWith(trace, "wait stop timeout").empty()) << "a thread did not stop when asked";
    }
}

// --- The start-up sequence. ---------------------------------------------------

// Held at START and again at GET, the daemon shows what it has done so far:
// the pid file before START; the configuration read after START (files
// written while START is held are the ones it uses); the three worker
// threads, created in the order handle, monitor, LVM, and the monitor
// listening before the scan; readiness only after it.
TEST(StartupOrder, StartThenConfigurationThenThreadsThenScanThenReadiness)
{
    Lab lab({.sandbox = {.vendorConfig = std::nullopt, .timeoutConfig = std::nullopt}});
    BlockDevice fc = lab.testbed().AddFcDisk();
    lab.driver().Hold(DriverOp::Start);
    lab.driver().Hold(DriverOp::Get);
    Daemon &d = lab.Start();

    ASSERT_TRUE(lab.driver().WaitHeld(1, 60s)) << d.Stderr();
    std::string pid = std::to_string(d.Pid());
    pid.push_back('\0');
    EXPECT_EQ(ReadFile(kPidFilePath), pid) << "the pid file comes before START";
    size_t threadsAtStart = ThreadCount(d.Pid());
    EXPECT_GE(threadsAtStart, 1u);
    lab.sandbox().SetVendorConfig(std::string(kDefaultVendorConfig));
    lab.sandbox().SetTimeoutConfig("dev_loss_tmo = 7\n");
    lab.driver().Release(DriverOp::Start);

    ASSERT_TRUE(lab.driver().WaitCount(DriverOp::Get, 1, 60s)) << d.Stderr();
    ASSERT_EQ(Conversation(lab.driver().Requests()), (std::vector<std::string>{"START", "GET"}));
    // At least: a sanitizer runtime may start a thread of its own on the
    // way (ThreadSanitizer's background thread).
    EXPECT_GE(ThreadCount(d.Pid()), threadsAtStart + 3) << "handle, monitor and LVM threads before the scan";
    EXPECT_EQ(lab.testbed().ListenerCount(), 1u) << "the monitor listens before the scan";
    // Created in the order handle, monitor, LVM: thread ids grow with
    // creation, and each worker shows by where it sleeps.
    long handle = 0;
    long monitorTid = 0;
    long lvm = 0;
    ASSERT_TRUE(Eventually([&] {
        handle = monitorTid = lvm = 0;
        for (const auto &[tid, nr] : ThreadSyscalls(d.Pid())) {
            if (tid == d.Pid()) {
                continue;
            }
            if (nr == SYS_futex) {
                handle = std::max(handle, tid);  // a sanitizer's own thread came first
            } else if (nr == SYS_poll || nr == SYS_ppoll) {
                monitorTid = tid;
            } else if (nr == SYS_clock_nanosleep || nr == SYS_nanosleep) {
                lvm = std::max(lvm, tid);  // the last created of the sleepers
            }
        }
        return handle != 0 && monitorTid != 0 && lvm != 0;
    }, 10s));
    EXPECT_LT(handle, monitorTid);
    EXPECT_LT(monitorTid, lvm);
    auto trace = lab.TraceLog();
    long started = IndexOf(trace, "Success to trigger ioctl");
    long monitor = IndexOf(trace, "start monitor udev event.");
    ASSERT_GE(started, 0);
    EXPECT_GT(monitor, started);
    EXPECT_LT(IndexOf(trace, "qmudev start successfully"), 0);
    EXPECT_TRUE(NotifyTexts(lab).empty()) << "readiness before the scan";
    // Read once, before the scan: a later change is not seen.
    lab.sandbox().SetTimeoutConfig("dev_loss_tmo = 9\n");
    lab.driver().Release(DriverOp::Get);

    auto ready = lab.WaitNotify("READY=1", 60s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    auto gets = lab.driver().Requests(DriverOp::Get);
    ASSERT_EQ(gets.size(), 1u);
    EXPECT_GT(ready->stamp.seq, gets[0].stamp.seq);
    ASSERT_TRUE(lab.testbed().WaitAttributeWrites(2, 30s));
    EXPECT_EQ(lab.testbed().Attribute(fc.transport, "dev_loss_tmo"), "7");
    EXPECT_TRUE(d.Running());
}

// --- The scan's batch. ---------------------------------------------------------

TEST(ScanBatch, AddsForUdevsDisksThenRemovesForWhatOnlyTheDriverHolds)
{
    Lab lab;
    BlockDevice sda = lab.testbed().AddLocalDisk({.target = 0});
    BlockDevice sdb = lab.testbed().AddLocalDisk({.target = 1});
    ASSERT_EQ(sda.DevNum(), "8:0");
    ASSERT_EQ(sdb.DevNum(), "8:16");
    // Two blanks between the numbers: the same as one.
    lab.driver().SetDeviceListText("8:16  8:32");
    Daemon &d = lab.Start();
    auto ready = lab.WaitNotify("READY=1", 60s);
    ASSERT_TRUE(ready.has_value()) << d.Stderr();
    ASSERT_TRUE(lab.driver().WaitFor(
        [](const Requests &all) { return CountAnswered(all, DriverOp::Remove, "8:32") == 1; }, 30s));

    auto all = lab.driver().Requests();
    EXPECT_EQ(Conversation(all),
              (std::vector<std::string>{"START", "GET", "ADD 8:0", "ADD 8:16", "REMOVE 8:32"}));
    for (const auto &r : all) {
        if (r.op == DriverOp::Add || r.op == DriverOp::Remove) {
            EXPECT_LT(r.stamp.seq, ready->stamp.seq) << DriverOpName(r.op) << " " << r.text << " after READY=1";
        }
    }
    auto removes = lab.driver().Requests(DriverOp::Remove);
    ASSERT_EQ(removes.size(), 1u);
    EXPECT_EQ(removes[0].text, "8:32");
}

TEST(ScanBatch, EventsThatComeDuringTheScanAreHandledAfterItsBatch)
{
    Lab lab;
    Live live(lab);
    Testbed &tb = lab.testbed();
    BlockDevice sda = tb.AddLocalDisk({.target = 0});
    BlockDevice sdb = tb.AddLocalDisk({.target = 1});
    lab.driver().SetDeviceListText("8:240");
    lab.driver().Hold(DriverOp::Get);
    Daemon &d = live.Start();
    ASSERT_TRUE(lab.driver().WaitHeld(1, 60s)) << d.Stderr();

    // udev's disks are enumerated by now; these two are new to the scan.
    BlockDevice sdc = tb.AddLocalDisk({.target = 2});
    BlockDevice sdd = tb.AddLocalDisk({.target = 3});
    ASSERT_TRUE(live.Send(sdc, "add"));
    ASSERT_TRUE(live.Send(sdd, "add"));
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 0u) << "live events handled before the scan's";
    lab.driver().Release(DriverOp::Get);

    ASSERT_TRUE(live.WaitAnswered(DriverOp::Add, sdd.DevNum())) << d.Stderr();
    EXPECT_EQ(Conversation(lab.driver().Requests()),
              (std::vector<std::string>{"START", "GET", Req(DriverOp::Add, sda.DevNum()),
                                        Req(DriverOp::Add, sdb.DevNum()), "REMOVE 8:240",
                                        Req(DriverOp::Add, sdc.DevNum()), Req(DriverOp::Add, sdd.DevNum())}));
    EXPECT_TRUE(lab.WaitNotify("READY=1", 30s));
}

}  // namespace
}  // namespace qmlab::flow
