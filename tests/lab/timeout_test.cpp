// The transport time-outs that follow an ADD of a SCSI disk that the driver
// took as new, end to end: values from /etc/qmLinux.conf (or the defaults)
// written into the FC remote port, the iSCSI session and the SCSI device as
// the lab's sysfs shows them, only when they differ, in their fixed order;
// and what a failed or vanished target does to the rest. That they follow
// the accepted ADD and not a refused one: pipeline_test.cpp.
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// Every write into a disk's transport object and SCSI device, in order.
std::vector<std::string> DiskWrites(const Testbed &tb, const BlockDevice &disk)
{
    std::vector<std::string> out;
    for (const auto &w : tb.AttributeWrites()) {
        if (w.syspath == disk.scsiDevice || (!disk.transport.empty() && w.syspath == disk.transport)) {
            out.push_back(w.name + "=" + w.value);
        }
    }
    return out;
}

// The ERROR records, messages only or each after its function's name.
std::vector<std::string> TraceErrors(const std::vector<TraceRecord> &records, bool withFunction = false)
{
    std::vector<std::string> out;
    for (const auto &r : records) {
        if (r.level == "ERROR") {
            out.push_back(withFunction ? r.function + ": " + r.message : r.message);
        }
    }
    return out;
}

TEST(TimeoutValues, EachTransportGetsItsSettingOrTheDefaultInItsOrderAfterTheAdd)
{
    struct Row {
        const char *name;
        std::optional<std::string> config;
        const char *initialDevLoss;  // the port's value before the daemon
        // Writes expected, per disk, in order.
        std::vector<std::string> fcWrites, iscsiWrites, localWrites;
        std::vector<std::string> errors;  // the trace's ERROR records
    };
    const std::vector<Row> rows = {
        // 5, 4, 5 and 30; the port's 5 and the devices' 30 already match.
        {"no file", std::nullopt, "5", {"fast_io_fail_tmo=4"}, {"recovery_tmo=5"}, {},
         {"can't open /etc/qmLinux.conf: No such file or directory\n", "init qmLinux config fail with ret{1030}.\n"}},
        {"configured", "dev_loss_tmo = 30\nfast_io_fail_tmo=5;\nrecovery_tmo = \"20\"\nscsi_timeout=60\n", "60",
         {"dev_loss_tmo=30", "fast_io_fail_tmo=5", "timeout=60"}, {"recovery_tmo=20", "timeout=60"}, {"timeout=60"},
         {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Lab lab({.sandbox = {.timeoutConfig = row.config}});
        Testbed &tb = lab.testbed();
        BlockDevice fc = tb.AddFcDisk({.devLossTmo = row.initialDevLoss, .fastIoFailTmo = "off"});
        BlockDevice iscsi = tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1, .recoveryTmo = "120"});
        BlockDevice local = tb.AddLocalDisk({.host = 0, .target = 2});
        tb.AddNvmeNamespace(tb.AddNvmeController({.instance = 0}), {.nsIndex = 1});
        lab.driver().SetDeviceList({kEndOfScan});
        Daemon &d = lab.Start();
        ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, kEndOfScan, 1, 60s)) << d.Stderr();
        ASSERT_EQ(CountAnswered(lab.driver().Requests(), DriverOp::Add), 4u);
        ASSERT_TRUE(tb.SyncAttributeWrites());

        // The transport's first (fast_io_fail_tmo only below an established
        // dev_loss_tmo), then the device's own; nothing for the NVMe disk.
        EXPECT_EQ(DiskWrites(tb, fc), row.fcWrites);
        EXPECT_EQ(DiskWrites(tb, iscsi), row.iscsiWrites);
        EXPECT_EQ(DiskWrites(tb, local), row.localWrites);
        const size_t writes = row.fcWrites.size() + row.iscsiWrites.size() + row.localWrites.size();
        EXPECT_EQ(tb.AttributeWrites().size(), writes);
        // The lab tells a write by its change of content: the daemon's own
        // records show whether it wrote a value that was there already.
        auto trace = lab.TraceLog();
        EXPECT_EQ(RecordsWith(trace, "set udev device's attr{").size(), writes);
        EXPECT_EQ(TraceErrors(trace), row.errors);
    }
}

