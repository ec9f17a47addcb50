#!/usr/bin/env bash
# Installs what building and testing the helper needs, when it is missing:
# Debian's packages on Linux, Homebrew's on macOS.
set -euo pipefail

if [ "$(uname)" = Darwin ]; then
  need=()
  command -v cmake >/dev/null || need+=(cmake)
  [ -e "$(brew --prefix 2>/dev/null)/include/gtest/gtest.h" ] || need+=(googletest)
  if [ ${#need[@]} -gt 0 ]; then
    command -v brew >/dev/null || { echo "Missing: ${need[*]}; install Homebrew, then brew install ${need[*]}." >&2; exit 1; }
    brew install "${need[@]}"
  fi
  exit 0
fi

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
# The Debian package: cpack's dependency list, and the package checker.
command -v dpkg-shlibdeps >/dev/null || need+=(dpkg-dev)
command -v lintian >/dev/null || need+=(lintian)
# The copy tests read and set extended attributes, ACLs and file capabilities
# with the system's own tools, and compare with cp -a.
command -v getfattr >/dev/null || need+=(attr)
command -v setfacl >/dev/null || need+=(acl)
command -v setcap >/dev/null || need+=(libcap2-bin)
if [ "$(id -u)" -eq 0 ]; then
  # Only root runs the fuzzer (it confines inputs with chroot) and mounts
  # the XFS image that shows copies sharing extents.
  command -v clang++ >/dev/null || need+=(clang)
  # Turns the sanitizers' addresses into file and line in their reports.
  command -v llvm-symbolizer >/dev/null || need+=(llvm)
  ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 ||
    need+=(libclang-rt-dev)
  command -v mkfs.xfs >/dev/null || need+=(xfsprogs)
fi

bash "$(dirname "$0")/apt-install.sh" ${need[@]+"${need[@]}"}
