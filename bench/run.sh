#!/usr/bin/env bash
# Builds the helper in Release with the benchmark programs and runs every
# workload against the standard tools. Run as root (fixPermsR and chown need
# it). Options are passed to zqim_bench.py; the common ones:
#   --runs N         runs of each side per workload (default 5)
#   --mem-runs N     runs of the memory workloads (default 3)
#   --only a,b,...   only these workloads (see --help)
#   --json FILE      also write the figures as JSON
#   --cold           drop the page cache before every run
#   --space          also measure the space each run adds (copies)
#   --xfs            put the data on a loop-mounted XFS image with reflinks
#                    (made, mounted and removed here)
# BUILD_DIR (default <repo>/build-bench) chooses the build directory;
# ZQIM_HELPER=<path> times another helper binary (an older build, say).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/.." && pwd)"
build="${BUILD_DIR:-$repo/build-bench}"

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
command -v python3 >/dev/null || need+=(python3)
# The measuring wrapper is linked statically.
[ -f /usr/lib/x86_64-linux-gnu/libc.a ] || [ -n "$(find /usr/lib -name libc.a -print -quit 2>/dev/null)" ] || need+=(libc6-dev)
bash "$repo/tools/apt-install.sh" "${need[@]}"

cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null

args=()
xfs=
for arg in "$@"; do
  if [ "$arg" = --xfs ]; then xfs=$(mktemp -d /tmp/zqim-bench-xfs.XXXXXX); else args+=("$arg"); fi
done
if [ -n "$xfs" ]; then
  command -v mkfs.xfs >/dev/null || bash "$repo/tools/apt-install.sh" xfsprogs
  trap 'umount "$xfs/mnt" 2>/dev/null; rm -rf "$xfs"' EXIT
  truncate -s 3G "$xfs/image"
  mkfs.xfs -q -m reflink=1 "$xfs/image"
  mkdir "$xfs/mnt"
  mount -o loop "$xfs/image" "$xfs/mnt"
  args+=(--tmp "$xfs/mnt")
fi

python3 "$here/zqim_bench.py" \
  --helper "${ZQIM_HELPER:-$build/zqim/ZQIMHelper}" \
  --measure "$build/zqim_measure" \
  --poll-bench "$build/zqim_poll_bench" \
  ${args[@]+"${args[@]}"}
