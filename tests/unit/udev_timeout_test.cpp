// Transport time-outs: an attribute is written only when its text differs,
// and the lookups of session and SCSI device that fail. Values, order and
// the FC pair's failures are proven end to end (lab timeout tests).
#include <gtest/gtest.h>

#include <cstring>

#include "support/udev_support.h"
#include "udev_timeout.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

// The node that SCSI enrichment makes for the default FC disk 2:0:1:3.
NodeHolder Node(int transportType = UDEV_TRANSPORT_FCP, int transportId = 7)
{
    NodeHolder holder(nullptr, "8:32");
    holder.node.host = 2;
    holder.node.channel = 0;
    holder.node.target = 1;
    holder.node.lun = 3;
    holder.node.transportType = transportType;
    holder.node.transportId = transportId;
    return holder;
}

class TimeoutTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(UDEV_ProtocolInitHandle()); }
    void TearDown() override { UDEV_ProtocolReleaseHandle(); }

    Testbed bed_;
};

TEST_F(TimeoutTest, AttributeThatCannotBeReadOrWrittenFails)
{
    std::string dev = bed_.AddLocalDisk({.id = {.timeout = "60"}}).scsiDevice;
    UdevDevicePtr udevDev = Device(dev);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(udevDev.get(), "missing", "30"));
    EXPECT_TRUE(log.Has("get udev device's attr{missing} to val{30} fail.\n"));
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(udevDev.get(), "timeout", std::string(32, '1').c_str()));
    EXPECT_TRUE(log.Has("sprintf_s value{" + std::string(32, '1') + "} fail.\n"));
    ReadOnlyAttr readOnly(bed_, dev, "timeout");
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(udevDev.get(), "timeout", "30"));
    EXPECT_TRUE(log.Has("set udev device's attr{timeout} val{60 to 30} fail. error{13}\n"));
    EXPECT_EQ("60", bed_.Attribute(dev, "timeout"));
}

TEST_F(TimeoutTest, AttributeIsWrittenOnlyWhenItsTextDiffers)
{
    const struct {
        std::string current;
        const char *wanted;
        std::string log;
    } cases[] = {
        {"30", "30", "get udev device's attr{timeout} also is val{30}.\n"},
        {"60", "30", "set udev device's attr{timeout} val{60 to 30} success.\n"},
        {"05", "5", "set udev device's attr{timeout} val{05 to 5} success.\n"},
        {"30 ", "30", "set udev device's attr{timeout} val{30  to 30} success.\n"},
        {std::string(31, '8'), "5", "set udev device's attr{timeout} val{" + std::string(31, '8') + " to 5} success.\n"},
        {std::string(32, '8'), "5", "sprintf_s value{" + std::string(32, '8') + "}.\n"},
        {std::string(40, '8'), "5", "set udev device's attr{timeout} val{ to 5} success.\n"},
    };
    int lun = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log);
        std::string dev = bed_.AddLocalDisk({.lun = lun++, .id = {.timeout = c.current}}).scsiDevice;
        UdevDevicePtr udevDev = Device(dev);
        // Equal texts must not even try: the attribute refuses writes then.
        std::optional<ReadOnlyAttr> readOnly;
        if (c.current == c.wanted) {
            readOnly.emplace(bed_, dev, "timeout");
        }
        LogCapture log;
        EXPECT_EQ(UDEV_RET_OK, UDEV_SetUdevDeviceAttrVal(udevDev.get(), "timeout", c.wanted));
        ASSERT_TRUE(bed_.SyncAttributeWrites());  // the write is whole, as sysfs takes it
        EXPECT_EQ(c.wanted, bed_.Attribute(dev, "timeout"));
        EXPECT_TRUE(log.Has(c.log));
    }
}

TEST_F(TimeoutTest, VanishedSessionOrDeviceIsLogged)
{
    bed_.AddIscsiDisk();  // session5, 3:0:0:1
    NodeHolder noSession = Node(UDEV_TRANSPORT_ISCSI, 9);
    NodeHolder noLun = Node();
    noLun.node.lun = 9;
    LogCapture log;
    UDEV_SetHbaTimeOut(&noSession.node);
    UDEV_SetScsiDeviceTimeOut(&noLun.node);
    EXPECT_TRUE(log.Has("dev{8:32} get session{session9} udev device fail.\n"));
    EXPECT_TRUE(log.Has("device{8:32,2:0:1:9} get udev device fail.\n"));
}

}  // namespace
