#!/usr/bin/env bash
# Builds the helper and runs every test: the normal build and the whole suite
# (its load test sends 60 command files, a minute at the helper's pace), a
# short seeded fuzzing run (root only), then the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer (without the load test).
# Stops at the first stage that fails, with a non-zero status.
#
#   bash tools/test.sh          # a few minutes
#   bash tools/test.sh --long   # the load test with 500 command files and a
#                               # fuzzing run of 5 minutes: about 15 minutes
#
# ZQIM_BUILD_DIR names the normal build directory (default: build); the
# sanitizer and fuzzer builds go next to it, as <dir>-asan and <dir>-fuzz.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
long=no
case "${1:-}" in
  --long) long=yes ;;
  "") ;;
  *) echo "usage: bash tools/test.sh [--long]" >&2; exit 2 ;;
esac
if [ "$long" = yes ]; then
  export ZQIM_LOAD_FILES=500
  fuzz_limit=(-max_total_time=300)
else
  fuzz_limit=(-runs=50000)
fi
bash tools/deps.sh

build=${ZQIM_BUILD_DIR:-build}
jobs=$(nproc)

echo "== normal build and tests"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs"
(cd "$build" && ctest --output-on-failure -j2)

echo "== fuzzing (short, seeded)"
if [ "$(id -u)" -eq 0 ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZQIM_FUZZ=ON -DZQIM_TESTS=OFF >/dev/null
  cmake --build "$build-fuzz" -j"$jobs" --target zqim_fuzzer
  run="$source_dir/$build-fuzz/run"
  rm -rf "$run" && mkdir -p "$run/corpus"
  # The fuzzer rebuilds its scratch tree for every input: on a tmpfs that is
  # thirty times faster than on disk.
  jail_base=$run
  if [ -d /dev/shm ] && [ -w /dev/shm ]; then jail_base=/dev/shm; fi
  jail=$(mktemp -d "$jail_base/zqim-fuzz-jail.XXXXXX")
  trap 'rm -rf "$jail"' EXIT
  status=0
  (cd "$run" && ZQIM_FUZZ_JAIL="$jail" "$source_dir/$build-fuzz/fuzz/zqim_fuzzer" \
     -seed=1 "${fuzz_limit[@]}" -timeout=60 -print_final_stats=1 \
     corpus "$source_dir/fuzz/corpus" >fuzz.log 2>&1) || status=$?
  # A unit that failed while the playground was the root was written there.
  find "$jail" -maxdepth 2 -type f \( -name 'crash-*' -o -name 'oom-*' -o -name 'timeout-*' \
    -o -name 'leak-*' \) -exec mv -t "$run" {} + 2>/dev/null || true
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$run/fuzz.log"
    echo "fuzz: FAILED (status $status); full output and failing inputs in $run" >&2
    exit "$status"
  fi
  grep -E '^(Done|stat::number_of_executed_units)' "$run/fuzz.log" || true
  rm -rf "$jail"
else
  echo "fuzz: skipped: confining the fuzzed operations with chroot needs root"
fi

echo "== sanitizer build and tests (ASan+UBSan, without the load test)"
cmake -S . -B "$build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZQIM_SANITIZE=ON >/dev/null
cmake --build "$build-asan" -j"$jobs"
(cd "$build-asan" && ctest --output-on-failure -j2 -E '^Load\.')
