// What the daemon reads out of names and identity texts: the protocol from
// the kernel name, vendor and product of SCSI disks (copied, then trimmed)
// and of NVMe controllers (the model split at its last hyphen), and the
// host:channel:target:lun of SCSI devices and NVMe namespaces. Disks come
// from the lab's testbed; texts are chosen to reach every bound.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "qmlab/testbed.h"
#include "securec.h"
#include "support/unit_support.h"
#include "udev_config.h"
#include "udev_event.h"
#include "udev_nvme.h"
#include "udev_protocol.h"
#include "udev_query.h"
#include "udev_sanboot.h"
#include "udev_scsi.h"
#include "util_ret.h"

namespace {

using qmlab::BlockDevice;
using Opt = std::optional<std::string>;
using NodePtr = std::unique_ptr<UdevEventNode, decltype(&UDEV_DeleteEventNode)>;

// A fresh event node that holds the device, with the text enrichment would
// have put in front (device number, protocol word).
NodePtr Node(const BlockDevice &dev, const std::string &devInfo)
{
    NodePtr node(UDEV_AllocEventNode(), UDEV_DeleteEventNode);
    node->udevDev = qmtest::Device(dev.syspath).release();
    (void)sprintf_s(node->devNum, sizeof(node->devNum), "%s", dev.DevNum().c_str());
    (void)sprintf_s(node->devInfo, sizeof(node->devInfo), "%s", devInfo.c_str());
    return node;
}

struct Ids {
    char vendor[UTIL_VENDOR_LEN] = "unset";
    char product[UTIL_PRODUCT_LEN] = "unset";
    std::string Text() const { return std::string(vendor) + "|" + product; }
};

TEST(Names, ProtocolIsSdFirstThenNvmeByPrefix)
{
    const struct {
        const char *name;
        const char *devInfo;  // after "8:0 "; null: refused, protocol untouched
        uint32_t protocol;
    } cases[] = {{"sr0", nullptr, 7}, {"vda", nullptr, 7}, {"SDA", nullptr, 7}, {"nvm0n1", nullptr, 7},
                 {"s", nullptr, 7},
                 {"sda", "scsi ", UDEV_PROTOCOL_SCSI}, {"sdfoo", "scsi ", UDEV_PROTOCOL_SCSI},
                 {"nvme0n1", "nvme ", UDEV_PROTOCOL_NVME}, {"nvme0c0n1", "nvme ", UDEV_PROTOCOL_NVME}};
    qmlab::Testbed bed;
    unsigned minor = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        NodePtr node = Node(bed.AddBlock({.name = c.name, .major = 8, .minor = minor++}), "8:0 ");
        node->protocol = 7;
        EXPECT_EQ(UDEV_ProtocolInit(node->udevDev, node.get()), c.devInfo ? UDEV_RET_OK : UDEV_RET_FAIL);
        EXPECT_EQ(node->protocol, c.protocol);
        EXPECT_EQ(node->devInfo, "8:0 " + std::string(c.devInfo ? c.devInfo : ""));
    }
}

// The vendor may hold hyphens, the product never does; neither is trimmed.
TEST(Names, NvmeModelSplitsAtTheLastHyphen)
{
    const struct {
        const char *model;
        const char *ids;  // "vendor|product"; null: refused
    } cases[] = {{"NOHYPHEN", nullptr}, {"ABCD-EFGH-X1", nullptr}, {"A-0123456789ABCDEFG", nullptr},
                 {"ABCD-X1", "ABCD|X1"}, {"ABCDEFGH-0123456789ABCDEF", "ABCDEFGH|0123456789ABCDEF"},
                 {"A-B-C", "A-B|C"}, {"-X1", "|X1"}, {"ABCD-", "ABCD|"}, {"AB  -X1 ", "AB  |X1 "}};
    for (const auto &c : cases) {
        Ids out;
        EXPECT_EQ(UTIL_NvmeParseVendorProductByModel(out.vendor, 9, out.product, 17, c.model),
                  c.ids ? UDEV_RET_OK : UDEV_RET_FAIL) << c.model;
        EXPECT_TRUE(c.ids == nullptr || out.Text() == c.ids) << c.model << ": " << out.Text();
    }
    Ids out;
    EXPECT_EQ(UTIL_NvmeParseVendorProductByModel(out.vendor, 9, out.product, 17, nullptr), UDEV_RET_FAIL);
    EXPECT_EQ(UTIL_NvmeParseVendorProductByModel(out.vendor, -1, out.product, 17, "A-B"), UDEV_RET_FAIL);
}

