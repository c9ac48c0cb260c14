// The transport time-outs that follow an accepted ADD of a SCSI disk, end to
// end: values from /etc/qmLinux.conf (or the defaults) written into the FC
// remote port, the iSCSI session and the SCSI device as the lab's sysfs shows
// them, only when they differ, only after the driver accepted the disk, in
// their fixed order; and what a failed or vanished target does to the rest.
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

std::vector<std::string> Sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(TimeoutValues, EachTransportGetsItsSettingOrTheDefaultInItsOrderAfterTheAdd)
{
    struct Row {
        const char *name;
        std::optional<std::string> config;
        const char *initialDevLoss;  // the port's value before the daemon
        // The values read back afterwards.
        const char *devLoss, *fastIoFail, *recovery, *timeout;
        // Writes expected, per object, in order.
        std::vector<std::string> portWrites, sessionWrites, deviceWrites;
        std::vector<std::string> errors;  // the trace's ERROR records
    };
    const std::vector<Row> rows = {
        {"configured", "dev_loss_tmo = 30\nfast_io_fail_tmo=5;\nrecovery_tmo = \"20\"\nscsi_timeout=60\n", "60", "30",
         "5", "20", "60", {"dev_loss_tmo=30", "fast_io_fail_tmo=5"}, {"recovery_tmo=20"}, {"timeout=60"}, {}},
        // 5, 4, 5 and 30; the port's 5 and the devices' 30 already match.
        {"no file", std::nullopt, "5", "5", "4", "5", "30", {"fast_io_fail_tmo=4"}, {"recovery_tmo=5"}, {},
         {"can't open /etc/qmLinux.conf: No such file or directory\n", "init qmLinux config fail with ret{1030}.\n"}},
        // Bounds are inclusive: 0 for fast_io_fail_tmo and 600 for
        // recovery_tmo are taken; 0 for dev_loss_tmo and 601 for scsi_timeout
        // are not, and their defaults stand.
        {"out of range", "dev_loss_tmo = 0\nfast_io_fail_tmo = 0\nrecovery_tmo = 600\nscsi_timeout = 601\n", "60", "5",
         "0", "600", "30", {"dev_loss_tmo=5", "fast_io_fail_tmo=0"}, {"recovery_tmo=600"}, {},
         {"get atrr{dev_loss_tmo} value{0} is out range{1, 600}.\n",
          "get atrr{scsi_timeout} value{601} is out range{1, 600}.\n"}},
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
        ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Remove, kEndOfScan, 60s)) << d.Stderr();
        ASSERT_EQ(CountAnswered(lab.driver().Requests(), DriverOp::Add), 4u);
        ASSERT_TRUE(tb.SyncAttributeWrites());

        EXPECT_EQ(tb.Attribute(fc.transport, "dev_loss_tmo"), row.devLoss);
        EXPECT_EQ(tb.Attribute(fc.transport, "fast_io_fail_tmo"), row.fastIoFail);
        EXPECT_EQ(tb.Attribute(iscsi.transport, "recovery_tmo"), row.recovery);
        // The transport's first (fast_io_fail_tmo only below an established
        // dev_loss_tmo), then the device's own.
        EXPECT_EQ(DiskWrites(tb, fc), row.portWrites + row.deviceWrites);
        EXPECT_EQ(DiskWrites(tb, iscsi), row.sessionWrites + row.deviceWrites);
        EXPECT_EQ(DiskWrites(tb, local), row.deviceWrites);
        for (const BlockDevice *disk : {&fc, &iscsi, &local}) {
            EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), row.timeout) << disk->name;
            // Written only after the driver's answer to the disk's ADD.
            auto add = RequestsFor(lab.driver(), DriverOp::Add, disk->DevNum());
            for (const auto &w : tb.AttributeWrites()) {
                if (w.syspath == disk->scsiDevice || w.syspath == disk->transport) {
                    EXPECT_LT(add.at(0).stamp.seq, w.stamp.seq) << disk->name << " " << w.name << " before its ADD";
                }
            }
        }

        // Nothing else was written (nothing for the NVMe disk), every write
        // was reported, and nothing failed.
        size_t expected = row.portWrites.size() + row.sessionWrites.size() + 3 * row.deviceWrites.size();
        EXPECT_EQ(tb.AttributeWrites().size(), expected);
        auto trace = lab.TraceLog();
        EXPECT_EQ(RecordsWith(trace, "set udev device's attr{").size(), expected);
        EXPECT_EQ(TraceErrors(trace), row.errors);
    }
}

TEST(TimeoutAfterAdd, WrittenAfter1024And1061AndNeverAfter1052)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nscsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    const std::vector<std::string> all = {"dev_loss_tmo=30", "fast_io_fail_tmo=5", "timeout=60"};
    const std::vector<std::pair<uint32_t, std::vector<std::string>>> rows = {{1024, all}, {1061, all}, {1052, {}}};
    std::vector<BlockDevice> disks;
    for (const auto &[status, writes] : rows) {
        int port = static_cast<int>(disks.size()) + 1;
        disks.push_back(tb.AddFcDisk({.port = port, .target = port, .lun = 0, .devLossTmo = "60", .fastIoFailTmo = "off"}));
        lab.driver().SetFor(DriverOp::Add, disks.back().DevNum(), DriverReply::Status(status));
    }
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Remove, kEndOfScan, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].first);
        EXPECT_EQ(DiskWrites(tb, disks[i]), rows[i].second);
        EXPECT_EQ(RequestsFor(lab.driver(), DriverOp::Add, disks[i].DevNum()).size(), 1u) << "done, not retried";
    }
    EXPECT_EQ(tb.Attribute(disks[2].transport, "dev_loss_tmo"), "60");
    EXPECT_EQ(tb.Attribute(disks[2].scsiDevice, "timeout"), "30");
}

