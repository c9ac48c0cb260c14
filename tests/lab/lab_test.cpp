// The lab's own properties that the end-to-end scenarios would not notice if
// they broke: the emulated driver keeps to the caller's record, the testbed's
// sysfs looks like a real host's to libudev, the attribute watcher records
// what sysfs would hold, the paced emitter loses no event, the sandbox leaves
// the host alone, and sanitizer reports become failures.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <libudev.h>
#include <poll.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qmlab/lab.h"
#include "raii.h"

namespace qmlab::test {
namespace {

std::string Str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("-");
}

// --- The emulated driver, seen from the ioctl probe. ----------------------------

// "get ret=0 status=1024 ... text=..." -> {"ret", "0"}, ...; text takes the rest.
std::map<std::string, std::string> Fields(const std::string &line)
{
    std::map<std::string, std::string> out;
    size_t text = line.find(" text=");
    if (text != std::string::npos) {
        out["text"] = line.substr(text + 6);
    }
    std::istringstream in(line.substr(0, text));
    std::string kv;
    while (in >> kv) {
        auto eq = kv.find('=');
        out[kv.substr(0, eq)] = eq == std::string::npos ? "" : kv.substr(eq + 1);
    }
    return out;
}

TEST(LabDriver, GetRepliesStayInsideTheCallersRecord)
{
    Lab lab;
    std::vector<std::string> devs;
    std::string list;
    for (int i = 0; i < 200; ++i) {
        devs.push_back("8:" + std::to_string(i * 16));
        list += (list.empty() ? "" : " ") + devs.back();
    }
    lab.driver().SetDeviceList(devs);
    lab.driver().Queue(DriverOp::Get, DriverReply::List(std::string(500, '7')));  // a reply longer than the area
    const std::string fits = std::to_string(list.size() + 1);

    DaemonOptions opts;
    opts.binary = IoctlProbePath();
    opts.args = {"open", "get", "16", "get", "1024", "get", fits};
    Daemon &probe = lab.Start(opts);
    auto status = probe.WaitExit(30s);
    ASSERT_TRUE(status.has_value());
    ASSERT_EQ(status->Describe(), "exit 0") << probe.Stderr();
    std::vector<std::map<std::string, std::string>> gets;
    std::istringstream out(probe.Stdout());
    for (std::string line; std::getline(out, line);) {
        if (line.rfind("get ", 0) == 0) {
            gets.push_back(Fields(line));
        }
    }
    struct Row {
        const char *name;
        std::string bufLen, status, needLen, text;
    };
    const Row rows[] = {
        {"data cut at bufLen", "16", "1024", "500", std::string(16, '7')},
        {"list too long: 1038 and the length it needs", "1024", "1038", std::to_string(list.size()), ""},
        {"list that fits", fits, "1024", std::to_string(list.size()), list},
    };
    ASSERT_EQ(gets.size(), std::size(rows)) << probe.Stdout();
    for (size_t i = 0; i < gets.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(gets[i]["guard"], "ok") << "written past the data area";
        EXPECT_EQ(gets[i]["bufLen"], rows[i].bufLen) << "bufLen is the caller's";
        EXPECT_EQ(gets[i]["status"], rows[i].status);
        EXPECT_EQ(gets[i]["needLen"], rows[i].needLen);
        EXPECT_EQ(gets[i]["text"], rows[i].text);
    }
}

// --- The testbed through libudev. ---------------------------------------------------

UdevDevicePtr Lookup(udev *u, const std::string &subsystem, const std::string &name)
{
    return UdevDevicePtr(udev_device_new_from_subsystem_sysname(u, subsystem.c_str(), name.c_str()));
}

TEST(LabTestbed, EachKindOfDeviceHasTheTopologyOfARealHost)
{
    struct Lookup_ {
        std::string subsystem, sysname, attribute, value;
    };
    struct Row {
        const char *name;
        std::function<BlockDevice(Testbed &)> make;
        std::string devNum, devtype;
        std::string parents;  // nearest first, "sysname/subsystem/devtype", as far as the daemon climbs
        std::vector<Lookup_> attrs;
    };
    const Row rows[] = {
        {"FC disk", [](Testbed &tb) { return tb.AddFcDisk({.host = 2, .port = 7, .target = 1, .lun = 3}); }, "8:0",
         "disk", "2:0:1:3/scsi/scsi_device target2:0:1/scsi/scsi_target rport-2:0-7/-/- host2/scsi/scsi_host",
         {{"scsi", "2:0:1:3", "vendor", "QMESH   "},
          {"scsi", "2:0:1:3", "model", "VDISK           "},
          {"scsi", "2:0:1:3", "timeout", "30"},
          {"fc_remote_ports", "rport-2:0-7", "dev_loss_tmo", "30"},
          {"fc_remote_ports", "rport-2:0-7", "fast_io_fail_tmo", "off"}}},
        {"iSCSI disk", [](Testbed &tb) { return tb.AddIscsiDisk({.host = 3, .session = 5, .lun = 1}); }, "8:16",
         "disk", "3:0:0:1/scsi/scsi_device target3:0:0/scsi/scsi_target session5/-/- host3/scsi/scsi_host",
         {{"iscsi_session", "session5", "recovery_tmo", "120"}, {"scsi", "3:0:0:1", "timeout", "30"}}},
        {"NVMe namespace",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 3, .model = "QMESH-NVDISK", .modelPad = 40});
             return tb.AddNvmeNamespace(c, {.nsIndex = 2});
         },
         "259:0", "disk", "nvme3/nvme/-",
         {{"block", "nvme3n2", "nsid", "2"},
          {"block", "nvme3n2", "hidden", "0"},
          {"block", "nvme3n2", "cntlid", "-"},
          {"nvme", "nvme3", "model", "QMESH-NVDISK" + std::string(28, ' ')}}},
        {"NVMe namespace under a subsystem",
         [](Testbed &tb) {
             NvmeController c = tb.AddNvmeController({.instance = 4});
             return tb.AddNvmeSubsystemNamespace(tb.AddNvmeSubsystem(4), c, {.nsIndex = 1});
         },
         "259:1", "disk", "nvme-subsys4/nvme-subsystem/-", {}},
        {"hidden NVMe path",
         [](Testbed &tb) { return tb.AddNvmePathDevice(tb.AddNvmeController({.instance = 5}), 0, {.nsIndex = 1}); },
         "259:2", "disk", "nvme5/nvme/-", {{"block", "nvme5c0n1", "hidden", "1"}}},
        {"partition", [](Testbed &tb) { return tb.AddPartition(tb.AddLocalDisk(), 1); }, "8:33", "partition",
         "sdc/block/disk", {}},
        {"loop", [](Testbed &tb) { return tb.AddLoop(0); }, "7:0", "disk", "", {}},
        {"device-mapper", [](Testbed &tb) { return tb.AddDm(3); }, "253:3", "disk", "", {}},
        {"CD-ROM", [](Testbed &tb) { return tb.AddCdrom(0); }, "11:0", "disk", "", {}},
    };
    Lab lab;
    std::vector<BlockDevice> made;
    for (const Row &row : rows) {
        made.push_back(row.make(lab.testbed()));
    }
    UdevPtr u(udev_new());
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE(row.name);
        UdevDevicePtr block = Lookup(u.get(), "block", made[i].name);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(made[i].DevNum(), row.devNum);
        EXPECT_EQ(Str(udev_device_get_property_value(block.get(), "MAJOR")) + ":" +
                      Str(udev_device_get_property_value(block.get(), "MINOR")),
                  row.devNum);
        EXPECT_EQ(Str(udev_device_get_devtype(block.get())), row.devtype);
        std::string parents;
        size_t depth = static_cast<size_t>(std::count(row.parents.begin(), row.parents.end(), ' ')) + 1;
        udev_device *p = udev_device_get_parent(block.get());
        for (size_t k = 0; k < depth && p != nullptr && !row.parents.empty(); ++k, p = udev_device_get_parent(p)) {
            parents += (parents.empty() ? "" : " ") + Str(udev_device_get_sysname(p)) + "/" +
                       Str(udev_device_get_subsystem(p)) + "/" + Str(udev_device_get_devtype(p));
        }
        EXPECT_EQ(parents, row.parents);
        if (!made[i].wwn.empty()) {
            const char *key = made[i].name.rfind("nvme", 0) == 0 ? "ID_WWN" : "ID_WWN_WITH_EXTENSION";
            EXPECT_EQ(Str(udev_device_get_property_value(block.get(), key)), made[i].wwn);
        }
        for (const auto &a : row.attrs) {
            UdevDevicePtr dev = Lookup(u.get(), a.subsystem, a.sysname);
            ASSERT_NE(dev, nullptr) << a.subsystem << " " << a.sysname;
            EXPECT_EQ(Str(udev_device_get_sysattr_value(dev.get(), a.attribute.c_str())), a.value)
                << a.sysname << " " << a.attribute;
        }
    }
}

