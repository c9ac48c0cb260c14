// Generated testbeds seen through the real libudev, the way the daemon
// looks at them: lookups by subsystem and name, parents, attributes,
// properties, enumeration, attribute writes, and events.
#include <atomic>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <libudev.h>
#include <poll.h>

#include "lab_support.h"
#include "raii.h"

namespace qmlab::test {
namespace {

std::string Str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("(null)");
}

class TestbedTest : public ::testing::Test {
protected:
    Lab lab;
    UdevPtr udev{udev_new()};

    UdevDevicePtr Lookup(const char *subsystem, const std::string &name)
    {
        return UdevDevicePtr(udev_device_new_from_subsystem_sysname(udev.get(), subsystem, name.c_str()));
    }
};

// --- Failure paths first. -------------------------------------------------

TEST_F(TestbedTest, EmitWithoutListenerReachesNobodyAndRemovedDeviceIsGone)
{
    BlockDevice d = lab.testbed().AddFcDisk();
    EXPECT_EQ(lab.testbed().ListenerCount(), 0u);
    EXPECT_EQ(lab.testbed().Emit(d.syspath, "add", 1s), 0u);
    lab.testbed().Remove(d.syspath);
    EXPECT_EQ(Lookup("block", d.name), nullptr);
}

// --- Topologies. ----------------------------------------------------------

TEST_F(TestbedTest, FcDiskHasTheTopologyOfARealHost)
{
    BlockDevice d = lab.testbed().AddFcDisk({.host = 2, .channel = 0, .port = 7, .target = 1, .lun = 3});
    EXPECT_EQ(d.hctl, "2:0:1:3");
    UdevDevicePtr block = Lookup("block", d.name);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Str(udev_device_get_devtype(block.get())), "disk");
    EXPECT_EQ(Str(udev_device_get_property_value(block.get(), "MAJOR")), std::to_string(d.major));
    EXPECT_EQ(Str(udev_device_get_property_value(block.get(), "MINOR")), std::to_string(d.minor));
    EXPECT_EQ(Str(udev_device_get_property_value(block.get(), "ID_WWN_WITH_EXTENSION")), d.wwn);
    EXPECT_EQ(d.wwn.size(), 34u);

    // block -> scsi_device -> scsi_target -> rport (no subsystem) -> host.
    std::vector<std::string> chain;
    for (udev_device *p = udev_device_get_parent(block.get()); p != nullptr; p = udev_device_get_parent(p)) {
        chain.push_back(Str(udev_device_get_sysname(p)) + "/" + Str(udev_device_get_subsystem(p)) + "/" +
                        Str(udev_device_get_devtype(p)));
    }
    ASSERT_GE(chain.size(), 4u);
    EXPECT_EQ(chain[0], "2:0:1:3/scsi/scsi_device");
    EXPECT_EQ(chain[1], "target2:0:1/scsi/scsi_target");
    EXPECT_EQ(chain[2], "rport-2:0-7/(null)/(null)");
    EXPECT_EQ(chain[3], "host2/scsi/scsi_host");

    UdevDevicePtr lun = Lookup("scsi", "2:0:1:3");
    ASSERT_NE(lun, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(lun.get(), "vendor")), "QMESH   ");
    EXPECT_EQ(Str(udev_device_get_sysattr_value(lun.get(), "model")), "VDISK           ");
    EXPECT_EQ(Str(udev_device_get_sysattr_value(lun.get(), "timeout")), "30");

    UdevDevicePtr port = Lookup("fc_remote_ports", "rport-2:0-7");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(port.get(), "dev_loss_tmo")), "30");
    EXPECT_EQ(Str(udev_device_get_sysattr_value(port.get(), "fast_io_fail_tmo")), "off");
}

TEST_F(TestbedTest, IscsiDiskIsFoundThroughItsSession)
{
    BlockDevice d = lab.testbed().AddIscsiDisk({.host = 3, .session = 5, .channel = 0, .target = 0, .lun = 1});
    UdevDevicePtr block = Lookup("block", d.name);
    ASSERT_NE(block, nullptr);
    bool sawSession = false;
    for (udev_device *p = udev_device_get_parent(block.get()); p != nullptr; p = udev_device_get_parent(p)) {
        sawSession = sawSession || Str(udev_device_get_sysname(p)) == "session5";
    }
    EXPECT_TRUE(sawSession);
    UdevDevicePtr session = Lookup("iscsi_session", "session5");
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(session.get(), "recovery_tmo")), "120");
    ASSERT_NE(Lookup("scsi", "3:0:0:1"), nullptr);
}