// EROFS is 30. A failed dev_loss_tmo skips fast_io_fail_tmo; either way the
// device's own time-out follows; every ADD counts as done.
TEST(TimeoutFailures, FailedOrVanishedTargetsAreLoggedAndTheRestGoesOn)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nrecovery_tmo = 20\n"
                                          "scsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    BlockDevice lossFails = tb.AddFcDisk({.port = 7, .lun = 3, .devLossTmo = "60", .fastIoFailTmo = "off"});
    BlockDevice fastFails = tb.AddFcDisk({.port = 8, .target = 2, .lun = 0, .devLossTmo = "60", .fastIoFailTmo = "off"});
    BlockDevice iscsi = tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1});
    BlockDevice local = tb.AddLocalDisk({.host = 0, .target = 2});
    tb.FailAttributeWrites(lossFails.transport, "dev_loss_tmo");
    tb.FailAttributeWrites(fastFails.transport, "fast_io_fail_tmo");
    tb.FailAttributeWrites(iscsi.transport, "recovery_tmo");
    tb.FailAttributeWrites(local.scsiDevice, "timeout");
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(WaitAnsweredFor(lab.driver(), DriverOp::Remove, kEndOfScan, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());

    EXPECT_EQ(DiskWrites(tb, lossFails), std::vector<std::string>{"timeout=60"});
    EXPECT_EQ(tb.Attribute(lossFails.transport, "dev_loss_tmo"), "60");
    EXPECT_EQ(tb.Attribute(lossFails.transport, "fast_io_fail_tmo"), "off");
    EXPECT_EQ(DiskWrites(tb, fastFails), (std::vector<std::string>{"dev_loss_tmo=30", "timeout=60"}));
    EXPECT_EQ(tb.Attribute(fastFails.transport, "fast_io_fail_tmo"), "off");
    EXPECT_EQ(DiskWrites(tb, iscsi), std::vector<std::string>{"timeout=60"});
    EXPECT_EQ(DiskWrites(tb, local), std::vector<std::string>{});
    // Both failures of the FC pair carry the dev_loss_tmo text. The disks
    // come in the scan's order, whichever it is.
    EXPECT_EQ(Sorted(TraceErrors(lab.TraceLog())),
              Sorted({
                  "set udev device's attr{dev_loss_tmo} val{60 to 30} fail. error{30}\n",
                  "device{" + lossFails.DevNum() + "} set rport{rport-2:0-7} dev_loss_tmo fail.\n",
                  "set udev device's attr{fast_io_fail_tmo} val{off to 5} fail. error{30}\n",
                  "device{" + fastFails.DevNum() + "} set rport{rport-2:0-8} dev_loss_tmo fail.\n",
                  "set udev device's attr{recovery_tmo} val{120 to 20} fail. error{30}\n",
                  "dev{" + iscsi.DevNum() + "} set session{session5} recovery_tmo fail.\n",
                  "set udev device's attr{timeout} val{30 to 60} fail. error{30}\n",
                  "device{" + local.DevNum() + ",0:0:2:0} set timeout fail.\n",
              }));

    // A port that vanishes while the driver still holds the disk's ADD.
    lab.driver().Hold(DriverOp::Add);
    BlockDevice vanished = tb.AddFcDisk({.port = 9, .target = 3, .lun = 0});
    ASSERT_EQ(tb.Emit(vanished.syspath, "add"), 1u);
    ASSERT_TRUE(lab.driver().WaitHeld(1, 30s)) << d.Stderr();
    tb.Remove(vanished.transport);
    lab.driver().Release();
    ASSERT_TRUE(tb.WaitAttributeWrites(5, 30s)) << "the device's own time-out still follows";
    EXPECT_EQ(WritesTo(tb, vanished.scsiDevice), std::vector<std::string>{"timeout=60"});
    EXPECT_TRUE(lab.WaitTrace("device{" + vanished.DevNum() + "} port{rport-2:0-9} get udev device fail.", 10s));

    // Nothing is sent again, and the next disk is served with its time-outs.
    BlockDevice next = tb.AddFcDisk({.port = 10, .target = 4, .lun = 0, .devLossTmo = "60"});
    ASSERT_EQ(tb.Emit(next.syspath, "add"), 1u);
    ASSERT_TRUE(tb.WaitAttributeWrites(8, 30s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());
    EXPECT_EQ(tb.AttributeWrites().size(), 8u);
    EXPECT_EQ(DiskWrites(tb, next), (std::vector<std::string>{"dev_loss_tmo=30", "fast_io_fail_tmo=5", "timeout=60"}));
    for (const BlockDevice *disk : {&lossFails, &fastFails, &iscsi, &local, &vanished, &next}) {
        EXPECT_EQ(RequestsFor(lab.driver(), DriverOp::Add, disk->DevNum()).size(), 1u) << disk->name;
    }
    EXPECT_EQ(IndexOf(lab.TraceLog(), "add retry udev event"), -1);
    EXPECT_TRUE(d.Running());
}

}  // namespace
}  // namespace qmlab::test
