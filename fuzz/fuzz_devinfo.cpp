// The device-information text of an "add", built from hostile udev
// properties, sysfs names and attribute values. The input is "key=value"
// lines (block, host, transport (fc, iscsi, local), port, target, scsi,
// vendor, model, ctrl, nvme_model, subsystem, nsid, cntlid, hidden, devtype,
// major, minor, wwn): a SCSI disk, or for a block name "nvme..." an NVMe
// namespace, is built in a umockdev testbed, its vendor and product as the
// daemon reads them become the vendor list's one rule, and the handle
// thread's UDEV_InitEventNodeBasicInfo and UDEV_InitAddEventNode run on it.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <libudev.h>
#include <sched.h>
#include <sys/mount.h>
#include <umockdev.h>

#include "fuzz_common.h"
#include "udev_config.h"
#include "udev_enrich.h"
#include "udev_event.h"
#include "udev_query.h"
#include "util_ret.h"

namespace {

UMockdevTestbed *g_bed = nullptr;
struct udev *g_udev = nullptr;

using Input = std::map<std::string, std::string>;
using Keys = std::initializer_list<std::pair<const char *, const char *>>;

Input Parse(const uint8_t *data, size_t size)
{
    Input in;
    std::string text(reinterpret_cast<const char *>(data), size);
    for (size_t pos = 0, end; pos < text.size(); pos = end + 1) {
        end = std::min(text.find('\n', pos), text.size());
        size_t eq = text.find('=', pos);
        if (eq < end) {
            in[text.substr(pos, eq - pos)] = text.substr(eq + 1, end - eq - 1).c_str();  // a C text
        }
    }
    return in;
}

// A sysfs name: no "/", and none of the files that umockdev puts beside it.
std::string Name(const Input &in, const char *key, const char *fallback)
{
    std::string s = in.count(key) ? in.at(key).substr(0, 100) : fallback;
    std::replace(s.begin(), s.end(), '/', '_');
    static const std::set<std::string> kTaken = {"", ".", "..", "uevent", "subsystem", "block", "vendor", "model"};
    return kTaken.count(s) ? fallback : s;
}

// umockdev's NULL-terminated name/value list: `fixed`, then the input's
// values of `keys` under their sysfs or udev names.
std::vector<const char *> Pairs(const Input &in, std::vector<const char *> fixed, Keys keys = {})
{
    for (auto [key, name] : keys) {
        if (in.count(key)) {
            fixed.insert(fixed.end(), {name, in.at(key).c_str()});
        }
    }
    fixed.push_back(nullptr);
    return fixed;
}

std::string Add(const char *subsystem, const std::string &name, const std::string &parent,
                std::vector<const char *> attrs = {nullptr}, std::vector<const char *> props = {nullptr})
{
    gchar *path = umockdev_testbed_add_devicev(g_bed, subsystem, name.c_str(), parent.empty() ? nullptr : parent.c_str(),
                                               const_cast<gchar **>(attrs.data()), const_cast<gchar **>(props.data()));
    std::string out = path == nullptr ? "" : path;
    g_free(path);
    return out;
}

// Returns the block device's sysfs path.
std::string Build(const Input &in)
{
    std::string block = Name(in, "block", "sdc");
    if (block.compare(0, 4, "nvme") == 0) {
        std::string parent = Add("nvme", Name(in, "ctrl", "nvme3"), "", Pairs(in, {}, {{"nvme_model", "model"}}));
        if (in.count("subsystem")) {
            parent = Add("nvme-subsystem", "virtual/nvme-subsystem/nvme-subsys0", "");
        }
        return Add("block", block, parent, Pairs(in, {}, {{"nsid", "nsid"}, {"cntlid", "cntlid"}, {"hidden", "hidden"}}),
                   Pairs(in, in.count("devtype") ? std::vector<const char *>{} : std::vector<const char *>{"DEVTYPE", "disk"},
                         {{"devtype", "DEVTYPE"}, {"major", "MAJOR"}, {"minor", "MINOR"}, {"wwn", "ID_WWN"}}));
    }
    std::string transport = in.count("transport") ? in.at("transport") : "fc";
    std::string parent = Add("scsi_host", Name(in, "host", "host2"), "");
    if (transport == "fc" || transport == "iscsi") {
        parent = Add(transport == "fc" ? "fc_remote_ports" : "iscsi_session",
                     Name(in, "port", transport == "fc" ? "rport-2:0-7" : "session5"), parent);
    }
    // Target and device share the scsi bus, whose directory umockdev links
    // each by name: the same name twice is not a testbed it can build.
    std::string target = Name(in, "target", "target2:0:1");
    std::string scsi = Name(in, "scsi", "2:0:1:3");
    if (scsi == target) {
        scsi += "_";
    }
    parent = Add("scsi", target, parent, {nullptr}, Pairs(in, {"DEVTYPE", "scsi_target"}));
    parent = Add("scsi", scsi, parent, Pairs(in, {}, {{"vendor", "vendor"}, {"model", "model"}}),
                 Pairs(in, {"DEVTYPE", "scsi_device"}));
    return Add("block", "block/" + block, parent, {nullptr},
               Pairs(in, {"DEVTYPE", "disk"}, {{"major", "MAJOR"}, {"minor", "MINOR"}, {"wwn", "ID_WWN_WITH_EXTENSION"}}));
}

// One add into a fresh record, its devInfo first filled up to `room` free
// bytes (real device numbers never bring the appends near its end).
void AddOnce(struct udev_device *dev, size_t room, const std::string &vendorProduct)
{
    // Zero-filled as the daemon's, but for the padding behind devInfo: marked,
    // so that a write past the field shows (past the block, ASan sees it).
    auto *node = static_cast<UdevEventNode *>(std::calloc(1, sizeof(UdevEventNode)));
    const std::string mark(sizeof(UdevEventNode) - offsetof(UdevEventNode, devInfo) - UDEV_DEVINFO_LEN, 'x');
    char *padding = reinterpret_cast<char *>(node) + offsetof(UdevEventNode, devInfo) + UDEV_DEVINFO_LEN;
    std::memcpy(padding, mark.data(), mark.size());
    if (UDEV_InitEventNodeBasicInfo(dev, node) == UDEV_RET_OK) {
        size_t used = strnlen(node->devInfo, UDEV_DEVINFO_LEN);
        size_t n = UDEV_DEVINFO_LEN - used > room ? UDEV_DEVINFO_LEN - used - room : 0;
        std::memset(node->devInfo + used, 'x', n);
        int ret = UDEV_InitAddEventNode(dev, node);
        FUZZ_CHECK(ret == UDEV_RET_OK || ret == UDEV_RET_FAIL);
        FUZZ_CHECK(used + n == UDEV_DEVINFO_LEN ? ret == UDEV_RET_FAIL : std::memchr(node->devInfo, 0, UDEV_DEVINFO_LEN) != nullptr);
        // Success: device number first, then (after the protocol word and
        // any filler) vendor, product and host:channel:target:lun.
        std::string info = ret == UDEV_RET_OK ? node->devInfo : "";
        std::string tail = vendorProduct + std::to_string(node->host) + ":" + std::to_string(node->channel) + ":" +
                           std::to_string(node->target) + ":" + std::to_string(node->lun);
        FUZZ_CHECK(info.empty() || (info.starts_with(std::string(node->devNum) + " ") && info.ends_with(tail)));
    }
    FUZZ_CHECK(std::memchr(node->devNum, 0, UDEV_DEVNUM_LEN) != nullptr && std::string(padding, mark.size()) == mark);
    std::free(node);
}

void CheckAdd(struct udev_device *dev)
{
    std::vector<char> vendor(UTIL_VENDOR_LEN);
    std::vector<char> product(UTIL_PRODUCT_LEN);
    int ret = INTF_UTIL_CheckVidPidByBlkudev(dev, vendor.data(), UTIL_VENDOR_LEN, product.data(), UTIL_PRODUCT_LEN);
    FUZZ_CHECK(ret == UDEV_RET_OK || ret == UDEV_RET_FAIL || ret == UDEV_RET_SKIP || ret == UDEV_RET_NOT_FOUND);
    FUZZ_CHECK(std::memchr(vendor.data(), 0, vendor.size()) && std::memchr(product.data(), 0, product.size()));
    std::string rules = std::string("[vendors]\nvendor_id=") + vendor.data() + ",product_id=" + product.data() + "\n";
    FUZZ_CHECK(UDEV_InitConfigFromPath(FuzzFile(rules.data(), rules.size())));
    // Every fill level up to the longest vendor, product and numbers, and none.
    for (size_t room = 0; room <= 80; ++room) {
        AddOnce(dev, room < 80 ? room : UDEV_DEVINFO_LEN, std::string(vendor.data()) + " " + product.data() + " ");
    }
    UDEV_ReleaseConfig();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    // umockdev reaches libudev through its preload library: start again with
    // it, and with libudev accepting the testbed's /sys.
    const char *preload = std::getenv("LD_PRELOAD");
    if (preload == nullptr || std::strstr(preload, "libumockdev-preload") == nullptr) {
        setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
        setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
        execv("/proc/self/exe", *argv);
        std::perror("fuzz_devinfo: starting again with the umockdev preload failed");
        std::abort();
    }
    // The testbed's many small files cost milliseconds each on a disk: when
    // it may (as root), the process puts the testbed on a tmpfs mounted in a
    // mount namespace of its own, before umockdev starts its threads.
    static char tmp[] = "/tmp/qmudev-fuzz-XXXXXX";
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mkdtemp(tmp) != nullptr && mount("qmudev-fuzz", tmp, "tmpfs", MS_NOSUID | MS_NODEV, nullptr) == 0) {
        setenv("TMPDIR", tmp, 1);
    }
    g_bed = umockdev_testbed_new();
    g_udev = udev_new();
    FUZZ_CHECK(g_bed != nullptr && g_udev != nullptr);
    std::atexit([] {
        g_object_unref(g_bed);  // removes the testbed
        umount2(tmp, MNT_DETACH);
        rmdir(tmp);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input in = Parse(data, size);
    umockdev_testbed_clear(g_bed);
    std::string path = Build(in);
    struct udev_device *dev = path.empty() ? nullptr : udev_device_new_from_syspath(g_udev, path.c_str());
    if (dev != nullptr) {
        CheckAdd(dev);
        udev_device_unref(dev);
    }
    return 0;
}
