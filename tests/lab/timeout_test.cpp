// The transport time-outs that follow an accepted ADD of a SCSI disk, end to
// end: values from /etc/qmLinux.conf (or the defaults) written into the FC
// remote port, the iSCSI session and the SCSI device as the lab's sysfs
// shows them, only when they differ, only after the driver accepted the
// disk, in their fixed order.
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace qmlab::test {
namespace {

// Held by the driver and no longer by udev: the scan's REMOVE for it is
// dispatched after every ADD of the batch, and the handle thread finishes
// an ADD (time-outs included) before it dispatches the next node. Its
// answer therefore says that every time-out of the scan has been written.
constexpr const char *kEndOfScan = "8:240";

struct Topology {
    BlockDevice fc;
    BlockDevice iscsi;
    BlockDevice local;
    BlockDevice nvme;
};

Topology BuildTopology(Testbed &tb, const std::string &devLossTmo = "60")
{
    Topology t;
    t.fc = tb.AddFcDisk({.host = 2, .channel = 0, .port = 7, .target = 1, .lun = 3, .devLossTmo = devLossTmo,
                         .fastIoFailTmo = "off"});
    t.iscsi = tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1, .recoveryTmo = "120"});
    t.local = tb.AddLocalDisk({.host = 0, .target = 2});
    NvmeController c = tb.AddNvmeController({.instance = 0});
    t.nvme = tb.AddNvmeNamespace(c, {.nsIndex = 1});
    return t;
}

bool WaitEndOfScan(Lab &lab, Clock::duration timeout)
{
    return WaitAnsweredFor(lab.driver(), DriverOp::Remove, kEndOfScan, timeout);
}

// --- Values: configured, defaulted, out of range. --------------------------

TEST(TimeoutValues, EachTransportGetsItsSettingOrTheDefault)
{
    struct Row {
        const char *name;
        std::optional<std::string> config;
        const char *initialDevLoss;  // the port's value before the daemon
        // The values read back afterwards: dev_loss, fast_io_fail, recovery, timeout.
        const char *devLoss;
        const char *fastIoFail;
        const char *recovery;
        const char *timeout;
        // Writes expected, per object, in order.
        std::vector<std::string> portWrites;
        std::vector<std::string> sessionWrites;
        std::vector<std::string> timeoutWrites;  // of each SCSI device
        std::vector<std::string> errors;         // the trace's ERROR records
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
        Topology t = BuildTopology(tb, row.initialDevLoss);
        lab.driver().SetDeviceList({kEndOfScan});
        Daemon &d = lab.Start();
        ASSERT_TRUE(WaitEndOfScan(lab, 60s)) << d.Stderr();
        ASSERT_EQ(Answered(lab.driver(), DriverOp::Add).size(), 4u);
        ASSERT_TRUE(tb.SyncAttributeWrites());

        EXPECT_EQ(tb.Attribute(t.fc.transport, "dev_loss_tmo"), row.devLoss);
        EXPECT_EQ(tb.Attribute(t.fc.transport, "fast_io_fail_tmo"), row.fastIoFail);
        EXPECT_EQ(tb.Attribute(t.iscsi.transport, "recovery_tmo"), row.recovery);
        for (const BlockDevice *disk : {&t.fc, &t.iscsi, &t.local}) {
            EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), row.timeout) << disk->name;
            EXPECT_EQ(WritesTo(tb, disk->scsiDevice), row.timeoutWrites) << disk->name;
        }
        EXPECT_EQ(WritesTo(tb, t.fc.transport), row.portWrites);
        EXPECT_EQ(WritesTo(tb, t.iscsi.transport), row.sessionWrites);

        // Nothing else was written, nothing was looked up for the NVMe disk,
        // every write the daemon made it also reported, and nothing failed.
        size_t expected = row.portWrites.size() + row.sessionWrites.size() + 3 * row.timeoutWrites.size();
        EXPECT_EQ(tb.AttributeWrites().size(), expected);
        auto trace = lab.TraceLog();
        EXPECT_EQ(TraceCount(trace, "set udev device's attr{"), expected);
        EXPECT_EQ(TraceErrors(trace), row.errors);
    }
}

TEST(TimeoutValues, PortThenSessionThenDeviceInTheirFixedOrder)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nscsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    BlockDevice fc = tb.AddFcDisk({.devLossTmo = "60", .fastIoFailTmo = "off"});
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitEndOfScan(lab, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());

    std::vector<std::string> order;
    for (const auto &w : tb.AttributeWrites()) {
        order.push_back(w.name + "=" + w.value);
    }
    // fast_io_fail_tmo only below an established dev_loss_tmo; the device's
    // own time-out after its transport's.
    EXPECT_EQ(order, (std::vector<std::string>{"dev_loss_tmo=30", "fast_io_fail_tmo=5", "timeout=60"}));
    auto add = Answered(lab.driver(), DriverOp::Add);
    ASSERT_EQ(add.size(), 1u);
    EXPECT_LT(add[0].stamp.seq, tb.AttributeWrites().front().stamp.seq) << "written only after the driver answered";
}

// --- Only after the driver accepted the disk. -------------------------------