TEST(LabTestbed, SdNamesAndNumbersFollowTheKernel)
{
    struct Row {
        unsigned index;
        const char *name;
        unsigned major, minor;
    };
    const Row rows[] = {{0, "sda", 8, 0},         {15, "sdp", 8, 240},      {16, "sdq", 65, 0},
                        {26, "sdaa", 65, 160},    {255, "sdiv", 135, 240},  {256, "sdiw", 8, 256},
                        {702, "sdaaa", 131, 736}, {4095, "sdfan", 135, 4080}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.index);
        EXPECT_EQ(SdName(row.index), row.name);
        EXPECT_EQ(SdDevNum(row.index), std::make_pair(row.major, row.minor));
    }
}

// libudev writes an attribute in place; the watcher records the write and
// cuts the file to what sysfs would hold. A write made read-only fails and is
// not recorded; the sync point has seen every write before it.
TEST(LabTestbed, AttributeWritesAreRecordedAsSysfsWouldHoldThem)
{
    Lab lab;
    BlockDevice d = lab.testbed().AddFcDisk({.devLossTmo = "60"});
    lab.testbed().FailAttributeWrites(d.transport, "dev_loss_tmo");
    UdevPtr u(udev_new());
    UdevDevicePtr port = Lookup(u.get(), "fc_remote_ports", "rport-2:0-7");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(udev_device_set_sysattr_value(port.get(), "dev_loss_tmo", "5"), -EROFS);
    EXPECT_EQ(udev_device_set_sysattr_value(port.get(), "fast_io_fail_tmo", "4"), 0);
    ASSERT_TRUE(lab.testbed().SyncAttributeWrites());
    auto writes = lab.testbed().AttributeWrites();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].syspath + " " + writes[0].name + "=" + writes[0].value,
              d.transport + " fast_io_fail_tmo=4");
    EXPECT_EQ(lab.testbed().RawAttribute(d.transport, "fast_io_fail_tmo"), "4\n") << "the tail of \"off\" stayed";
    EXPECT_EQ(lab.testbed().Attribute(d.transport, "dev_loss_tmo"), "60");
}

