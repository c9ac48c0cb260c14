#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh DIR [cmake options...]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
ninja -C "$dir" -j"$(nproc)"