// Vendor and model must fit 9 and 17 bytes as the kernel pads them, then
// lose their trailing blanks (only those).
TEST(Names, ScsiVendorAndProductAreCopiedThenTrimmed)
{
    qmtest::TraceCapture trace;
    const struct {
        bool vendor;      // the text is the vendor's, else the model's
        Opt text;         // the attribute; nullopt: missing
        const char *ids;  // "vendor|product"; else the expected record
        bool ok;
    } cases[] = {
        {true, std::nullopt, "get vendor id fail.\n", false},
        {true, "QUILLMESH", "sprintf_s vendor{QUILLMESH} fail.\n", false},
        {true, "QUILL   ", "QUILL|VDISK", true},
        {true, "HP  CO  ", "HP  CO|VDISK", true},
        {false, std::nullopt, "get product id fail with vendor{QMESH   }.\n", false},
        {false, "0123456789ABCDEFG", "sprintf_s product{0123456789ABCDEFG} fail.\n", false},
        {false, "0123456789ABCDEF", "QMESH|0123456789ABCDEF", true},
        {false, "V DISK          ", "QMESH|V DISK", true},
    };
    qmlab::Testbed bed;
    int index = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text.value_or("(missing)"));
        qmlab::ScsiIdentity id;
        (c.vendor ? id.vendor : id.model) = c.text.value_or("");
        std::string holder = bed.AddLocalDisk({.lun = index++, .id = id}).scsiDevice;
        if (!c.text) {
            bed.RemoveAttribute(holder, c.vendor ? "vendor" : "model");
        }
        UdevDevicePtr dev = qmtest::Device(holder);
        Ids out;
        ASSERT_EQ(INTF_UTIL_GetScsiVendorProduct(dev.get(), out.vendor, 9, out.product, 17),
                  c.ok ? UDEV_RET_OK : UDEV_RET_FAIL);
        EXPECT_TRUE(c.ok ? out.Text() == c.ids : trace.Added().find(c.ids) != std::string::npos) << out.Text();
    }
}

// "%i" each: hex and leading-zero octal count; all four must be there.
TEST(Names, ScsiAddressFromTheScsiDevicesName)
{
    qmtest::TraceCapture trace;
    qmtest::TempDir dir;
    qmtest::WriteFile(dir.File("qm_plus.conf"), "[vendors]\nvendor_id=QMESH,product_id=VDISK\n");
    ASSERT_TRUE(UDEV_InitConfigFromPath(dir.File("qm_plus.conf").c_str()));
    const struct {
        const char *name;
        const char *hctl;  // null: refused
    } cases[] = {{"2:0:1", nullptr}, {"2:0:1:x", nullptr}, {"a:b:c:d", nullptr}, {"host9", nullptr},
                 {"2:0:1:3", "2:0:1:3"}, {"0x2:010:1:0x10", "2:8:1:16"}, {"-1:0:0:2147483647", "-1:0:0:2147483647"}};
    qmlab::Testbed bed;
    unsigned minor = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string scsi = bed.AddDevice("scsi", c.name, "", {{"vendor", "QMESH"}, {"model", "VDISK"}},
                                         {{"DEVTYPE", "scsi_device"}});
        NodePtr node = Node(bed.AddBlock({.name = "sdz" + std::to_string(minor), .major = 65, .minor = minor++,
                                          .parent = scsi}),
                            "65:x scsi ");
        EXPECT_EQ(UDEV_ScsiInitAddEventNodeInfo(node->udevDev, node.get()), c.hctl ? UDEV_RET_OK : UDEV_RET_FAIL);
        // The vendor's words come first; the numbers' text is made from the node's fields.
        EXPECT_EQ(node->devInfo, "65:x scsi QMESH VDISK " + std::string(c.hctl ? c.hctl : ""));
    }
}

