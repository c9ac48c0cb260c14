// The lab's fault tools, checked on their own: sanitizer reports found in a
// program's standard error, attribute writes that fail, the gate that holds
// a first open, and the sync point of the attribute watcher.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>
#include <libudev.h>

#include "lab_support.h"
#include "raii.h"

namespace qmlab::test {
namespace {

// --- Sanitizer reports. ------------------------------------------------------

TEST(LabSanitizerReports, EachReportIsCutAtItsSummaryLine)
{
    const std::string err =
        "qmudev: a line of the program's own\n"
        "=================================================================\n"
        "==42==ERROR: AddressSanitizer: heap-use-after-free on address 0x1\n"
        "    #0 0x1 in main\n"
        "SUMMARY: AddressSanitizer: heap-use-after-free x.cpp:1 in main\n"
        "between the reports\n"
        "WARNING: ThreadSanitizer: data race (pid=42)\n"
        "  Write of size 4\n"
        "SUMMARY: ThreadSanitizer: data race x.cpp:2 in f\n"
        "x.cpp:3:5: runtime error: signed integer overflow\n";
    auto reports = SanitizerReports(err);
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0].rfind("==42==ERROR: AddressSanitizer", 0), 0u) << reports[0];
    EXPECT_NE(reports[0].find("SUMMARY: AddressSanitizer"), std::string::npos);
    EXPECT_EQ(reports[0].find("between the reports"), std::string::npos);
    EXPECT_EQ(reports[1].rfind("WARNING: ThreadSanitizer", 0), 0u) << reports[1];
    EXPECT_EQ(reports[2], "x.cpp:3:5: runtime error: signed integer overflow\n");
    EXPECT_TRUE(SanitizerReports("qmudev: nothing wrong\n").empty());
}

std::mutex g_seenMu;
std::vector<std::string> g_seen;

TEST(LabSanitizerReports, AReportOfAProgramReachesTheHandlerWhenItEnds)
{
    {
        std::lock_guard<std::mutex> lock(g_seenMu);
        g_seen.clear();
    }
    SanitizerReportHandler previous = SetSanitizerReportHandler([](const std::string &, const std::string &report) {
        std::lock_guard<std::mutex> lock(g_seenMu);
        g_seen.push_back(report);
    });
    {
        Lab lab;
        DaemonOptions opts;
        opts.binary = "/bin/sh";
        opts.args = {"-c", "echo '==7==ERROR: LeakSanitizer: detected memory leaks' >&2; exit 1"};
        Daemon &d = lab.Start(opts);
        ASSERT_TRUE(d.WaitExit(30s).has_value());
    }
    SetSanitizerReportHandler(previous);
    std::lock_guard<std::mutex> lock(g_seenMu);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0], "==7==ERROR: LeakSanitizer: detected memory leaks\n");
}

// --- Attribute faults and the watcher's sync point. ---------------------------

TEST(LabAttributeFaults, FailedWriteIsErofsAndTheValueStays)
{
    Lab lab;
    BlockDevice d = lab.testbed().AddFcDisk({.devLossTmo = "60"});
    lab.testbed().FailAttributeWrites(d.transport, "dev_loss_tmo");
    UdevPtr udev(udev_new());
    UdevDevicePtr port(udev_device_new_from_subsystem_sysname(udev.get(), "fc_remote_ports", "rport-2:0-7"));
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(udev_device_set_sysattr_value(port.get(), "dev_loss_tmo", "5"), -EROFS);
    EXPECT_EQ(udev_device_set_sysattr_value(port.get(), "fast_io_fail_tmo", "4"), 0) << "only that attribute";
    ASSERT_TRUE(lab.testbed().SyncAttributeWrites());
    EXPECT_EQ(lab.testbed().Attribute(d.transport, "dev_loss_tmo"), "60");
    ASSERT_EQ(lab.testbed().AttributeWrites().size(), 1u) << "the sync point has seen the write before it";
    EXPECT_EQ(lab.testbed().AttributeWrites()[0].name, "fast_io_fail_tmo");
}

TEST(LabOpenGate, FirstOpenIsHeldUntilTheActionHasRun)
{
    Lab lab;
    BlockDevice d = lab.testbed().AddLocalDisk();
    std::mutex mu;
    std::condition_variable cv;
    bool entered = false;
    bool release = false;
    lab.testbed().OnFirstOpen(d.scsiDevice, "vendor", [&] {
        std::unique_lock<std::mutex> lock(mu);
        entered = true;
        cv.notify_all();
        cv.wait(lock, [&] { return release; });
    });
    DaemonOptions opts;
    opts.binary = "/bin/cat";
    opts.args = {lab.testbed().Root() + d.scsiDevice + "/vendor"};
    Daemon &cat = lab.Start(opts);
    {
        std::unique_lock<std::mutex> lock(mu);
        ASSERT_TRUE(cv.wait_for(lock, 30s, [&] { return entered; }));
    }
    EXPECT_TRUE(cat.Running()) << "the open went through before the action ended";
    {
        std::lock_guard<std::mutex> lock(mu);
        release = true;
        cv.notify_all();
    }
    auto status = cat.WaitExit(30s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->Describe(), "exit 0");
    EXPECT_EQ(cat.Stdout(), "QMESH   \n");
    EXPECT_TRUE(lab.testbed().WaitFirstOpen(1s));
}

}  // namespace
}  // namespace qmlab::test
