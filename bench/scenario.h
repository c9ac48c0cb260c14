// What the benchmark's scenario and the floor program agree on: the accepted
// vendors and the time-out values that the testbed already holds (so that
// neither program writes an attribute and both do the same reads).
#pragma once

namespace qmbench {

// The vendor list accepts these (the lab's default disks).
inline constexpr const char *kScsiVendor = "QMESH";
inline constexpr const char *kScsiProduct = "VDISK";
inline constexpr const char *kNvmeVendor = "QMESH";
inline constexpr const char *kNvmeProduct = "NVDISK";

// Time-out settings of the scenario; the testbed's attributes are generated
// with the same values.
inline constexpr const char *kDevLossTmo = "30";
inline constexpr const char *kFastIoFailTmo = "5";
inline constexpr const char *kRecoveryTmo = "120";
inline constexpr const char *kScsiTimeout = "30";

inline constexpr const char *kTimeoutConfig =
    "dev_loss_tmo = 30\n"
    "fast_io_fail_tmo = 5\n"
    "recovery_tmo = 120\n"
    "scsi_timeout = 30\n";

// The floor's trace file, beside the daemon's.
inline constexpr const char *kFloorTracePath = "/opt/Quillmesh_NVMe/log/qm_floor_log.txt";

}  // namespace qmbench