TEST_F(TestbedTest, SharedParentsAreMadeOnce)
{
    BlockDevice a = lab.testbed().AddFcDisk({.lun = 3});
    BlockDevice b = lab.testbed().AddFcDisk({.lun = 4});
    EXPECT_NE(a.name, b.name);
    EXPECT_NE(a.DevNum(), b.DevNum());
    EXPECT_EQ(a.transport, b.transport);
    EXPECT_EQ(a.scsiDevice.substr(0, a.scsiDevice.rfind('/')), b.scsiDevice.substr(0, b.scsiDevice.rfind('/')));
}

TEST_F(TestbedTest, NvmeNamespaceHangsUnderItsController)
{
    NvmeController ctrl = lab.testbed().AddNvmeController({.instance = 3, .model = "QMESH-NVDISK", .modelPad = 40});
    BlockDevice ns = lab.testbed().AddNvmeNamespace(ctrl, {.nsIndex = 2, .wwn = "eui.0025388b91b2e5f1"});
    UdevDevicePtr block = Lookup("block", "nvme3n2");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(block.get(), "nsid")), "2");
    EXPECT_EQ(udev_device_get_sysattr_value(block.get(), "cntlid"), nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(block.get(), "hidden")), "0");
    EXPECT_EQ(Str(udev_device_get_property_value(block.get(), "ID_WWN")), "eui.0025388b91b2e5f1");
    udev_device *c = udev_device_get_parent_with_subsystem_devtype(block.get(), "nvme", nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysname(c)), "nvme3");
    std::string model = Str(udev_device_get_sysattr_value(c, "model"));
    EXPECT_EQ(model.size(), 40u);
    EXPECT_EQ(model.rfind("QMESH-NVDISK ", 0), 0u);
    EXPECT_EQ(udev_device_get_parent_with_subsystem_devtype(block.get(), "nvme-subsystem", nullptr), nullptr);
    EXPECT_EQ(ns.hctl, "3:0:2:2");
}

TEST_F(TestbedTest, NvmeVariantsUnderASubsystemAndHiddenPaths)
{
    NvmeController ctrl = lab.testbed().AddNvmeController({.instance = 0});
    NvmeSubsystem subsys = lab.testbed().AddNvmeSubsystem(0);
    lab.testbed().AddNvmeSubsystemNamespace(subsys, ctrl, {.nsIndex = 1});
    lab.testbed().AddNvmePathDevice(ctrl, 0, {.nsIndex = 1});
    UdevDevicePtr head = Lookup("block", "nvme0n1");
    ASSERT_NE(head, nullptr);
    udev_device *s = udev_device_get_parent_with_subsystem_devtype(head.get(), "nvme-subsystem", nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysname(s)), "nvme-subsys0");
    UdevDevicePtr path = Lookup("block", "nvme0c0n1");
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(Str(udev_device_get_sysattr_value(path.get(), "hidden")), "1");
}

TEST_F(TestbedTest, OtherBlockDevicesHaveTheirKernelNamesAndTypes)
{
    struct Expect {
        BlockDevice dev;
        const char *devtype;
        const char *devNum;
    };
    BlockDevice disk = lab.testbed().AddLocalDisk();
    const Expect cases[] = {
        {lab.testbed().AddPartition(disk, 1), "partition", "8:1"},
        {lab.testbed().AddLoop(0), "disk", "7:0"},
        {lab.testbed().AddDm(3), "disk", "253:3"},
        {lab.testbed().AddCdrom(0), "disk", "11:0"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dev.name);
        UdevDevicePtr d = Lookup("block", c.dev.name);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(Str(udev_device_get_devtype(d.get())), c.devtype);
        EXPECT_EQ(c.dev.DevNum(), c.devNum);
    }
}

