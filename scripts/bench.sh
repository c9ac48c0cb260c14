#!/usr/bin/env bash
# Builds the scale benchmark if needed and runs it: the daemon against the
# floor of unavoidable work, at 1,000, 4,000 and 10,000 disks (bench/README.md).
#
#   bash scripts/bench.sh [--smoke] [BUILD_DIR] [-- BENCH OPTIONS...]
#
# BUILD_DIR: a build tree of the whole project with QMUDEV_BENCH on
# (default: out/bench, configured RelWithDebInfo here when missing).
# --smoke: only the smallest scenario, once, with the daemon's clock sped
# up; a check that the harness works and no ADD is lost (no timing is
# judged). Fails only when ADDs are lost or the harness breaks.
# Runs as root (the lab uses mount namespaces).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)

smoke=0
build=""
extra=()
while [ $# -gt 0 ]; do
  case "$1" in
    --smoke) smoke=1 ;;
    --) shift; extra=("$@"); break ;;
    -*) echo "bench.sh: unknown option $1" >&2; exit 2 ;;
    *) build=$1 ;;
  esac
  shift
done
build=${build:-$top/out/bench}
case "$build" in /*) ;; *) build=$PWD/$build ;; esac

if [ ! -f "$build/CMakeCache.txt" ]; then
  launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQMUDEV_BENCH=ON "${launcher[@]}"
fi
cmake --build "$build" --target qmudev-bench -- -j"$(nproc)"

bench=$build/bench/qmudev-bench
if [ ! -x "$bench" ]; then
  echo "bench.sh: $bench not built (QMUDEV_BENCH off, or the lab is missing)" >&2
  exit 1
fi
args=()
if [ "$smoke" = 1 ]; then
  args+=(--smoke)
fi
start=$(date +%s)
"$bench" "${args[@]}" "${extra[@]}"
echo "bench.sh: done in $(($(date +%s) - start)) s (load average now: $(cut -d' ' -f1-3 /proc/loadavg))"
