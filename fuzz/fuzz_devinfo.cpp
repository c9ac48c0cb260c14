// Building the device-information text of an "add", and the parses behind
// it, from arbitrary sysfs names and attribute values.
//
// The input is a few "key=value" lines (keys below). From them the harness
//  1. runs the pure helpers: UTIL_NvmeParseVendorProductByModel on buffers
//     of several sizes and UTIL_TrimTrailingSpaces on exact-size heap
//     buffers, each against a reference model;
//  2. builds the disk's sysfs tree in a umockdev testbed (SCSI: host, FC
//     remote port or iSCSI session, target, SCSI device, block device;
//     NVMe: controller or NVMe subsystem, namespace) with the input's names
//     and values, loads a vendor list, and runs the daemon's own code for
//     an "add": UDEV_InitEventNodeBasicInfo (device number, protocol word)
//     and UDEV_InitAddEventNode (WWN, vendor check, vendor/product and
//     host:channel:target:lun appended, transport). The event record must
//     come out exactly as a reference model of those steps says: result,
//     devInfo text, the four numbers, the transport, and nothing written
//     past devInfo. The WWN getters and INTF_UTIL_CheckVidPidByBlkudev are
//     checked on the same devices.
//
// The model is given what libudev reports for the devices it built (names,
// attribute and property values), so that it describes the daemon's logic
// and not libudev's reading of sysfs.
//
// umockdev reaches the process through its preload library: when it is not
// loaded yet, the harness starts itself again with LD_PRELOAD set (and
// SYSTEMD_DEVICE_VERIFY_SYSFS=0 so that libudev accepts the testbed's
// /sys), so the target runs like any other.
//
// Keys: block, scsi, target, port, host, transport (fc, iscsi, local),
// vendor, model, nvme_model, ctrl, nsid, cntlid, hidden, devtype,
// subsystem, major, minor, wwn, rule (a vendor-list line; several allowed;
// none gives a rule for the disk's own vendor and product), prefill (text
// put into devInfo after the device number and protocol word, up to the
// field's full 128 bytes without terminator), vlen, plen (buffer sizes for
// the pure helpers). A key given twice takes its last
// value; a missing attribute or property key leaves it absent.

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <sys/mount.h>
#include <libudev.h>
#include <sys/stat.h>
#include <unistd.h>

#include <umockdev.h>

#include "fuzz_common.h"
#include "securec.h"
#include "udev_config.h"
#include "udev_enrich.h"
#include "udev_event.h"
#include "udev_nvme.h"
#include "udev_query.h"
#include "udev_scsi.h"
#include "util_ret.h"

namespace {

using Opt = std::optional<std::string>;

struct Input {
    std::map<std::string, std::string> kv;
    std::vector<std::string> rules;

