#!/usr/bin/env bash
# Builds the helper and runs every test: the normal build and the whole suite
# (its load test sends 60 command files, a minute at the helper's pace), a
# short seeded fuzzing run (root, Linux), the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer (without the load test and
# the package test), then the macOS programs cross-built and checked
# (tools/macos-build.sh; on Linux).
# Stops at the first stage that fails, with a non-zero status.
#
#   bash tools/test.sh          # a few minutes
#   bash tools/test.sh --long   # the load test with 500 command files and a
#                               # fuzzing run of 5 minutes: about 15 minutes
#
# ZQIM_BUILD_DIR names the normal build directory (default: build); the
# sanitizer, fuzzer and macOS builds go next to it, as <dir>-asan,
# <dir>-fuzz and <dir>-macos.
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
  checker_limit=(-max_total_time=60)
else
  fuzz_limit=(-runs=25000)
  checker_limit=(-runs=10000)
fi
bash tools/deps.sh

build=${ZQIM_BUILD_DIR:-build}
# Homebrew's GoogleTest, where CMake would not look by itself.
if [ "$(uname)" = Darwin ] && command -v brew >/dev/null; then
  export CMAKE_PREFIX_PATH=${CMAKE_PREFIX_PATH:-$(brew --prefix)}
fi
jobs=$(getconf _NPROCESSORS_ONLN)

fuzzing=no
if [ "$(uname)" != Linux ]; then
  fuzz_skip="the fuzzer confines its inputs with Linux's chroot and needs LLVM's libFuzzer"
elif [ "$(id -u)" -ne 0 ]; then
  fuzz_skip="confining the fuzzed operations with chroot needs root"
else
  fuzzing=yes
fi
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

echo "== normal build and tests"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs"
# The suite spends most of its time waiting on the helper's once-a-second
# pace (the load test alone takes a minute), so the fuzzer and sanitizer
# trees build meanwhile; the suite's output follows when it is done.
(cd "$build" && ctest --output-on-failure -j2) >"$logs/ctest.log" 2>&1 &
suite=$!
build_others() {
  if [ "$fuzzing" = yes ]; then
    CC=clang CXX=clang++ cmake -S . -B "$build-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DZQIM_FUZZ=ON -DZQIM_TESTS=OFF >/dev/null || return
    cmake --build "$build-fuzz" -j"$jobs" --target zqim_fuzzer checker_fuzzer || return
  fi
  # Unoptimised: it builds faster, and the suite waits on files, not code.
  cmake -S . -B "$build-asan" -DCMAKE_BUILD_TYPE=Debug -DZQIM_SANITIZE=ON >/dev/null || return
  cmake --build "$build-asan" -j"$jobs"
}
build_status=0
build_others >"$logs/builds.log" 2>&1 || build_status=$?
suite_status=0
wait "$suite" || suite_status=$?
cat "$logs/ctest.log"
[ "$suite_status" -eq 0 ] || exit "$suite_status"
if [ "$build_status" -ne 0 ]; then
  cat "$logs/builds.log"
  echo "building the fuzzer or the sanitizer tree failed" >&2
  exit "$build_status"
fi

echo "== fuzzing (short, seeded)"
if [ "$fuzzing" = yes ]; then
  run="$source_dir/$build-fuzz/run"
  rm -rf "$run" && mkdir -p "$run/corpus"
  # The fuzzer rebuilds its scratch tree for every input: on a tmpfs that is
  # thirty times faster than on disk.
  jail_base=$run
  if [ -d /dev/shm ] && [ -w /dev/shm ]; then jail_base=/dev/shm; fi
  jail=$(mktemp -d "$jail_base/zqim-fuzz-jail.XXXXXX")
  trap 'rm -rf "$jail" "$logs"' EXIT
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
  # The checker alone, on any bytes: it must never crash nor hang.
  mkdir -p "$run/checker-corpus"
  (cd "$run" && "$source_dir/$build-fuzz/fuzz/checker_fuzzer" -seed=1 "${checker_limit[@]}" \
     -timeout=10 checker-corpus "$source_dir/fuzz/corpus" >checker.log 2>&1) ||
    { tail -n 40 "$run/checker.log"; echo "checker fuzz: FAILED; see $run" >&2; exit 1; }
  grep -E '^Done' "$run/checker.log" || true
else
  echo "fuzz: skipped: $fuzz_skip"
fi

echo "== sanitizer tests (ASan+UBSan, without the load and package tests)"
(cd "$build-asan" && ctest --output-on-failure -j2 -E '^(Load\.|package$)')

echo "== macOS cross-build (arm64 and x86_64, macOS 11.0 and later)"
if [ "$(uname)" = Darwin ]; then
  echo "macOS build: skipped: on a Mac the normal build above is the macOS build"
else
  status=0
  ZQIM_MACOS_BUILD_DIR=$build-macos bash tools/macos-build.sh || status=$?
  # It skips only without npm or when Zig cannot be fetched; this project's
  # CI has both, so there a skip is a failure.
  if [ "$status" -eq 77 ] && [ -n "${CI:-}" ]; then
    echo "macOS build: FAILED: CI must run it, not skip it" >&2
    exit 1
  elif [ "$status" -ne 0 ] && [ "$status" -ne 77 ]; then
    exit "$status"
  fi
fi
