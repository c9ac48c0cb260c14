// Transport time-outs: FC remote port, iSCSI session and SCSI device
// attributes written from the settings, only when they differ.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/udev_testbed.h"
#include "udev_protocol.h"
#include "udev_timeout.h"
#include "util_ret.h"

using namespace qmtest;

namespace {

// The node that the SCSI enrichment makes for the default FC disk.
NodeHolder FcNode(int transportId = 7)
{
    NodeHolder holder;
    std::strcpy(holder.node.devNum, "8:32");
    holder.node.host = 2;
    holder.node.channel = 0;
    holder.node.target = 1;
    holder.node.lun = 3;
    holder.node.transportType = UDEV_TRANSPORT_FCP;
    holder.node.transportId = transportId;
    return holder;
}

ScsiDiskSpec IscsiSpec()
{
    ScsiDiskSpec spec;
    spec.transport = Transport::ISCSI;
    spec.portName = "session5";
    return spec;
}

NodeHolder IscsiNode(int session = 5)
{
    NodeHolder holder = FcNode(session);
    holder.node.transportType = UDEV_TRANSPORT_ISCSI;
    return holder;
}

class TimeoutTest : public ::testing::Test {
protected:
    Testbed bed_;
    ProtocolHandle handle_;
};

// ---- one attribute ---------------------------------------------------------------

class AttrVal : public TimeoutTest {
protected:
    std::string Device(const Attrs &attrs)
    {
        return bed_.Add("scsi", "9:0:0:0", "", attrs);
    }
};

TEST_F(AttrVal, MissingAttributeFails)
{
    UdevDevicePtr dev = bed_.Device(Device({}));
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(dev.get(), "timeout", "30"));
    EXPECT_TRUE(log.Has("get udev device's attr{timeout} to val{30} fail.\n"));
}

TEST_F(AttrVal, RefusedWriteFailsWithTheErrorNumber)
{
    std::string path = Device({{"timeout", "60"}});
    ReadOnlyAttr readOnly(bed_, path, "timeout");
    UdevDevicePtr dev = bed_.Device(path);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(dev.get(), "timeout", "30"));
    EXPECT_TRUE(log.Has("set udev device's attr{timeout} val{60 to 30} fail. error{13}\n"));
    EXPECT_EQ("60", bed_.FirstLine(path, "timeout"));
}

TEST_F(AttrVal, OverLongWantedValueFails)
{
    std::string path = Device({{"timeout", "60"}});
    UdevDevicePtr dev = bed_.Device(path);
    std::string wanted(32, '1');
    LogCapture log;
    EXPECT_EQ(UDEV_RET_FAIL, UDEV_SetUdevDeviceAttrVal(dev.get(), "timeout", wanted.c_str()));
    EXPECT_TRUE(log.Has("sprintf_s value{" + wanted + "} fail.\n"));
    EXPECT_EQ("60", bed_.FirstLine(path, "timeout"));
}

TEST_F(AttrVal, EqualValueIsNotWritten)
{
    std::string path = Device({{"timeout", "30"}});
    // Unwritable: any attempt to write would fail the call.
    ReadOnlyAttr readOnly(bed_, path, "timeout");
    UdevDevicePtr dev = bed_.Device(path);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_OK, UDEV_SetUdevDeviceAttrVal(dev.get(), "timeout", "30"));
    EXPECT_TRUE(log.Has("get udev device's attr{timeout} also is val{30}.\n"));
}

struct WriteCase {
    const char *name;
    std::string current;
    const char *wanted;
    std::string log;
};

class AttrValWrites : public AttrVal, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(AttrValWrites, DifferentTextIsWritten)
{
    const WriteCase &c = GetParam();
    std::string path = Device({{"timeout", c.current}});
    UdevDevicePtr dev = bed_.Device(path);
    LogCapture log;
    EXPECT_EQ(UDEV_RET_OK, UDEV_SetUdevDeviceAttrVal(dev.get(), "timeout", c.wanted));
    EXPECT_EQ(c.wanted, bed_.FirstLine(path, "timeout"));
    EXPECT_TRUE(log.Has(c.log)) << c.log;
}