// A libudev monitor in this process, filtered like the daemon's.
class Monitor {
public:
    explicit Monitor(udev *u) : mon_(udev_monitor_new_from_netlink(u, "udev"))
    {
        udev_monitor_filter_add_match_subsystem_devtype(mon_.get(), "block", "disk");
        udev_monitor_enable_receiving(mon_.get());
    }
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

TEST(LabTestbed, PacedEmitterLosesNoneOfTenThousandEvents)
{
    constexpr int kDisks = 100;
    constexpr int kRounds = 100;
    Lab lab;
    std::vector<BlockDevice> disks;
    for (int i = 0; i < kDisks; ++i) {
        disks.push_back(lab.testbed().AddFcDisk({.lun = i}));
    }
    UdevPtr u(udev_new());
    Monitor mon(u.get());
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
            inOrder = inOrder && seq > last;
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

// --- The sandbox. ------------------------------------------------------------------

// A directory opened before the lab mounts over it stays the host's: what
// is found through it is what the host sees.
struct HostDir {
    explicit HostDir(const char *path) : fd(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    ~HostDir() { ::close(fd); }
    // "-" when missing, else the entry's identity (and a file's contents).
    std::string State(const std::string &name) const
    {
        struct stat st {};
        if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            return "-";
        }
        std::string state = std::to_string(st.st_ino) + " " + std::to_string(st.st_mode) + " " +
                            std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
                            std::to_string(st.st_mtim.tv_nsec) + " ";
        int file = S_ISREG(st.st_mode) ? ::openat(fd, name.c_str(), O_RDONLY | O_CLOEXEC) : -1;
        for (char buf[256]; file >= 0;) {
            ssize_t n = ::read(file, buf, sizeof(buf));
            if (n <= 0) {
                ::close(file);
                break;
            }
            state.append(buf, static_cast<size_t>(n));
        }
        return state;
    }
    int fd;
};

TEST(LabSandbox, TheHostsEtcRunOptUsrAndDevAreNeverTouched)
{
    ASSERT_TRUE(Sandbox::InPrivateNamespace());
    struct Row {
        const char *dir;
        const char *name;
    };
    const Row rows[] = {{"/etc", "qm_plus.conf"}, {"/etc", "qmLinux.conf"},
                        {"/run", "qmudev.pid"},   {"/opt", "Quillmesh_NVMe"},
                        {"/usr/sbin", "lvm"},     {"/dev", "log"},
                        {"/dev", "disk/by-uuid/qmlab-host-check"}};
    std::map<std::string, std::unique_ptr<HostDir>> dirs;
    std::vector<std::string> before;
    for (const Row &row : rows) {
        auto &dir = dirs[row.dir];
        if (!dir) {
            dir = std::make_unique<HostDir>(row.dir);
            ASSERT_GE(dir->fd, 0) << row.dir;
        }
        before.push_back(dir->State(row.name));
    }
    auto expectUnchanged = [&](const char *when) {
        for (size_t i = 0; i < std::size(rows); ++i) {
            EXPECT_EQ(dirs[rows[i].dir]->State(rows[i].name), before[i]) << rows[i].dir << "/" << rows[i].name << " " << when;
        }
    };
    {
        Lab lab;
        lab.sandbox().SetVendorConfig("[vendors]\n");
        lab.sandbox().SetTimeoutConfig("scsi_timeout = 60\n");
        WriteFile(kPidFilePath, "1");
        WriteFile(kTraceLogPath, "x");
        lab.sandbox().AddByUuidLink("qmlab-host-check", "sdb1");
        EXPECT_EQ(std::system("/usr/sbin/lvm pvscan --cache --activate ay >/dev/null 2>&1"), 0);
        ASSERT_TRUE(lab.sandbox().WaitLvmRuns(1, 10s)) << "the stub did not run";
        // Directories opened now are the lab's, and show its own files.
        for (size_t i = 0; i < std::size(rows); ++i) {
            EXPECT_NE(HostDir(rows[i].dir).State(rows[i].name), before[i]) << rows[i].dir << "/" << rows[i].name;
        }
        expectUnchanged("while the lab runs");
    }
    expectUnchanged("after the lab");
}

// --- Sanitizer reports. ----------------------------------------------------------

std::mutex g_reportsMu;
std::vector<std::string> g_reports;

TEST(LabSanitizerReports, EachReportIsCutOutAndReachesTheHandler)
{
    const std::string err =
        "qmudev: a line of the program's own\n"
        "==42==ERROR: AddressSanitizer: heap-use-after-free on address 0x1\n"
        "    #0 0x1 in main\n"
        "SUMMARY: AddressSanitizer: heap-use-after-free x.cpp:1 in main\n"
        "between the reports\n"
        "WARNING: ThreadSanitizer: data race (pid=42)\n"
        "SUMMARY: ThreadSanitizer: data race x.cpp:2 in f\n"
        "x.cpp:3:5: runtime error: signed integer overflow\n";
    auto reports = SanitizerReports(err);
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0],
              "==42==ERROR: AddressSanitizer: heap-use-after-free on address 0x1\n    #0 0x1 in main\n"
              "SUMMARY: AddressSanitizer: heap-use-after-free x.cpp:1 in main\n");
    EXPECT_EQ(reports[1].rfind("WARNING: ThreadSanitizer", 0), 0u) << reports[1];
    EXPECT_EQ(reports[2], "x.cpp:3:5: runtime error: signed integer overflow\n");
    EXPECT_TRUE(SanitizerReports("qmudev: nothing wrong\n").empty());

    // A program's report reaches the handler when the program ends.
    SanitizerReportHandler previous = SetSanitizerReportHandler([](const std::string &, const std::string &report) {
        std::lock_guard<std::mutex> lock(g_reportsMu);
        g_reports.push_back(report);
    });
    {
        Lab lab;
        DaemonOptions opts;
        opts.binary = "/bin/sh";
        opts.args = {"-c", "echo '==7==ERROR: LeakSanitizer: detected memory leaks' >&2; exit 1"};
        EXPECT_TRUE(lab.Start(opts).WaitExit(30s).has_value());
    }
    SetSanitizerReportHandler(previous);
    std::lock_guard<std::mutex> lock(g_reportsMu);
    EXPECT_EQ(g_reports, std::vector<std::string>{"==7==ERROR: LeakSanitizer: detected memory leaks\n"});
}

}  // namespace
}  // namespace qmlab::test
