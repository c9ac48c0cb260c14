#!/usr/bin/env bash
# Builds the qmudev Debian package and checks it, as root on Debian 12:
#   scripts/check-package.sh [BUILD-DIR]
# BUILD-DIR is a configured build tree of this source (it is brought up to
# date), or a directory to configure a new one in (default: out/package).
# The package lands in BUILD-DIR/deb.
#
# Checks: the control fields, the exact file list with owners and modes, the
# conffiles, the maintainer scripts, `systemd-analyze verify` of the unit in
# the unpacked package, the manual page rendered with man and groff, the
# log rotation snippet run for real on a scratch copy, and the tmpfiles
# snippet applied to the unpacked package. Nothing is installed on this host
# except the tools the checks need (apt-get); the package is only unpacked
# into a scratch directory.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)

if [ "$(id -u)" -ne 0 ]; then
  echo "check-package: run as root (apt-get, and the package's root-owned files)" >&2
  exit 2
fi

# Build tools plus what the checks use: dpkg-dev (dpkg-shlibdeps), systemd
# (systemd-analyze, systemd-tmpfiles), man-db and groff-base, logrotate.
bash "$top/scripts/deps.sh" dpkg-dev systemd man-db groff-base logrotate gzip

scratch=$(mktemp -d "${TMPDIR:-/tmp}/qmudev-package.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

build=$(realpath -m "${1:-$top/out/package}")
if [ ! -f "$build/CMakeCache.txt" ]; then
  echo "== configure $build"
  cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQMUDEV_TESTS=OFF >/dev/null
fi
echo "== build $build"
cmake --build "$build" -j"$(nproc)"

# The install rules write to absolute paths (/etc, /opt, /lib/systemd); CPack
# must stage them with DESTDIR, or they would land on this host.
if ! grep -q '^set(CPACK_SET_DESTDIR "ON")' "$build/CPackConfig.cmake"; then
  echo "check-package: CPackConfig.cmake does not stage with DESTDIR; refusing to run cpack" >&2
  exit 1
fi

echo "== cpack"
rm -rf "$build/deb"
(cd "$build" && cpack -G DEB -B "$build/deb" --config "$build/CPackConfig.cmake")
debs=("$build"/deb/*.deb)
if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
  echo "check-package: expected one .deb in $build/deb, found: ${debs[*]}" >&2
  exit 1
fi
deb=${debs[0]}

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
ok() {
  echo "ok: $*"
}
expect() {  # expect DESCRIPTION COMMAND...: ok when the command succeeds
  local what=$1
  shift
  if "$@"; then
    ok "$what"
  else
    fail "$what"
  fi
}

echo "== dpkg-deb --info $deb"
dpkg-deb --info "$deb"
echo "== dpkg-deb --contents $deb"
dpkg-deb --contents "$deb" | tee "$scratch/contents"

# --- control fields ---
field() { dpkg-deb --field "$deb" "$1"; }
expect "Package: $(field Package) (qmudev)" [ "$(field Package)" = qmudev ]
expect "Maintainer: $(field Maintainer)" [ -n "$(field Maintainer)" ]
expect "Description present" [ -n "$(field Description)" ]
expect "Architecture: $(field Architecture) ($(dpkg --print-architecture))" \
  [ "$(field Architecture)" = "$(dpkg --print-architecture)" ]
depends=$(field Depends)
for dep in libudev1 libsystemd0 udev; do
  if printf '%s\n' "$depends" | tr ',' '\n' | grep -qE "^ *$dep( |\$)"; then
    ok "Depends on $dep"
  else
    fail "Depends lacks $dep: $depends"
  fi
done

# --- file list: exactly these, with these owners and modes ---
expected_files="-rw-r--r-- root/root ./etc/logrotate.d/qmudev
-rw-r--r-- root/root ./etc/qmLinux.conf
-rw-r--r-- root/root ./etc/qm_plus.conf
-rw-r--r-- root/root ./lib/systemd/system/qmudev.service
-rw-r--r-- root/root ./usr/lib/tmpfiles.d/qmudev.conf
-rwxr-xr-x root/root ./usr/sbin/qmudev
-rwxr-xr-x root/root ./usr/sbin/qmudevadm
-rw-r--r-- root/root ./usr/share/bash-completion/completions/qmudevadm
-rw-r--r-- root/root ./usr/share/doc/qmudev/examples/qmLinux.conf
-rw-r--r-- root/root ./usr/share/doc/qmudev/examples/qm_plus.conf
-rw-r--r-- root/root ./usr/share/man/man8/qmudev.8.gz
-rw-r--r-- root/root ./usr/share/man/man8/qmudevadm.8.gz"
expected_files=$(printf '%s\n' "$expected_files" | LC_ALL=C sort -k3)
actual_files=$(awk '$1 !~ /^d/ { print $1, $2, $6 }' "$scratch/contents" | LC_ALL=C sort -k3)
if [ "$actual_files" = "$expected_files" ]; then
  ok "file list, owners and modes"
else
  fail "file list differs from the expected one:"
  diff <(printf '%s\n' "$expected_files") <(printf '%s\n' "$actual_files") >&2 || true
fi
if awk '$1 ~ /^d/ && $6 == "./opt/Quillmesh_NVMe/log/" { found = 1 } END { exit !found }' "$scratch/contents"; then
  ok "trace directory /opt/Quillmesh_NVMe/log in the package"
else
  fail "no /opt/Quillmesh_NVMe/log/ directory in the package"
fi

# --- control area: conffiles and maintainer scripts ---
dpkg-deb --control "$deb" "$scratch/control"
expected_conffiles="/etc/logrotate.d/qmudev
/etc/qmLinux.conf
/etc/qm_plus.conf"
if [ -f "$scratch/control/conffiles" ] \
  && [ "$(LC_ALL=C sort "$scratch/control/conffiles")" = "$(printf '%s\n' "$expected_conffiles" | LC_ALL=C sort)" ]; then
  ok "conffiles: $(tr '\n' ' ' <"$scratch/control/conffiles")"
else
  fail "conffiles are not exactly: $(printf '%s' "$expected_conffiles" | tr '\n' ' ')"
fi
for script in postinst prerm postrm; do
  f="$scratch/control/$script"
  if [ -x "$f" ] && sh -n "$f"; then
    ok "$script is executable and parses"
  else
    fail "$script missing, not executable or not valid sh"
  fi
done

# --- unpacked package ---
root="$scratch/root"
dpkg-deb --extract "$deb" "$root"
for f in qm_plus.conf qmLinux.conf; do
  if cmp -s "$top/packaging/config/$f" "$root/etc/$f" \
    && cmp -s "$top/packaging/config/$f" "$root/usr/share/doc/qmudev/examples/$f"; then
    ok "/etc/$f is the sample from packaging/config"
  else
    fail "/etc/$f or its example copy differs from packaging/config/$f"
  fi
done

unit="$root/lib/systemd/system/qmudev.service"
expect "unit runs /usr/sbin/qmudev" grep -qx 'ExecStart=/usr/sbin/qmudev' "$unit"
expect "unit is Type=notify" grep -qx 'Type=notify' "$unit"

# systemd-analyze verify against the unpacked package: --root makes it find
# the unit and check that ExecStart's binary exists there; MANPATH lets its
# Documentation= check find the package's manual page. It exits 0 on
# warnings (unknown keys, bad values), so any output fails too.
echo "== systemd-analyze verify --root=<unpacked package> qmudev.service"
if MANPATH="$root/usr/share/man" SYSTEMD_LOG_COLOR=0 \
  systemd-analyze verify --root="$root" qmudev.service >"$scratch/verify.log" 2>&1 \
  && [ ! -s "$scratch/verify.log" ]; then
  ok "systemd-analyze verify: clean"
else
  cat "$scratch/verify.log" >&2
  fail "systemd-analyze verify"
fi

# The manual page as installed (compressed), through man and through groff.
page="$root/usr/share/man/man8/qmudev.8.gz"
echo "== man -l qmudev.8.gz"
if MANWIDTH=80 man --warnings -l "$page" >"$scratch/man.txt" 2>"$scratch/man.err" \
  && [ ! -s "$scratch/man.err" ]; then
  missing=""
  for section in NAME SYNOPSIS DESCRIPTION ARGUMENTS READINESS CONFIGURATION "TRACE LOG" \
    "REFUSED EVENTS" FILES "EXIT STATUS" "SEE ALSO"; do
    grep -q "^$section\$" "$scratch/man.txt" || missing="$missing [$section]"
  done
  if [ -z "$missing" ]; then
    ok "man -l renders without warnings ($(wc -l <"$scratch/man.txt") lines)"
  else
    fail "man page lacks sections:$missing"
  fi
else
  cat "$scratch/man.err" >&2
  fail "man -l qmudev.8.gz"
fi
if zcat "$page" | groff -man -ww -z 2>&1 | tee "$scratch/groff.err" >&2 && [ ! -s "$scratch/groff.err" ]; then
  ok "groff -man -ww: no warnings"
else
  fail "groff -man -ww warns"
fi

# The tool: its manual page, its bash completion, and the tool itself run
# from the unpacked package on the shipped configuration, which must pass.
page="$root/usr/share/man/man8/qmudevadm.8.gz"
missing=""
if MANWIDTH=80 man --warnings -l "$page" >"$scratch/adm-man.txt" 2>"$scratch/adm-man.err" \
  && [ ! -s "$scratch/adm-man.err" ]; then
  for section in NAME SYNOPSIS DESCRIPTION COMMANDS OPTIONS "EXIT STATUS" EXAMPLES FILES "SEE ALSO"; do
    grep -q "^$section\$" "$scratch/adm-man.txt" || missing="$missing [$section]"
  done
  expect "qmudevadm.8 renders without warnings and has every section${missing:+ (lacks$missing)}" [ -z "$missing" ]
else
  cat "$scratch/adm-man.err" >&2
  fail "man -l qmudevadm.8.gz"
fi
expect "groff -man -ww qmudevadm.8: no warnings" \
  sh -c '[ -z "$(zcat "$1" | groff -man -ww -z 2>&1)" ]' sh "$page"
expect "bash completion of qmudevadm parses" bash -n "$root/usr/share/bash-completion/completions/qmudevadm"
expect "qmudevadm --version" sh -c '"$1" --version | grep -qx "qmudevadm $2"' sh "$root/usr/sbin/qmudevadm" \
  "$(field Version | sed 's/-[^-]*$//')"
expect "qmudevadm verify passes the shipped configuration" \
  "$root/usr/sbin/qmudevadm" verify --vendors "$root/etc/qm_plus.conf" --settings "$root/etc/qmLinux.conf"

# tmpfiles: remove the trace directory from the unpacked tree and let
# systemd-tmpfiles make it again from the package's snippet.
rmdir "$root/opt/Quillmesh_NVMe/log"
if systemd-tmpfiles --root="$root" --create qmudev.conf && [ -d "$root/opt/Quillmesh_NVMe/log" ] \
  && [ "$(stat -c %a "$root/opt/Quillmesh_NVMe/log")" = 755 ]; then
  ok "tmpfiles.d snippet creates /opt/Quillmesh_NVMe/log"
else
  fail "tmpfiles.d snippet does not create /opt/Quillmesh_NVMe/log 0755"
fi

# logrotate: the package's snippet, pointed at a scratch trace file, rotates
# it for real (forced; the state file is scratch too).
lr="$scratch/logrotate"
mkdir -p "$lr/log"
chmod 755 "$lr" "$lr/log"
echo "[1][2024-05-01 10:00:00][00005342160000f2][INFO][UDEV  ][UDEV_Init: 242]scratch record" >"$lr/log/qm_udev_log.txt"
sed "s#/opt/Quillmesh_NVMe/log/#$lr/log/#" "$root/etc/logrotate.d/qmudev" >"$lr/qmudev"
if grep -q "^$lr/log/qm_udev_log.txt {" "$lr/qmudev" \
  && /usr/sbin/logrotate --force --state "$lr/state" "$lr/qmudev" \
  && [ -s "$lr/log/qm_udev_log.txt.1" ] && [ ! -e "$lr/log/qm_udev_log.txt" ]; then
  ok "logrotate snippet rotates the trace file"
else
  ls -l "$lr/log" >&2 || true
  fail "logrotate snippet"
fi

echo "package: $deb"
if [ "$failures" -ne 0 ]; then
  echo "check-package: $failures check(s) failed" >&2
  exit 1
fi
echo "check-package: all checks passed"