INSTANTIATE_TEST_SUITE_P(
    Values, AttrValWrites,
    ::testing::Values(
        WriteCase{"Plain", "60", "30", "set udev device's attr{timeout} val{60 to 30} success.\n"},
        WriteCase{"TextualCompare", "05", "5", "set udev device's attr{timeout} val{05 to 5} success.\n"},
        WriteCase{"TrailingBlank", "30 ", "30", "set udev device's attr{timeout} val{30  to 30} success.\n"},
        WriteCase{"LongCurrentValue", std::string(40, '8'), "5",
                  "set udev device's attr{timeout} val{ to 5} success.\n"},
        WriteCase{"ThirtyTwoCharCurrent", std::string(32, '8'), "5",
                  "sprintf_s value{" + std::string(32, '8') + "}.\n"},
        WriteCase{"ThirtyOneCharCurrent", std::string(31, '8'), "5",
                  "set udev device's attr{timeout} val{" + std::string(31, '8') + " to 5} success.\n"}),
    [](const auto &info) { return std::string(info.param.name); });

// ---- FC remote port ------------------------------------------------------------------

TEST_F(TimeoutTest, MissingRemotePortIsLogged)
{
    AddScsiDisk(bed_);
    NodeHolder holder = FcNode(9);
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("device{8:32} port{rport-2:0-9} get udev device fail.\n"));
}

TEST_F(TimeoutTest, FailedDevLossSkipsFastIoFail)
{
    ScsiDisk disk = AddScsiDisk(bed_);
    ReadOnlyAttr readOnly(bed_, disk.portClass, "dev_loss_tmo");
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_EQ(1u, log.Count("device{8:32} set rport{rport-2:0-7} dev_loss_tmo fail.\n"));
    EXPECT_EQ("30", bed_.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_EQ("25", bed_.FirstLine(disk.portClass, "fast_io_fail_tmo"));
    EXPECT_FALSE(log.Contains("fast_io_fail_tmo"));
}

TEST_F(TimeoutTest, FailedFastIoFailIsReportedUnderDevLossName)
{
    ScsiDisk disk = AddScsiDisk(bed_);
    ReadOnlyAttr readOnly(bed_, disk.portClass, "fast_io_fail_tmo");
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_EQ("5", bed_.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_TRUE(log.Has("set udev device's attr{fast_io_fail_tmo} val{25 to 4} fail. error{13}\n"));
    EXPECT_EQ(1u, log.Count("device{8:32} set rport{rport-2:0-7} dev_loss_tmo fail.\n"));
}

TEST_F(TimeoutTest, MissingDevLossAttributeSkipsFastIoFail)
{
    ScsiDiskSpec spec;
    spec.portAttrs = {{"fast_io_fail_tmo", "25"}};
    ScsiDisk disk = AddScsiDisk(bed_, spec);
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("get udev device's attr{dev_loss_tmo} to val{5} fail.\n"));
    EXPECT_EQ("25", bed_.FirstLine(disk.portClass, "fast_io_fail_tmo"));
}

TEST_F(TimeoutTest, DevLossAlreadySetStillHandlesFastIoFail)
{
    ScsiDiskSpec spec;
    spec.portAttrs = {{"dev_loss_tmo", "5"}, {"fast_io_fail_tmo", "25"}};
    ScsiDisk disk = AddScsiDisk(bed_, spec);
    ReadOnlyAttr readOnly(bed_, disk.portClass, "dev_loss_tmo");
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("get udev device's attr{dev_loss_tmo} also is val{5}.\n"));
    EXPECT_EQ("4", bed_.FirstLine(disk.portClass, "fast_io_fail_tmo"));
    EXPECT_FALSE(log.Contains("fail."));
}

