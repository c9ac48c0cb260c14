#!/usr/bin/env bash
# Runs every test of qmudev from scratch, as root on Debian 12:
#  - unit and lab tests in three builds: plain, ASan+UBSan, TSan;
#  - the fuzz targets, each for a bounded time;
#  - the benchmark's smallest scenario, as a smoke test;
#  - the Debian package and the service unit checks.
# With --quick: the plain build's unit and lab tests only.
# Build trees go to $QMUDEV_OUT (default: ./out). Builds run one after the
# other, each with every core, and are reused by the steps after them.
set -euo pipefail
quick=false
case "${1:-}" in
  --quick) quick=true ;;
  "") ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac
top=$(cd "$(dirname "$0")/.." && pwd)
out=${QMUDEV_OUT:-$top/out}

bash "$top/scripts/deps.sh"
rm -rf "$out"
mkdir -p "$out"

passed=0
failed=0
started=$SECONDS
stamp() { echo "== [$(( (SECONDS - started) / 60 ))m$(( (SECONDS - started) % 60 ))s] $*"; }
run_ctest() {  # run_ctest BUILD-NAME [ctest options]
  local name=$1
  shift
  stamp "ctest: $name"
  local log="$out/ctest-$name.log"
  if (cd "$out/$name" && ctest --output-on-failure --no-tests=error -j"$(nproc)" "$@") 2>&1 | tee "$log"; then
    :
  else
    failed=$((failed + 1))
  fi
  local total fails
  total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2/p' "$log" | tail -n1)
  fails=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n1)
  passed=$((passed + ${total:-0} - ${fails:-0}))
  failed=$((failed + ${fails:-0}))
}

step() {  # step NAME COMMAND...: a non-test step that must succeed
  stamp "$1"
  shift
  if ! "$@"; then
    failed=$((failed + 1))
  fi
}

stamp "build: plain"
bash "$top/scripts/build.sh" "$out/plain"
run_ctest plain
if $quick; then
  stamp "done"
  echo "qmudev (quick): $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
fi

stamp "build: asan+ubsan"
bash "$top/scripts/build.sh" "$out/asan" -DQMUDEV_SANITIZE=address -DQMUDEV_BENCH=OFF
run_ctest asan

stamp "build: tsan"
bash "$top/scripts/build.sh" "$out/tsan" -DQMUDEV_SANITIZE=thread -DQMUDEV_BENCH=OFF
run_ctest tsan

step "fuzz" bash "$top/scripts/fuzz.sh" "$out/fuzz"
step "bench smoke" bash "$top/scripts/bench.sh" --smoke "$out/plain"
step "package" bash "$top/scripts/check-package.sh" "$out/plain"

stamp "done"
echo "qmudev: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