// EROFS is 30. A failed dev_loss_tmo skips fast_io_fail_tmo; either way the
// device's own time-out follows; every ADD counts as done. Each failure is
// recorded under the writer of its object.
TEST(TimeoutFailures, FailedOrVanishedTargetsAreLoggedAndTheRestGoesOn)
{
    struct Row {
        const char *name;
        char kind;            // 'f' FC, 'i' iSCSI, 'l' local
        const char *failing;  // the attribute whose writes fail
        std::vector<std::string> writes;
        std::vector<std::string> errors;  // "function: message"; "{}" stands for the device number
    };
    const Row rows[] = {
        {"dev_loss_tmo fails", 'f', "dev_loss_tmo", {"timeout=60"},
         {"UDEV_SetUdevDeviceAttrVal: set udev device's attr{dev_loss_tmo} val{60 to 30} fail. error{30}\n",
          "UDEV_SetFcRportTimeOut: device{{}} set rport{rport-2:0-7} dev_loss_tmo fail.\n"}},
        // The failure's second record carries the dev_loss_tmo text too.
        {"fast_io_fail_tmo fails", 'f', "fast_io_fail_tmo", {"dev_loss_tmo=30", "timeout=60"},
         {"UDEV_SetUdevDeviceAttrVal: set udev device's attr{fast_io_fail_tmo} val{off to 5} fail. error{30}\n",
          "UDEV_SetFcRportTimeOut: device{{}} set rport{rport-2:0-8} dev_loss_tmo fail.\n"}},
        {"recovery_tmo fails", 'i', "recovery_tmo", {"timeout=60"},
         {"UDEV_SetUdevDeviceAttrVal: set udev device's attr{recovery_tmo} val{120 to 20} fail. error{30}\n",
          "UDEV_SetIscsiSessionTimeOut: dev{{}} set session{session5} recovery_tmo fail.\n"}},
        {"timeout fails", 'l', "timeout", {},
         {"UDEV_SetUdevDeviceAttrVal: set udev device's attr{timeout} val{30 to 60} fail. error{30}\n",
          "UDEV_SetScsiDeviceTimeOut: device{{},0:0:2:0} set timeout fail.\n"}},
    };
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nrecovery_tmo = 20\n"
                                          "scsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    std::vector<BlockDevice> disks;
    std::vector<std::string> errors;
    for (const Row &row : rows) {
        int port = 7 + static_cast<int>(disks.size());
        disks.push_back(row.kind == 'f'   ? tb.AddFcDisk({.port = port, .target = port, .lun = 0, .devLossTmo = "60"})
                        : row.kind == 'i' ? tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1})
                                          : tb.AddLocalDisk({.host = 0, .target = 2}));
        const BlockDevice &disk = disks.back();
        tb.FailAttributeWrites(row.kind == 'l' ? disk.scsiDevice : disk.transport, row.failing);
        for (std::string e : row.errors) {
            size_t at = e.find("{}");
            errors.push_back(at == std::string::npos ? e : e.replace(at, 2, disk.DevNum()));
        }
    }
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Remove, kEndOfScan, 1, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(DiskWrites(tb, disks[i]), rows[i].writes);
        EXPECT_EQ(RequestsFor(lab.driver(), DriverOp::Add, disks[i].DevNum()).size(), 1u) << "done, not retried";
    }
    // The disks come in the scan's order, whichever it is.
    auto logged = TraceErrors(lab.TraceLog(), true);
    std::sort(logged.begin(), logged.end());
    std::sort(errors.begin(), errors.end());
    EXPECT_EQ(logged, errors);

    // A port that vanishes while the driver still holds the disk's ADD: the
    // device's own time-out still follows.
    const size_t writes = tb.AttributeWrites().size();
    lab.driver().Hold(DriverOp::Add);
    BlockDevice vanished = tb.AddFcDisk({.port = 11, .target = 3, .lun = 0});
    ASSERT_EQ(tb.Emit(vanished.syspath, "add"), 1u);
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s)) << d.Stderr();
    tb.Remove(vanished.transport);
    lab.driver().Release();
    ASSERT_TRUE(tb.WaitAttributeWrites(writes + 1, 30s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    auto lookup =
        RecordsWith(lab.TraceLog(), "device{" + vanished.DevNum() + "} port{rport-2:0-11} get udev device fail.");
    ASSERT_EQ(lookup.size(), 1u);
    EXPECT_EQ(lookup[0].function, "UDEV_SetFcRportTimeOut");
    EXPECT_EQ(DiskWrites(tb, vanished), std::vector<std::string>{"timeout=60"});
    EXPECT_EQ(IndexOf(lab.TraceLog(), "add retry udev event"), -1);
    EXPECT_TRUE(d.Running());
}

}  // namespace
}  // namespace qmlab::test
