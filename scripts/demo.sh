#!/usr/bin/env bash
# Builds qmudev and runs its main job in the emulation lab: emulated FC,
# iSCSI and NVMe disks, an emulated driver behind /dev/misc_qmnv, all in a
# private mount namespace. Prints what the driver received, the time-outs
# written to sysfs, the notifications and the trace log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${QMUDEV_OUT:-$top/out}
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$out/plain" >/dev/null
exec "$out/plain/lab/qmudev-lab-demo" "$@"
