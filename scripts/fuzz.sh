#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one for a bounded
# time on a copy of its seed corpus. Fails on any crash, leak, time-out,
# sanitizer report or failed harness check.
#
#   scripts/fuzz.sh [BUILD_DIR]            (default: ./build-fuzz)
#
# Environment:
#   QMUDEV_FUZZ_SECONDS  seconds per target (default 60; 0: only a pass over
#                        the seed corpus, a quick regression check)
#   QMUDEV_FUZZ_TARGETS  blank-separated subset of targets (default: all)
#   QMUDEV_FUZZ_JOBS     build parallelism (default: number of cores)
#   QMUDEV_FUZZ_PARALLEL targets fuzzed at the same time (default: number of
#                        cores; each libFuzzer process uses one)
#
# New inputs found during the run stay under BUILD_DIR/fuzz-run; the seed
# corpora in the repository are only read.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-fuzz}
mkdir -p "$build"
build=$(cd "$build" && pwd)
seconds=${QMUDEV_FUZZ_SECONDS:-60}
jobs=${QMUDEV_FUZZ_JOBS:-$(nproc)}
parallel=${QMUDEV_FUZZ_PARALLEL:-$(nproc)}
all_targets="fuzz_bounds fuzz_config fuzz_misc_get fuzz_devinfo"
targets=${QMUDEV_FUZZ_TARGETS:-$all_targets}

case "$seconds$parallel" in
  *[!0-9]*) echo "QMUDEV_FUZZ_SECONDS and QMUDEV_FUZZ_PARALLEL must be whole numbers" >&2; exit 2 ;;
esac
[ "$parallel" -ge 1 ] || parallel=1

start=$(date +%s)

# The build dependencies of the daemon, plus clang and its fuzzer and
# sanitizer runtimes.
need=(clang-14 libclang-rt-14-dev)
bash "$top/scripts/deps.sh" "${need[@]}"

echo "== fuzz: configure and build in $build"
CC=clang-14 CXX=clang++-14 cmake -S "$top" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQMUDEV_FUZZ=ON -DQMUDEV_TESTS=OFF -DQMUDEV_BENCH=OFF >"$build/configure.log" 2>&1 ||
  { cat "$build/configure.log"; exit 1; }
cmake --build "$build" --target fuzz_all -j"$jobs"
built=$(date +%s)
echo "== fuzz: build took $((built - start)) s"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

run_root="$build/fuzz-run"

# Runs one target; leaves "ok N" or "failed" in $work/result.
run_target() {
  local t=$1 bin="$build/fuzz/$1" work="$run_root/$1"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  if [ ! -x "$bin" ]; then
    echo "not built" >"$work/fuzz.log"
    echo failed >"$work/result"
    return
  fi
  if [ -d "$top/fuzz/corpus/$t" ]; then
    cp -R "$top/fuzz/corpus/$t/." "$work/corpus/"
  fi
  local opts
  # 0 seconds: one pass over the seeds only (libFuzzer reads
  # -max_total_time=0 as "no limit").
  if [ "$seconds" -eq 0 ]; then
    opts=(-runs=0)
  else
    opts=(-max_total_time="$seconds")
  fi
  opts+=(-rss_limit_mb=2048 -timeout=10 -print_final_stats=1 -use_value_profile=1
         -artifact_prefix="$work/artifacts/")
  if [ -f "$top/fuzz/$t.dict" ]; then
    opts+=(-dict="$top/fuzz/$t.dict")
  fi
  case "$t" in
    fuzz_config) opts+=(-max_len=2048) ;;
  esac
  local log="$work/fuzz.log" status=0
  (cd "$work" && "$bin" "${opts[@]}" "$work/corpus") >"$log" 2>&1 || status=$?
  # libFuzzer's exit status covers crashes, leaks and time-outs; the grep
  # also catches a sanitizer report that did not end the process.
  if [ "$status" -ne 0 ] ||
     grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|fuzz check failed' "$log"; then
    echo "failed (exit $status)" >"$work/result"
  else
    echo "ok $(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)" >"$work/result"
  fi
}

# libFuzzer runs on one core: as many targets at a time as there are cores.
echo "== fuzz: $seconds s per target, $parallel at a time"
for t in $targets; do
  while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do
    wait -n || true
  done
  echo "== fuzz: start $t"
  run_target "$t" &
done
wait

passed=0
failed=0
failed_names=()
for t in $targets; do
  work="$run_root/$t"
  result=$(cat "$work/result" 2>/dev/null || echo "failed (no result)")
  case "$result" in
    ok*)
      echo "== fuzz: $t ok, ${result#ok } inputs"
      passed=$((passed + 1))
      ;;
    *)
      echo "== fuzz: $t FAILED: $result; log: $work/fuzz.log" >&2
      grep -E -A40 'ERROR:|runtime error:|fuzz check failed' "$work/fuzz.log" | head -n 80 >&2 ||
        tail -n 40 "$work/fuzz.log" >&2
      ls -l "$work/artifacts" >&2 || true
      failed=$((failed + 1))
      failed_names+=("$t")
      ;;
  esac
done

end=$(date +%s)
echo "== fuzz: total $((end - start)) s (build $((built - start)) s)"
if [ "$failed" -gt 0 ]; then
  echo "== fuzz: failed: ${failed_names[*]}" >&2
fi
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
