#!/usr/bin/env bash
# Installs the Debian packages that building and testing qmudev need, when
# they are missing. Run as root on Debian 12.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libudev-dev libsystemd-dev
  googletest libgtest-dev libgmock-dev
  umockdev libumockdev-dev
  faketime libfaketime
  valgrind procps util-linux
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" != "install ok installed" ]; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