TEST(TimeoutAfterAdd, WrittenAfter1024And1061AndNeverAfter1052)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nscsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    std::vector<BlockDevice> disks;
    for (int port = 1; port <= 4; ++port) {
        disks.push_back(tb.AddFcDisk({.port = port, .target = port, .lun = 0, .devLossTmo = "60", .fastIoFailTmo = "off"}));
    }
    // Whichever disk comes first gets the first answer; the last one, taken,
    // marks the end: the handle thread finishes one ADD before the next.
    for (uint32_t status : {1024u, 1061u, 1052u, 1024u}) {
        lab.driver().Queue(DriverOp::Add, DriverReply::Status(status));
    }
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, 4, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.WaitAttributeWrites(9, 30s)) << "three disks, three writes each";
    ASSERT_TRUE(tb.SyncAttributeWrites());

    for (const auto &add : Answered(lab.driver(), DriverOp::Add)) {
        const BlockDevice *disk = nullptr;
        for (const auto &b : disks) {
            if (b.DevNum() == add.DevNum()) {
                disk = &b;
            }
        }
        ASSERT_NE(disk, nullptr) << add.text;
        SCOPED_TRACE(std::to_string(add.status) + " for " + disk->name);
        if (add.status == 1052) {
            EXPECT_EQ(WritesTo(tb, disk->transport), std::vector<std::string>{});
            EXPECT_EQ(WritesTo(tb, disk->scsiDevice), std::vector<std::string>{});
            EXPECT_EQ(tb.Attribute(disk->transport, "dev_loss_tmo"), "60");
            EXPECT_EQ(tb.Attribute(disk->scsiDevice, "timeout"), "30");
        } else {
            EXPECT_EQ(WritesTo(tb, disk->transport), (std::vector<std::string>{"dev_loss_tmo=30", "fast_io_fail_tmo=5"}));
            EXPECT_EQ(WritesTo(tb, disk->scsiDevice), std::vector<std::string>{"timeout=60"});
        }
    }
    EXPECT_EQ(tb.AttributeWrites().size(), 9u);
    EXPECT_FALSE(TraceContains(lab.TraceLog(), "add retry udev event")) << "1052 counts as done";
    EXPECT_EQ(lab.driver().Count(DriverOp::Add), 4u);
}

TEST(TimeoutAfterAdd, NothingIsWrittenForARefusedAddUntilItIsAccepted)
{
    Lab lab({.sandbox = {.timeoutConfig = "scsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    BlockDevice disk = tb.AddLocalDisk();
    lab.driver().QueueFor(DriverOp::Add, disk.DevNum(), DriverReply::Status(1030));
    Daemon &d = lab.Start({.timeSpeed = 20});
    ASSERT_TRUE(WaitAnswered(lab.driver(), DriverOp::Add, 2, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.WaitAttributeWrites(1, 30s));
    ASSERT_TRUE(tb.SyncAttributeWrites());
    auto writes = tb.AttributeWrites();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].name + "=" + writes[0].value, "timeout=60");
    auto adds = Answered(lab.driver(), DriverOp::Add);
    EXPECT_EQ(adds[0].status, 1030u);
    EXPECT_LT(adds[1].stamp.seq, writes[0].stamp.seq) << "only the accepted ADD is followed by the write";
}

// --- A write that fails. ------------------------------------------------------

TEST(TimeoutFcPair, FailedDevLossWriteStopsThePairFailedFastFailDoesNot)
{
    Lab lab({.sandbox = {.timeoutConfig = "dev_loss_tmo = 30\nfast_io_fail_tmo = 5\nscsi_timeout = 60\n"}});
    Testbed &tb = lab.testbed();
    BlockDevice lossFails = tb.AddFcDisk({.port = 7, .lun = 3, .devLossTmo = "60", .fastIoFailTmo = "off"});
    BlockDevice fastFails = tb.AddFcDisk({.port = 8, .target = 2, .lun = 0, .devLossTmo = "60", .fastIoFailTmo = "off"});
    tb.FailAttributeWrites(lossFails.transport, "dev_loss_tmo");
    tb.FailAttributeWrites(fastFails.transport, "fast_io_fail_tmo");
    lab.driver().SetDeviceList({kEndOfScan});
    Daemon &d = lab.Start();
    ASSERT_TRUE(WaitEndOfScan(lab, 60s)) << d.Stderr();
    ASSERT_TRUE(tb.SyncAttributeWrites());

    // dev_loss_tmo refused: fast_io_fail_tmo is not even tried.
    EXPECT_EQ(WritesTo(tb, lossFails.transport), std::vector<std::string>{});
    EXPECT_EQ(tb.Attribute(lossFails.transport, "dev_loss_tmo"), "60");
    EXPECT_EQ(tb.Attribute(lossFails.transport, "fast_io_fail_tmo"), "off");
    // dev_loss_tmo taken, fast_io_fail_tmo refused.
    EXPECT_EQ(WritesTo(tb, fastFails.transport), std::vector<std::string>{"dev_loss_tmo=30"});
    EXPECT_EQ(tb.Attribute(fastFails.transport, "fast_io_fail_tmo"), "off");
    // Either way the device's own time-out follows.
    EXPECT_EQ(WritesTo(tb, lossFails.scsiDevice), std::vector<std::string>{"timeout=60"});
    EXPECT_EQ(WritesTo(tb, fastFails.scsiDevice), std::vector<std::string>{"timeout=60"});

    // EROFS is 30; both failures of the pair carry the dev_loss_tmo text.
    EXPECT_EQ(TraceErrors(lab.TraceLog()),
              (std::vector<std::string>{
                  "set udev device's attr{dev_loss_tmo} val{60 to 30} fail. error{30}\n",
                  "device{" + lossFails.DevNum() + "} set rport{rport-2:0-7} dev_loss_tmo fail.\n",
                  "set udev device's attr{fast_io_fail_tmo} val{off to 5} fail. error{30}\n",
                  "device{" + fastFails.DevNum() + "} set rport{rport-2:0-8} dev_loss_tmo fail.\n",
              }));
    EXPECT_FALSE(TraceContains(lab.TraceLog(), "add retry udev event")) << "the ADD is done all the same";
}

}  // namespace
}  // namespace qmlab::test
