#!/usr/bin/env bash
# Installs what building and testing the helper needs, when it is missing.
set -euo pipefail

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
command -v clang++ >/dev/null || need+=(clang)
# Turns the sanitizers' addresses into file and line in their reports.
command -v llvm-symbolizer >/dev/null || need+=(llvm)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
# A loop-mounted XFS image shows that copies share extents where they can.
command -v mkfs.xfs >/dev/null || need+=(xfsprogs)
ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 || need+=(libclang-rt-dev)

bash "$(dirname "$0")/apt-install.sh" "${need[@]}"