    Opt Get(const char *key) const
    {
        auto it = kv.find(key);
        if (it == kv.end()) {
            return std::nullopt;
        }
        return it->second;
    }
    std::string Name(const char *key, const char *fallback) const
    {
        Opt v = Get(key);
        std::string s = v ? *v : fallback;
        s = s.substr(0, std::strlen(s.c_str()));
        for (char &c : s) {
            if (c == '/') {
                c = '_';
            }
        }
        if (s.size() > 100) {
            s.resize(100);
        }
        if (s.empty() || s == "." || s == "..") {
            s = fallback;
        }
        return s;
    }
};

// A C text: attribute and property values end at a NUL.
Opt CText(const Opt &v)
{
    if (!v) {
        return v;
    }
    return v->substr(0, std::strlen(v->c_str()));
}

Input Parse(const uint8_t *data, size_t size)
{
    Input in;
    for (auto &kv : FuzzKeyValueLines(data, size)) {
        if (kv.first == "rule") {
            in.rules.push_back(kv.second);
        } else {
            in.kv[kv.first] = kv.second;
        }
    }
    return in;
}

std::string RTrimBlanks(std::string s)
{
    while (!s.empty() && s.back() == ' ') {
        s.pop_back();
    }
    return s;
}

// ---- 1. Pure helpers -------------------------------------------------

struct Split {
    bool ok;
    std::string vendor;
    std::string product;
};

Split ReferenceSplit(const std::string &model, int32_t vlen, int32_t plen)
{
    size_t hyphen = model.rfind('-');
    if (hyphen == std::string::npos || vlen <= 0 || plen <= 0) {
        return {false, {}, {}};
    }
    std::string vendor = model.substr(0, hyphen);
    std::string product = model.substr(hyphen + 1);
    if (vendor.size() >= static_cast<size_t>(vlen) || product.size() + 1 > static_cast<size_t>(plen)) {
        return {false, {}, {}};
    }
    return {true, vendor, product};
}

void CheckSplit(const std::string &model, int32_t vlen, int32_t plen)
{
    // Real room behind each buffer even for a size of 0 or below: the call
    // must refuse those sizes without writing.
    FuzzGuarded v(vlen > 0 ? static_cast<size_t>(vlen) : 4);
    FuzzGuarded p(plen > 0 ? static_cast<size_t>(plen) : 4);
    char *modelCopy = static_cast<char *>(std::malloc(model.size() + 1));
    std::memcpy(modelCopy, model.c_str(), model.size() + 1);
    int ret = UTIL_NvmeParseVendorProductByModel(v.Data(), vlen, p.Data(), plen, modelCopy);
    std::free(modelCopy);
    FUZZ_CHECK(v.Intact() && p.Intact(), "UTIL_NvmeParseVendorProductByModel(\"%s\", %d, %d) wrote past a buffer",
               FuzzShow(model).c_str(), vlen, plen);
    Split want = ReferenceSplit(model, vlen, plen);
    FUZZ_CHECK((ret == UDEV_RET_OK) == want.ok, "UTIL_NvmeParseVendorProductByModel(\"%s\", %d, %d) returned %d",
               FuzzShow(model).c_str(), vlen, plen, ret);
    FUZZ_CHECK(ret == UDEV_RET_OK || ret == UDEV_RET_FAIL, "UTIL_NvmeParseVendorProductByModel returned %d", ret);
    if (want.ok) {
        FUZZ_CHECK(std::string(v.Data()) == want.vendor && std::string(p.Data()) == want.product,
                   "UTIL_NvmeParseVendorProductByModel(\"%s\") gave \"%s\" / \"%s\"", FuzzShow(model).c_str(),
                   FuzzShow(v.Data(), std::strlen(v.Data())).c_str(), FuzzShow(p.Data(), std::strlen(p.Data())).c_str());
    }
}

void CheckTrim(const std::string &text, size_t extra)
{
    // Terminated within the size: exactly the trailing blanks go.
    size_t size = text.size() + 1 + extra;
    char *buf = static_cast<char *>(std::malloc(size));
    std::memset(buf, 'z', size);
    std::memcpy(buf, text.c_str(), text.size() + 1);
    UTIL_TrimTrailingSpaces(buf, static_cast<int32_t>(size));
    std::string want = RTrimBlanks(text);
    FUZZ_CHECK(std::string(buf) == want && std::memcmp(buf + text.size() + 1, std::string(extra, 'z').data(), extra) == 0,
               "UTIL_TrimTrailingSpaces(\"%s\") gave \"%s\"", FuzzShow(text).c_str(), FuzzShow(buf, strnlen(buf, size)).c_str());
    std::free(buf);

    // Not terminated within the size: it must stay inside the buffer (ASan
    // sees the block's end) and only ever cut blanks.
    if (!text.empty()) {
        size = text.size();
        buf = static_cast<char *>(std::malloc(size));
        std::memcpy(buf, text.data(), size);
        UTIL_TrimTrailingSpaces(buf, static_cast<int32_t>(size));
        for (size_t i = 0; i < size; ++i) {
            FUZZ_CHECK(buf[i] == text[i] || (text[i] == ' ' && buf[i] == '\0'),
                       "UTIL_TrimTrailingSpaces changed a byte that is not a blank");
        }
        std::free(buf);
    }
    UTIL_TrimTrailingSpaces(nullptr, 4);
}

void CheckPureHelpers(const Input &in)
{
    int32_t vlen = 9;
    int32_t plen = 17;
    if (Opt v = in.Get("vlen")) {
        vlen = std::atoi(v->c_str()) % 70;
    }
    if (Opt p = in.Get("plen")) {
        plen = std::atoi(p->c_str()) % 70;
    }
    for (const char *key : {"nvme_model", "model", "vendor", "block"}) {
        Opt m = CText(in.Get(key));
        if (!m) {
            continue;
        }
        CheckSplit(*m, vlen, plen);
        CheckSplit(*m, 9, 17);
        CheckSplit(*m, 1, 1);
        CheckTrim(*m, 0);
        CheckTrim(*m, 3);
    }
}

// ---- 2. The daemon's "add" over a umockdev testbed -------------------

UMockdevTestbed *g_bed = nullptr;
struct udev *g_udev = nullptr;
std::string g_root;
std::string g_vendorListPath;  // the list the daemon loaded, read back by Supported
bool g_privateMount = false;  // see NewInputDir

void DropTestbed()
{
    if (g_privateMount) {
        umount2((g_root + "/sys/devices").c_str(), MNT_DETACH);
        g_privateMount = false;
    }
    if (g_udev != nullptr) {
        udev_unref(g_udev);
        g_udev = nullptr;
    }
    if (g_bed != nullptr) {
        g_object_unref(g_bed);
        g_bed = nullptr;
    }
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

void Put(Pairs &pairs, const char *name, const Opt &value)
{
    if (value) {
        pairs.emplace_back(name, *value);
    }
}

bool WriteHostFile(const std::string &hostPath, const std::string &content)
{
    int fd = open(hostPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    return ok;
}

// Each input gets a directory of its own under /sys/devices, made directly
// in the testbed's tree (umockdev's preload maps /sys there): a directory
// with a uevent file holding the properties, the attribute files, and a
// "subsystem" link, which is all libudev reads. The extra directory level
// is no device (no uevent file), so parent walks pass over it as over
// /sys/devices itself. The previous input's directory goes first.
//
// Directory operations on the build machines' disk cost milliseconds each,
// which would make this target crawl: when the process may, it mounts a
// tmpfs over the testbed's /sys/devices in a mount namespace of its own
// (invisible to the rest of the machine, gone with the process).
std::string g_inputDir;
unsigned g_inputCount = 0;

int RemoveEntry(const char *path, const struct stat *, int type, struct FTW *)
{
    return type == FTW_DP ? rmdir(path) : unlink(path);
}

void NewInputDir()
{
    if (!g_inputDir.empty()) {
        nftw((g_root + g_inputDir).c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    g_inputDir = "/sys/devices/fuzz" + std::to_string(++g_inputCount);
    mkdir((g_root + g_inputDir).c_str(), 0755);
}

// A device; an empty subsystem makes one without (an FC remote port or an
// iSCSI session device). "" when the directory cannot be made (a name that
// is already taken there).
std::string AddDevice(const char *subsystem, const std::string &name, const std::string &parent, const Pairs &attrs,
                      const Pairs &props)
{
    std::string path = (parent.empty() ? g_inputDir : parent) + "/" + name;
    std::string host = g_root + path;
    if (mkdir(host.c_str(), 0755) != 0) {
        return "";
    }
    std::string uevent;
    for (const auto &p : props) {
        uevent += p.first + "=" + p.second + "\n";
    }
    if (!WriteHostFile(host + "/uevent", uevent)) {
        return "";
    }
    for (const auto &a : attrs) {
        if (!WriteHostFile(host + "/" + a.first, a.second)) {
            return "";
        }
    }
    if (*subsystem != '\0' && symlink((std::string("../../class/") + subsystem).c_str(), (host + "/subsystem").c_str()) != 0) {
        return "";
    }
    return path;
}

std::string AddDir(const std::string &parent, const char *name)
{
    std::string path = parent + "/" + name;
    mkdir((g_root + path).c_str(), 0755);
    return path;
}

struct DevicePtr {
    struct udev_device *dev = nullptr;
    explicit DevicePtr(const std::string &path)
    {
        if (!path.empty()) {
            dev = udev_device_new_from_syspath(g_udev, path.c_str());
        }
    }
    ~DevicePtr()
    {
        if (dev != nullptr) {
            udev_device_unref(dev);
        }
    }
    DevicePtr(const DevicePtr &) = delete;
    DevicePtr &operator=(const DevicePtr &) = delete;
    Opt Attr(const char *name) const
    {
        const char *v = dev ? udev_device_get_sysattr_value(dev, name) : nullptr;
        return v ? Opt(v) : std::nullopt;
    }
    Opt Prop(const char *name) const
    {
        const char *v = dev ? udev_device_get_property_value(dev, name) : nullptr;
        return v ? Opt(v) : std::nullopt;
    }
    std::string Sysname() const
    {
        const char *v = dev ? udev_device_get_sysname(dev) : nullptr;
        return v ? v : "";
    }
};

// The vendor list: the input's rule lines, or one rule for the disk.
void LoadRules(const Input &in, const std::string &vendor, const std::string &product)
{
    std::string text = "[vendors]\n";
    if (in.rules.empty()) {
        text += "ruler_name=fuzz,vendor_id=" + vendor + ",product_id=" + product + "\n";
    }
    for (const std::string &r : in.rules) {
        text += r + "\n";
    }
    std::string path = g_root + "/sys/devices/qm_plus.conf";  // on the tmpfs when there is one
    FILE *f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr, "cannot write %s", path.c_str());
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    FUZZ_CHECK(UDEV_InitConfigFromPath(path.c_str()), "vendor list not read");
    g_vendorListPath = path;
}

bool Supported(const std::string &vendor, const std::string &product)
{
    // The matcher itself is fuzzed in fuzz_vendor_config; here the rules
    // are read back and matched by the plain rule of the grammar.
    std::string stripped = product;
    if (stripped.size() >= 64) {
        return false;
    }
    while (stripped.size() >= 4 && stripped.compare(stripped.size() - 4, 4, "\\x20") == 0) {
        stripped.resize(stripped.size() - 4);
    }
    UdevListHead rules;
    UDEV_ListInit(&rules);
    FUZZ_CHECK(UDEV_ReadConfigInto(g_vendorListPath.c_str(), &rules), "vendor list not read back");
    bool found = false;
    for (const UdevListHead *l = rules.next; l != &rules && !found; l = l->next) {
        const auto *n = reinterpret_cast<const UdevProductNode *>(l);
        found = vendor == n->vendor_id && stripped == n->product_id;
    }
    UDEV_DeleteProductList(&rules);
    return found;
}

bool BareHexPrefix(const std::string &s)
{
    for (size_t i = 0; i + 1 < s.size(); ++i) {
        if (s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X') &&
            (i + 2 >= s.size() || !std::isxdigit(static_cast<unsigned char>(s[i + 2])))) {
            return true;
        }
    }
    return false;
}

// What the event record must look like after the add.
struct Expect {
    bool ok = false;
    std::string devInfo;
    int32_t hctl[4] = {-1, -1, -1, -1};
    bool anyField[4] = {false, false, false, false};  // numbers whose text overflowed
    int32_t transportType = UDEV_TRANSPORT_UNKNOWN;
    int32_t transportId = -1;
    bool skip = false;  // a name whose parse the contract leaves open
    bool hctlAppendPending = false;
};

std::string ShowDevInfo(const UdevEventNode *node)
{
    return FuzzShow(node->devInfo, strnlen(node->devInfo, UDEV_DEVINFO_LEN));
}

bool Append(std::string &devInfo, const std::string &piece)
{
    if (devInfo.size() + piece.size() + 1 > UDEV_DEVINFO_LEN) {
        return false;
    }
    devInfo += piece;
    return true;
}

std::string Hctl(const int32_t v[4])
{
    char b[64];
    std::snprintf(b, sizeof(b), "%d:%d:%d:%d", v[0], v[1], v[2], v[3]);
    return b;
}

// The device number and protocol word, common to both protocols.
bool ReferenceBasic(const DevicePtr &block, Expect &e)
{
    Opt major = block.Prop("MAJOR");
    Opt minor = block.Prop("MINOR");
    if (!major || !minor) {
        return false;
    }
    std::string devNum = *major + ":" + *minor;
    if (devNum.size() + 1 > UDEV_DEVNUM_LEN) {
        return false;
    }
    if (!Append(e.devInfo, devNum + " ")) {
        return false;
    }
    std::string name = block.Sysname();
    if (name.compare(0, 2, "sd") == 0) {
        return Append(e.devInfo, "scsi ");
    }
    if (name.compare(0, 4, "nvme") == 0) {
        return Append(e.devInfo, "nvme ");
    }
    return false;
}

// atoi on an attribute; *overflow when the digits do not fit an int, a case
// the contract leaves to the implementation.
int32_t ReferenceAtoi(const Opt &text, bool *overflow)
{
    *overflow = false;
    if (!text) {
        return 0;
    }
    errno = 0;
    long v = std::strtol(text->c_str(), nullptr, 10);
    if (errno == ERANGE || v > INT_MAX || v < INT_MIN) {
        *overflow = true;
        return 0;
    }
    return static_cast<int32_t>(v);
}

struct Topology {
    bool nvme = false;
    std::string block, scsi, target, port, host, ctrl;
    std::vector<std::string> chain;  // paths from the block device upwards
    bool underSubsystem = false;
};

void ReferenceScsi(const Topology &t, Expect &e)
{
    DevicePtr scsi(t.scsi);
    Opt vendorAttr = scsi.Attr("vendor");
    Opt modelAttr = scsi.Attr("model");
    if (!vendorAttr || vendorAttr->size() >= UTIL_VENDOR_LEN || !modelAttr || modelAttr->size() >= UTIL_PRODUCT_LEN) {
        return;
    }
    std::string vendor = RTrimBlanks(*vendorAttr);
    std::string product = RTrimBlanks(*modelAttr);
    if (!Supported(vendor, product) || !Append(e.devInfo, vendor + " " + product + " ")) {
        return;
    }
    std::string name = scsi.Sysname();
    if (BareHexPrefix(name)) {
        e.skip = true;
        return;
    }
    int v[4];
    if (std::sscanf(name.c_str(), "%i:%i:%i:%i", &v[0], &v[1], &v[2], &v[3]) != 4) {
        return;
    }
    for (int i = 0; i < 4; ++i) {
        e.hctl[i] = v[i];
    }
    if (!Append(e.devInfo, Hctl(e.hctl))) {
        return;
    }
    e.ok = true;
    // Transport: the target's parent named as an FC remote port, else the
    // first device from the block device up named as an iSCSI session.
    DevicePtr targetParent(t.port.empty() ? t.host : t.port);
    int a, b, c;
    if (std::sscanf(targetParent.Sysname().c_str(), "rport-%d:%d-%d", &a, &b, &c) == 3) {
        e.transportType = UDEV_TRANSPORT_FCP;
        e.transportId = c;
        return;
    }
    for (const std::string &path : t.chain) {
        DevicePtr d(path);
        int n;
        if (std::sscanf(d.Sysname().c_str(), "session%d", &n) == 1) {
            e.transportType = UDEV_TRANSPORT_ISCSI;
            e.transportId = n;
            return;
        }
    }
}

void ReferenceNvme(const Topology &t, const DevicePtr &block, Expect &e)
{
    Opt hidden = block.Attr("hidden");
    if (hidden && !hidden->empty() && (*hidden)[0] == '1') {
        return;
    }
    const char *devtype = block.dev ? udev_device_get_devtype(block.dev) : nullptr;
    if (devtype != nullptr && std::strncmp(devtype, "disk", 4) == 0 && t.underSubsystem) {
        return;
    }
    if (t.underSubsystem) {
        return;  // no controller above the namespace
    }
    DevicePtr ctrl(t.ctrl);
    Opt model = ctrl.Attr("model");
    if (!model || model->size() >= UTIL_NVME_MODEL_LEN) {
        return;
    }
    Split s = ReferenceSplit(*model, UTIL_VENDOR_LEN, UTIL_PRODUCT_LEN);
    if (!s.ok) {
        return;
    }
    std::string vendor = RTrimBlanks(s.vendor);
    std::string product = RTrimBlanks(s.product);
    if (!Supported(vendor, product) || !Append(e.devInfo, vendor + " " + product + " ")) {
        return;
    }
    int host, target;
    if (std::sscanf(block.Sysname().c_str(), "nvme%dn%d", &host, &target) != 2) {
        return;
    }
    bool lunOverflow, channelOverflow;
    e.hctl[0] = host;
    e.hctl[1] = ReferenceAtoi(block.Attr("cntlid"), &channelOverflow);
    e.hctl[2] = target;
    e.hctl[3] = ReferenceAtoi(block.Attr("nsid"), &lunOverflow);
    e.anyField[1] = channelOverflow;
    e.anyField[3] = lunOverflow;
    // Only the HCTL append is left; whether it fits depends on numbers the
    // model may not know exactly (an overflowing attribute), so it is
    // decided against the record's own numbers.
    e.ok = true;
    e.hctlAppendPending = true;
}

// The disk's vendor and product as the vendor/product query gives them;
// false when that query fails. They also make the disk's own rule when the
// input gives none.
bool DiskIdentity(const Topology &t, std::string &vendor, std::string &product)
{
    if (!t.nvme) {
        DevicePtr scsi(t.scsi);
        Opt v = scsi.Attr("vendor");
        Opt m = scsi.Attr("model");
        vendor = RTrimBlanks(v.value_or(""));
        product = RTrimBlanks(m.value_or(""));
        return v && v->size() < UTIL_VENDOR_LEN && m && m->size() < UTIL_PRODUCT_LEN;
    }
    DevicePtr ctrl(t.ctrl);
    Opt m = ctrl.Attr("model");
    Split s = ReferenceSplit(m.value_or(""), UTIL_VENDOR_LEN, UTIL_PRODUCT_LEN);
    vendor = RTrimBlanks(s.vendor);
    product = RTrimBlanks(s.product);
    return !t.underSubsystem && m && m->size() < UTIL_NVME_MODEL_LEN && s.ok;
}

Topology Build(const Input &in)
{
    Topology t;
    std::string blockName = in.Name("block", "sdc");
    t.nvme = blockName.compare(0, 4, "nvme") == 0;
    Opt wwn = CText(in.Get("wwn"));
    Opt major = CText(in.Get("major"));
    Opt minor = CText(in.Get("minor"));
    if (!t.nvme) {
        t.host = AddDevice("scsi_host", in.Name("host", "host2"), "", {}, {});
        std::string targetParent = t.host;
        Opt transport = in.Get("transport");
        if (!transport || *transport == "fc" || *transport == "iscsi") {
            const char *fallback = transport && *transport == "iscsi" ? "session5" : "rport-2:0-7";
            t.port = AddDevice("", in.Name("port", fallback), t.host, {}, {});
            targetParent = t.port.empty() ? t.host : t.port;
        }
        t.target = AddDevice("scsi", in.Name("target", "target2:0:1"), targetParent, {}, {{"DEVTYPE", "scsi_target"}});
        Pairs attrs;
        Put(attrs, "vendor", CText(in.Get("vendor")));
        Put(attrs, "model", CText(in.Get("model")));
        t.scsi = AddDevice("scsi", in.Name("scsi", "2:0:1:3"), t.target, attrs, {{"DEVTYPE", "scsi_device"}});
        Pairs props = {{"DEVTYPE", "disk"}};
        Put(props, "MAJOR", major);
        Put(props, "MINOR", minor);
        Put(props, "ID_WWN_WITH_EXTENSION", wwn);
        t.block = AddDevice("block", blockName, t.scsi.empty() ? "" : AddDir(t.scsi, "block"), {}, props);
        t.chain = {t.block, t.scsi, t.target};
        if (!t.port.empty()) {
            t.chain.push_back(t.port);
        }
        t.chain.push_back(t.host);
        return t;
    }
    Pairs ctrlAttrs;
    Put(ctrlAttrs, "model", CText(in.Get("nvme_model")));
    std::string ctrlName = in.Name("ctrl", "nvme3");
    if (ctrlName == "nvme-subsys0") {
        ctrlName = "nvme3";
    }
    t.ctrl = AddDevice("nvme", ctrlName, "", ctrlAttrs, {});
    t.underSubsystem = in.Get("subsystem").has_value();
    std::string parent = t.underSubsystem ? AddDevice("nvme-subsystem", "nvme-subsys0", "", {}, {}) : t.ctrl;
    Pairs attrs;
    Put(attrs, "nsid", CText(in.Get("nsid")));
    Put(attrs, "cntlid", CText(in.Get("cntlid")));
    Put(attrs, "hidden", CText(in.Get("hidden")));
    Pairs props;
    Put(props, "MAJOR", major);
    Put(props, "MINOR", minor);
    Put(props, "DEVTYPE", in.Get("devtype") ? CText(in.Get("devtype")) : Opt("disk"));
    Put(props, "ID_WWN", wwn);
    t.block = AddDevice("block", blockName, parent, attrs, props);
    return t;
}

bool TopologyComplete(const Topology &t)
{
    if (t.block.empty()) {
        return false;
    }
    if (t.nvme) {
        return !t.ctrl.empty();
    }
    return !t.host.empty() && !t.target.empty() && !t.scsi.empty();
}

void CheckAdd(const Input &in)
{
    NewInputDir();
    Topology t = Build(in);
    if (!TopologyComplete(t)) {
        return;  // a name the testbed could not make (a duplicate, say)
    }
    DevicePtr block(t.block);
    if (block.dev == nullptr) {
        return;  // libudev refused the device (a malformed uevent)
    }
    std::string vendor, product;
    bool queryOk = DiskIdentity(t, vendor, product);
    LoadRules(in, vendor, product);

    Expect e;
    bool basic = ReferenceBasic(block, e);
    // Text already in devInfo before the protocol's appends: real device
    // numbers leave plenty of room, so this is how the appends meet a
    // nearly full or a full, unterminated field.
    std::string prefill = CText(in.Get("prefill")).value_or("");
    bool full = false;
    if (basic && !prefill.empty()) {
        prefill = prefill.substr(0, UDEV_DEVINFO_LEN - std::min<size_t>(e.devInfo.size(), UDEV_DEVINFO_LEN));
        e.devInfo += prefill;
        full = e.devInfo.size() >= UDEV_DEVINFO_LEN;
    }
    if (basic) {
        if (t.nvme) {
            ReferenceNvme(t, block, e);
        } else {
            ReferenceScsi(t, e);
        }
    }

    // The record exactly as a fresh event node starts; its padding after
    // devInfo must still be zero afterwards.
    auto *node = static_cast<UdevEventNode *>(std::calloc(1, sizeof(UdevEventNode)));
    UDEV_ListInit(&node->list);
    node->udevDev = block.dev;
    node->host = node->channel = node->target = node->lun = -1;
    node->transportType = UDEV_TRANSPORT_UNKNOWN;
    node->transportId = -1;

    int ret = UDEV_InitEventNodeBasicInfo(block.dev, node);
    FUZZ_CHECK((ret == UDEV_RET_OK) == basic, "UDEV_InitEventNodeBasicInfo returned %d for block %s", ret,
               FuzzShow(block.Sysname()).c_str());
    if (ret == UDEV_RET_OK) {
        size_t used = strnlen(node->devInfo, UDEV_DEVINFO_LEN);
        std::memcpy(node->devInfo + used, prefill.data(), prefill.size());
        ret = UDEV_InitAddEventNode(block.dev, node);
        FUZZ_CHECK(ret == UDEV_RET_OK || ret == UDEV_RET_FAIL, "UDEV_InitAddEventNode returned %d", ret);
    }
    const size_t tail = offsetof(UdevEventNode, devInfo) + UDEV_DEVINFO_LEN;
    for (size_t i = tail; i < sizeof(UdevEventNode); ++i) {
        FUZZ_CHECK(reinterpret_cast<unsigned char *>(node)[i] == 0, "the record was written past devInfo");
    }
    if (full) {
        FUZZ_CHECK(ret != UDEV_RET_OK && std::memcmp(node->devInfo, e.devInfo.data(), UDEV_DEVINFO_LEN) == 0,
                   "an add appended to a full devInfo");
    } else {
        FUZZ_CHECK(std::memchr(node->devInfo, 0, UDEV_DEVINFO_LEN) != nullptr, "devInfo is not terminated");
    }
    FUZZ_CHECK(std::memchr(node->devNum, 0, UDEV_DEVNUM_LEN) != nullptr, "devNum is not terminated");

    if (std::getenv("QMUDEV_FUZZ_DEBUG") != nullptr) {
        std::fprintf(stderr, "fuzz_devinfo: %s: basic %s, add %s; devInfo \"%s\", model \"%s\"%s, transport %d/%d\n",
                     FuzzShow(block.Sysname()).c_str(), basic ? "ok" : "fails", ret == UDEV_RET_OK ? "ok" : "fails",
                     ShowDevInfo(node).c_str(), FuzzShow(e.devInfo).c_str(),
                     e.hctlAppendPending ? " + HCTL" : "", node->transportType, node->transportId);
    }
    int32_t got[4] = {node->host, node->channel, node->target, node->lun};
    if (basic && !e.skip && e.hctlAppendPending) {
        for (int i = 0; i < 4; ++i) {
            FUZZ_CHECK(e.anyField[i] || got[i] == e.hctl[i], "field %d of %s is %d, expected %d", i,
                       FuzzShow(block.Sysname()).c_str(), got[i], e.hctl[i]);
        }
        e.ok = Append(e.devInfo, Hctl(got));
    }
    if (basic && !e.skip) {
        bool ok = ret == UDEV_RET_OK;
        FUZZ_CHECK(ok == e.ok, "the add of %s %s, expected %s; devInfo \"%s\", model says \"%s\"",
                   FuzzShow(block.Sysname()).c_str(), ok ? "succeeded" : "failed", e.ok ? "success" : "failure",
                   ShowDevInfo(node).c_str(), FuzzShow(e.devInfo).c_str());
        if (ok) {
            for (int i = 0; i < 4; ++i) {
                FUZZ_CHECK(e.anyField[i] || got[i] == e.hctl[i], "field %d of %s is %d, expected %d", i,
                           FuzzShow(block.Sysname()).c_str(), got[i], e.hctl[i]);
            }
            const std::string &want = e.devInfo;
            FUZZ_CHECK(want == node->devInfo, "devInfo \"%s\", expected \"%s\"", ShowDevInfo(node).c_str(),
                       FuzzShow(want).c_str());
            FUZZ_CHECK(std::memcmp(node->action, "add", 4) == 0, "action is not \"add\"");
            if (!t.nvme) {
                FUZZ_CHECK(node->transportType == e.transportType && node->transportId == e.transportId,
                           "transport %d/%d, expected %d/%d", node->transportType, node->transportId,
                           e.transportType, e.transportId);
            } else {
                FUZZ_CHECK(node->transportType == UDEV_TRANSPORT_UNKNOWN && node->transportId == -1,
                           "an NVMe add touched the transport");
            }
        }
    }
    std::free(node);

    // WWN getters: SCSI hands the property over as it is, NVMe its tail
    // from the first dot (or null without a dot).
    if (!t.nvme) {
        Opt wwn = block.Prop("ID_WWN_WITH_EXTENSION");
        const char *got = UDEV_ScsiGetWwnByDevice(block.dev);
        FUZZ_CHECK((got != nullptr) == wwn.has_value() && (!got || *wwn == got), "SCSI WWN \"%s\"",
                   got ? FuzzShow(std::string(got)).c_str() : "(null)");
    } else {
        Opt wwn = block.Prop("ID_WWN");
        const char *got = UDEV_NvmeGetWwnByDevice(block.dev);
        size_t dot = wwn ? wwn->find('.') : std::string::npos;
        FUZZ_CHECK((got != nullptr) == (dot != std::string::npos) && (!got || wwn->substr(dot) == got),
                   "NVMe WWN \"%s\"", got ? FuzzShow(std::string(got)).c_str() : "(null)");
    }

    // The vendor/product query the start-up scan uses.
    FuzzGuarded v(UTIL_VENDOR_LEN);
    FuzzGuarded p(UTIL_PRODUCT_LEN);
    int q = INTF_UTIL_CheckVidPidByBlkudev(block.dev, v.Data(), UTIL_VENDOR_LEN, p.Data(), UTIL_PRODUCT_LEN);
    FUZZ_CHECK(v.Intact() && p.Intact(), "INTF_UTIL_CheckVidPidByBlkudev wrote past its buffers");
    std::string name = block.Sysname();
    if (name.compare(0, 2, "sd") != 0 && name.compare(0, 4, "nvme") != 0) {
        FUZZ_CHECK(q == UDEV_RET_SKIP, "INTF_UTIL_CheckVidPidByBlkudev on %s returned %d", FuzzShow(name).c_str(), q);
    } else {
        FUZZ_CHECK((q == UDEV_RET_OK) == queryOk, "INTF_UTIL_CheckVidPidByBlkudev on %s returned %d",
                   FuzzShow(name).c_str(), q);
    }
    if (q == UDEV_RET_OK) {
        FUZZ_CHECK(vendor == v.Data() && product == p.Data(), "INTF_UTIL_CheckVidPidByBlkudev gave \"%s\" / \"%s\"",
                   FuzzShow(std::string(v.Data())).c_str(), FuzzShow(std::string(p.Data())).c_str());
    }
    UDEV_ReleaseConfig();
}

bool PreloadActive()
{
    const char *pre = std::getenv("LD_PRELOAD");
    return pre != nullptr && std::strstr(pre, "libumockdev-preload") != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    (void)argc;
    if (!PreloadActive()) {
        std::string pre = "libumockdev-preload.so.0";
        if (const char *old = std::getenv("LD_PRELOAD"); old != nullptr && *old != '\0') {
            pre += std::string(":") + old;
        }
        setenv("LD_PRELOAD", pre.c_str(), 1);
        setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
        execv("/proc/self/exe", *argv);
        std::perror("fuzz_devinfo: re-executing with the umockdev preload failed");
        std::abort();
    }
    // Before umockdev starts its threads: a mount namespace needs a process
    // that shares its file-system context with no other thread.
    bool ownNamespace = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    g_bed = umockdev_testbed_new();
    FUZZ_CHECK(g_bed != nullptr, "umockdev testbed not created");
    gchar *root = umockdev_testbed_get_root_dir(g_bed);
    g_root = root;
    g_free(root);
    std::string devices = g_root + "/sys/devices";
    mkdir(devices.c_str(), 0755);
    g_privateMount = ownNamespace && mount("qmudev-fuzz", devices.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                                           "size=64m,mode=0755") == 0;
    if (!g_privateMount) {
        std::fprintf(stderr, "fuzz_devinfo: no private tmpfs for the testbed (%s); running on %s, slowly\n",
                     std::strerror(errno), g_root.c_str());
    }
    g_udev = udev_new();
    FUZZ_CHECK(g_udev != nullptr, "udev_new failed");
    std::atexit(DropTestbed);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input in = Parse(data, size);
    CheckPureHelpers(in);
    CheckAdd(in);
    return 0;
}