// The host and target from "nvme<h>n<t>", the channel and LUN from the
// namespace's "cntlid" and "nsid" as atoi reads them, saturated.
TEST(Names, NvmeAddressFromNameAndAttributes)
{
    const struct {
        const char *name;
        std::string nsid;  // "": no attribute
        Opt cntlid;
        const char *hctl;  // null: refused
    } cases[] = {
        {"nvme0c1n1", "1", std::nullopt, nullptr}, {"nvmeXn1", "1", std::nullopt, nullptr},
        {"nvme3n", "1", std::nullopt, nullptr},    {"nvme3n2", "2", std::nullopt, "3:0:2:2"},
        {"nvme3n3", "", std::nullopt, "3:0:3:0"},  {"nvme3n4", "abc", "x1", "3:0:4:0"},
        {"nvme3n5", "  12abc", "+4", "3:4:5:12"},  {"nvme3n6", "-3", "\x01\xff", "3:0:6:-3"},
        {"nvme3n7", "99999999999999999999", "-99999999999999999999", "3:-2147483648:7:2147483647"},
    };
    qmlab::Testbed bed;
    qmlab::NvmeController ctrl = bed.AddNvmeController({.instance = 3});  // its own cntlid is "1"
    unsigned minor = 100;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qmlab::BlockSpec spec{.name = c.name, .major = 259, .minor = minor++, .parent = ctrl.syspath};
        if (!c.nsid.empty()) {
            spec.attributes.push_back({"nsid", c.nsid});
        }
        if (c.cntlid) {
            spec.attributes.push_back({"cntlid", *c.cntlid});
        }
        NodePtr node = Node(bed.AddBlock(spec), "259:0 nvme ");
        EXPECT_EQ(UDEV_NvmeInitEventNodeHctl(node->udevDev, node.get()), c.hctl ? UDEV_RET_OK : UDEV_RET_FAIL);
        EXPECT_EQ(node->devInfo, "259:0 nvme " + std::string(c.hctl ? c.hctl : ""));
    }
}

}  // namespace

namespace {

// The SAN-boot arguments: the boot LUN's WWN is 34 characters, hexadecimal
// digits after an optional "0x"; the filter then takes that WWN alone (or a
// disk without one). A partition name is digits and lower-case letters.
TEST(Names, SanbootWwnAndPartitionName)
{
    const std::string hex = "0123456789abcdefABCDEF0123456789";
    const struct {
        std::string wwn;
        bool taken;
    } wwns[] = {{"0x" + hex.substr(1) + "g", false}, {"0X" + hex, false},     {"0x" + hex.substr(1), false},
                {"0x" + hex + "0", false},            {"x0" + hex, false},     {"0x" + hex, true},
                {"12" + hex, true}};
    for (const auto &row : wwns) {
        EXPECT_EQ(UDEV_SetSanbootWwn(row.wwn.c_str(), static_cast<int>(row.wwn.size())), row.taken) << row.wwn;
    }
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(("12" + hex).c_str()));
    EXPECT_TRUE(UDEV_FilterDeviceByWwn(nullptr));
    for (const std::string &other : {"0x" + hex, "12" + hex.substr(0, 31), "12" + hex + "0"}) {
        EXPECT_FALSE(UDEV_FilterDeviceByWwn(other.c_str())) << other;
    }
    for (const char *name : {"", "sda2", "nvme0n1p1", "0"}) {
        EXPECT_TRUE(UDEV_IsValidPartName(name)) << name;
    }
    for (const char *name : {"Sda", "sd/a", "sd-a", "sd_a", "sda "}) {
        EXPECT_FALSE(UDEV_IsValidPartName(name)) << name;
    }
    EXPECT_FALSE(UDEV_IsValidPartName(nullptr));
}

}  // namespace