TEST_F(TestbedTest, EnumerationOfBlockListsEveryBlockDevice)
{
    std::set<std::string> made;
    BlockDevice disk = lab.testbed().AddFcDisk();
    made.insert(disk.syspath);
    made.insert(lab.testbed().AddPartition(disk, 1).syspath);
    made.insert(lab.testbed().AddIscsiDisk().syspath);
    NvmeController ctrl = lab.testbed().AddNvmeController();
    made.insert(lab.testbed().AddNvmeNamespace(ctrl).syspath);
    made.insert(lab.testbed().AddLoop(1).syspath);

    UdevEnumeratePtr e(udev_enumerate_new(udev.get()));
    ASSERT_EQ(udev_enumerate_add_match_subsystem(e.get(), "block"), 0);
    ASSERT_EQ(udev_enumerate_scan_devices(e.get()), 0);
    std::set<std::string> seen;
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get()))
    {
        seen.insert(udev_list_entry_get_name(entry));
    }
    EXPECT_EQ(seen, made);
}

TEST_F(TestbedTest, AttributeWritesThroughLibudevAreReadBackByTheirFirstLine)
{
    BlockDevice d = lab.testbed().AddFcDisk();
    UdevDevicePtr port = Lookup("fc_remote_ports", "rport-2:0-7");
    ASSERT_NE(port, nullptr);
    ASSERT_EQ(udev_device_set_sysattr_value(port.get(), "fast_io_fail_tmo", "4"), 0);
    ASSERT_EQ(udev_device_set_sysattr_value(port.get(), "dev_loss_tmo", "5"), 0);
    ASSERT_TRUE(lab.testbed().WaitAttributeWrites(2, 10s));
    auto writes = lab.testbed().AttributeWrites();
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].name, "fast_io_fail_tmo");
    EXPECT_EQ(writes[0].value, "4");
    EXPECT_EQ(writes[0].syspath, d.transport);
    EXPECT_EQ(writes[1].name, "dev_loss_tmo");
    EXPECT_EQ(writes[1].value, "5");
    // libudev writes in place; the watcher cuts the tail of the longer old
    // value ("off") away, as sysfs would never have kept it.
    EXPECT_TRUE(Eventually([&] { return lab.testbed().RawAttribute(d.transport, "fast_io_fail_tmo") == "4\n"; }));
    UdevDevicePtr again = Lookup("fc_remote_ports", "rport-2:0-7");
    EXPECT_EQ(Str(udev_device_get_sysattr_value(again.get(), "fast_io_fail_tmo")), "4");
    EXPECT_EQ(lab.testbed().Attribute(d.transport, "dev_loss_tmo"), "5");
}

TEST_F(TestbedTest, TheLabsOwnAttributeWritesAreNotRecorded)
{
    BlockDevice d = lab.testbed().AddIscsiDisk();
    lab.testbed().SetAttribute(d.transport, "recovery_tmo", "7\n");
    UdevDevicePtr session = Lookup("iscsi_session", "session5");
    ASSERT_EQ(udev_device_set_sysattr_value(session.get(), "recovery_tmo", "9"), 0);
    ASSERT_TRUE(lab.testbed().WaitAttributeWrites(1, 10s));
    auto writes = lab.testbed().AttributeWrites();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].value, "9");
}

TEST(SdNaming, FollowsTheKernel)
{
    struct Case {
        unsigned index;
        const char *name;
        unsigned major;
        unsigned minor;
    };
    const Case cases[] = {{0, "sda", 8, 0},       {1, "sdb", 8, 16},        {15, "sdp", 8, 240},
                          {16, "sdq", 65, 0},     {25, "sdz", 65, 144},     {26, "sdaa", 65, 160},
                          {255, "sdiv", 135, 240}, {256, "sdiw", 8, 256},    {701, "sdzz", 131, 720},
                          {702, "sdaaa", 131, 736}, {4095, "sdfan", 135, 4080}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.index);
        EXPECT_EQ(SdName(c.index), c.name);
        EXPECT_EQ(SdDevNum(c.index), std::make_pair(c.major, c.minor));
    }
}

TEST(UdevHash, MatchesWhatLibudevFiltersOn)
{
    EXPECT_EQ(UdevStringHash32("block"), 0xf0031db7u);
    EXPECT_EQ(UdevStringHash32("disk"), 0x7bcbc5eeu);
}