TEST_F(TimeoutTest, FcPortGetsConfiguredValues)
{
    TimeoutSettings settings("dev_loss_tmo = 30\nfast_io_fail_tmo=12;\n");
    ScsiDiskSpec spec;
    spec.portAttrs = {{"dev_loss_tmo", "60"}, {"fast_io_fail_tmo", "25"}};
    ScsiDisk disk = AddScsiDisk(bed_, spec);
    NodeHolder holder = FcNode();
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_EQ("30", bed_.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_EQ("12", bed_.FirstLine(disk.portClass, "fast_io_fail_tmo"));
    EXPECT_EQ("60", bed_.FirstLine(disk.scsi, "timeout"));  // the HBA step leaves the device alone
}

TEST_F(TimeoutTest, UnknownTransportWritesNoHbaTimeOut)
{
    ScsiDisk disk = AddScsiDisk(bed_);
    for (int transport : {UDEV_TRANSPORT_UNKNOWN, 1, -1}) {
        NodeHolder holder = FcNode();
        holder.node.transportType = transport;
        LogCapture log;
        UDEV_SetHbaTimeOut(&holder.node);
        EXPECT_TRUE(log.Lines().empty());
    }
    EXPECT_EQ("30", bed_.FirstLine(disk.portClass, "dev_loss_tmo"));
    EXPECT_EQ("25", bed_.FirstLine(disk.portClass, "fast_io_fail_tmo"));
}

// ---- iSCSI session -------------------------------------------------------------------

TEST_F(TimeoutTest, MissingSessionIsLogged)
{
    AddScsiDisk(bed_, IscsiSpec());
    NodeHolder holder = IscsiNode(9);
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("dev{8:32} get session{session9} udev device fail.\n"));
}

TEST_F(TimeoutTest, RefusedRecoveryWriteIsLogged)
{
    ScsiDisk disk = AddScsiDisk(bed_, IscsiSpec());
    ReadOnlyAttr readOnly(bed_, disk.portClass, "recovery_tmo");
    NodeHolder holder = IscsiNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("dev{8:32} set session{session5} recovery_tmo fail.\n"));
}

TEST_F(TimeoutTest, SessionGetsRecoveryTimeOut)
{
    ScsiDisk disk = AddScsiDisk(bed_, IscsiSpec());
    NodeHolder holder = IscsiNode();
    UDEV_SetHbaTimeOut(&holder.node);
    EXPECT_EQ("5", bed_.FirstLine(disk.portClass, "recovery_tmo"));
}

// ---- SCSI device ---------------------------------------------------------------------

TEST_F(TimeoutTest, MissingScsiDeviceIsLogged)
{
    AddScsiDisk(bed_);
    NodeHolder holder = FcNode();
    holder.node.lun = 9;
    LogCapture log;
    UDEV_SetScsiDeviceTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("device{8:32,2:0:1:9} get udev device fail.\n"));
}

TEST_F(TimeoutTest, MissingTimeoutAttributeIsLogged)
{
    ScsiDiskSpec spec;
    spec.timeout.reset();
    AddScsiDisk(bed_, spec);
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetScsiDeviceTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("device{8:32,2:0:1:3} set timeout fail.\n"));
}

TEST_F(TimeoutTest, ScsiDeviceGetsItsTimeOutWhateverTheTransport)
{
    TimeoutSettings settings("scsi_timeout = 45\n");
    ScsiDisk disk = AddScsiDisk(bed_);
    NodeHolder holder = FcNode();
    holder.node.transportType = UDEV_TRANSPORT_UNKNOWN;
    UDEV_SetScsiDeviceTimeOut(&holder.node);
    EXPECT_EQ("45", bed_.FirstLine(disk.scsi, "timeout"));
}

TEST_F(TimeoutTest, WithoutProtocolContextNothingIsFound)
{
    ScsiDisk disk = AddScsiDisk(bed_);
    UDEV_ProtocolReleaseHandle();
    NodeHolder holder = FcNode();
    LogCapture log;
    UDEV_SetHbaTimeOut(&holder.node);
    UDEV_SetScsiDeviceTimeOut(&holder.node);
    EXPECT_TRUE(log.Has("device{8:32} port{rport-2:0-7} get udev device fail.\n"));
    EXPECT_TRUE(log.Has("device{8:32,2:0:1:3} get udev device fail.\n"));
    EXPECT_EQ("60", bed_.FirstLine(disk.scsi, "timeout"));
}

}  // namespace