// --- Events. --------------------------------------------------------------

// A libudev monitor in this process, filtered like the daemon's.
class Monitor {
public:
    explicit Monitor(udev *u) : mon_(udev_monitor_new_from_netlink(u, "udev"))
    {
        udev_monitor_filter_add_match_subsystem_devtype(mon_.get(), "block", "disk");
        udev_monitor_enable_receiving(mon_.get());
    }
    // The next event, or null at the deadline.
    UdevDevicePtr Next(Clock::duration timeout)
    {
        Deadline d(timeout);
        for (;;) {
            pollfd p{udev_monitor_get_fd(mon_.get()), POLLIN, 0};
            if (::poll(&p, 1, d.RemainingMs()) <= 0) {
                return nullptr;
            }
            if (udev_device *dev = udev_monitor_receive_device(mon_.get())) {
                return UdevDevicePtr(dev);
            }
        }
    }

private:
    UdevMonitorPtr mon_;
};

TEST_F(TestbedTest, EventsCarryActionAndPropertiesAndPassTheDiskFilter)
{
    Monitor mon(udev.get());
    ASSERT_TRUE(lab.testbed().WaitListeners(1, 10s));
    // Adding devices sends nothing: events are the scenario's to send.
    BlockDevice disk = lab.testbed().AddFcDisk();
    BlockDevice part = lab.testbed().AddPartition(disk, 1);
    EXPECT_EQ(lab.testbed().ListenerCount(), 1u);
    EXPECT_EQ(lab.testbed().Emit(part.syspath, "add"), 1u);  // filtered out by devtype
    EXPECT_EQ(lab.testbed().Emit(disk.syspath, "change"), 1u);
    EXPECT_EQ(lab.testbed().RemoveAndEmit(part.syspath), 1u);
    EXPECT_EQ(lab.testbed().RemoveAndEmit(disk.syspath), 1u);

    UdevDevicePtr change = mon.Next(10s);
    ASSERT_NE(change, nullptr);
    EXPECT_EQ(Str(udev_device_get_action(change.get())), "change")
        << Str(udev_device_get_sysname(change.get())) << " " << Str(udev_device_get_devtype(change.get()));
    EXPECT_EQ(Str(udev_device_get_sysname(change.get())), disk.name);
    UdevDevicePtr removed = mon.Next(10s);
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(Str(udev_device_get_action(removed.get())), "remove");
    EXPECT_EQ(Str(udev_device_get_property_value(removed.get(), "MAJOR")), std::to_string(disk.major));
    EXPECT_EQ(Str(udev_device_get_property_value(removed.get(), "MINOR")), std::to_string(disk.minor));
    EXPECT_EQ(mon.Next(200ms), nullptr) << "the partition's events never pass the filter";
}

TEST_F(TestbedTest, StormOfTenThousandEventsLosesNothing)
{
    constexpr int kDisks = 100;
    constexpr int kRounds = 100;  // 10,000 events
    std::vector<BlockDevice> disks;
    for (int i = 0; i < kDisks; ++i) {
        disks.push_back(lab.testbed().AddFcDisk({.lun = i}));
    }
    Monitor mon(udev.get());
    ASSERT_TRUE(lab.testbed().WaitListeners(1, 10s));
    std::atomic<int> received{0};
    std::atomic<bool> inOrder{true};
    std::thread reader([&] {
        long last = 0;
        while (received.load() < kDisks * kRounds) {
            UdevDevicePtr dev = mon.Next(30s);
            if (dev == nullptr) {
                return;
            }
            long seq = std::stol(Str(udev_device_get_property_value(dev.get(), "SEQNUM")));
            if (seq <= last) {
                inOrder = false;
            }
            last = seq;
            ++received;
        }
    });
    size_t delivered = 0;
    for (int r = 0; r < kRounds; ++r) {
        for (const auto &d : disks) {
            delivered += lab.testbed().Emit(d.syspath, "change");
        }
    }
    reader.join();
    EXPECT_EQ(delivered, static_cast<size_t>(kDisks * kRounds));
    EXPECT_EQ(received.load(), kDisks * kRounds);
    EXPECT_TRUE(inOrder.load());
}

}  // namespace
}  // namespace qmlab::test
