#!/usr/bin/env bash
# Builds the macOS programs on Linux and checks what can be checked without
# a Mac. With Zig's clang and Mach-O linker (from npm; tools/zig/), the
# project's own CMake files and cmake/macos-cross.cmake, for arm64 and
# x86_64 with the deployment target macOS 11.0, warnings as errors:
#
#  - every target: ZQIMHelper, zqim, libzqim_client.a and every test
#    executable, one build tree per architecture (<dir>/arm64, <dir>/x86_64);
#  - universal ZQIMHelper, zqim and libzqim_client.a (lipo), and
#    <dir>/zqimhelper-<version>-macos-universal.tar.gz: the installed tree
#    (cmake --install) with the universal files;
#  - checks of every executable: Mach-O for its architecture, minimum
#    macOS 11.0, links libSystem alone, imports nothing macOS 11 lacks except
#    calls bound lazily (those the compiler saw guarded by
#    __builtin_available); the arm64 signature matches the file; every call
#    of the README's table of macOS calls is compiled in.
#
#   bash tools/macos-build.sh     # <dir>: ZQIM_MACOS_BUILD_DIR, else build-macos
#
# Installs what it misses: Zig from npm into a cache outside the checkout
# (tools/zig/zig --install; reused once there), and with apt-get llvm (lipo
# and the Mach-O readers) and googletest's sources. Exit status 0: built and
# checked; 77: skipped, with the reason (no npm, Zig could not be fetched,
# not a Linux x86-64 host); anything else: a failure.
set -euo pipefail
export LC_ALL=C
cd "$(dirname "$0")/.."
src=$PWD
archs=(arm64 x86_64)
min_macos=11.0

skip() { echo "macOS build: skipped: $*"; exit 77; }
fail() { echo "macOS build: FAILED: $*" >&2; exit 1; }

[ "$(uname -s) $(uname -m)" = "Linux x86_64" ] ||
  skip "the cross toolchain runs on Linux x86-64, not on $(uname -s) $(uname -m)"

# The newest LLVM whose tools read Mach-O (Debian installs them under
# /usr/lib/llvm-<n>/bin).
llvm_dir() {
  local dir
  for dir in $(ls -d /usr/lib/llvm-*/bin 2>/dev/null | sort -t- -k2 -n -r); do
    [ -x "$dir/llvm-lipo" ] && [ -x "$dir/llvm-objdump" ] && [ -x "$dir/llvm-nm" ] &&
      { echo "$dir"; return; }
  done
}
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v make >/dev/null || need+=(make)
[ -n "$(llvm_dir)" ] || need+=(llvm)
gtest_src=${ZQIM_GTEST_SOURCE_DIR:-/usr/src/googletest}
[ -f "$gtest_src/CMakeLists.txt" ] || need+=(googletest)
bash tools/apt-install.sh ${need[@]+"${need[@]}"}
llvm=$(llvm_dir)
[ -n "$llvm" ] || fail "no LLVM with llvm-lipo, llvm-objdump and llvm-nm under /usr/lib/llvm-*/bin"
# The targets are read from CMake's file API with string(JSON).
cmake_version=$(cmake --version | awk 'NR == 1 { print $3 }')
[ "$(printf '3.19\n%s\n' "$cmake_version" | sort -V | head -n 1)" = 3.19 ] ||
  fail "CMake 3.19 or later is needed, not $cmake_version"

status=0
tools/zig/zig --install || status=$?
case $status in
  0) ;;
  3) skip "Zig is not installed, and npm, which installs it, is missing (Debian: apt-get install npm)" ;;
  *) skip "the Zig toolchain could not be fetched from the npm registry" ;;
esac

out=${ZQIM_MACOS_BUILD_DIR:-build-macos}
mkdir -p "$out"
out=$(cd "$out" && pwd)
jobs=$(getconf _NPROCESSORS_ONLN)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Every target's type, name and file, from CMake's file API: the build
# trees say what there is, wherever its sources live.
cat >"$scratch/targets.cmake" <<'CMAKE'
file(GLOB indexes "${BUILD}/.cmake/api/v1/reply/index-*.json")
list(SORT indexes)
list(GET indexes -1 index)
file(READ "${index}" json)
string(JSON model_file GET "${json}" reply "codemodel-v2" jsonFile)
file(READ "${BUILD}/.cmake/api/v1/reply/${model_file}" model)
string(JSON count LENGTH "${model}" configurations 0 targets)
math(EXPR last "${count} - 1")
file(WRITE "${OUT}" "")
foreach(i RANGE ${last})
  string(JSON target_file GET "${model}" configurations 0 targets ${i} jsonFile)
  file(READ "${BUILD}/.cmake/api/v1/reply/${target_file}" target)
  string(JSON type GET "${target}" type)
  string(JSON name GET "${target}" name)
  string(JSON artifact ERROR_VARIABLE none GET "${target}" artifacts 0 path)
  if(NOT none)
    file(APPEND "${OUT}" "${type} ${name} ${artifact}\n")
  endif()
endforeach()
CMAKE

for arch in "${archs[@]}"; do
  echo "-- $arch: configuring and building (log: $out/$arch.log)"
  tree=$out/$arch
  mkdir -p "$tree/.cmake/api/v1/query"
  touch "$tree/.cmake/api/v1/query/codemodel-v2"
  { cmake -S "$src" -B "$tree" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/macos-cross.cmake" \
      -DZQIM_MACOS_ARCH="$arch" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DZQIM_GTEST_SOURCE_DIR="$gtest_src" &&
    cmake --build "$tree" -j"$jobs"; } >"$out/$arch.log" 2>&1 || {
    grep -E -A3 'error|warning' "$out/$arch.log" | head -n 60 >&2 || true
    tail -n 20 "$out/$arch.log" >&2
    fail "the $arch build (full log: $out/$arch.log)"
  }
  cmake -DBUILD="$tree" -DOUT="$out/$arch.targets" -P "$scratch/targets.cmake"
done

# The file of a target in an architecture's tree.
artifact() {
  local file
  file=$(awk -v name="$2" '$2 == name { print $3 }' "$out/$1.targets")
  [ -n "$file" ] || fail "no target $2 in the $1 build"
  echo "$out/$1/$file"
}
executables=$(awk '$1 == "EXECUTABLE" { print $2 }' "$out/arm64.targets")
tests=$(grep -c _test <<<"$executables" || true)
for name in ZQIMHelper zqim zqim_client; do
  grep -q " $name " "$out/arm64.targets" || fail "the build has no target $name"
done

# ------------------------------------------------------------------ checks

lib_dir=$(tools/zig/zig env | sed -n 's/^ *"lib_dir": "\(.*\)",\?$/\1/p')
stubs=$lib_dir/libc/darwin/libSystem.${min_macos%%.*}.tbd
[ -f "$stubs" ] || fail "Zig has no libSystem stubs for macOS $min_macos ($stubs)"

# What libSystem of the deployment target exports to one architecture: the
# symbol lists of its stubs' export sections for that target.
exported() {
  awk -v target="$1-macos" '
    /^[a-z-]+:/ { section = $1 }
    {
      if (collecting == "" && $0 ~ /(targets|symbols):[ ]*\[/) {
        collecting = ($0 ~ /targets:/) ? "targets" : "symbols"
        text = ""
      }
      if (collecting == "")
        next
      text = text " " $0
      if ($0 !~ /\]/)
        next
      sub(/^[^[]*\[/, "", text)
      sub(/\].*$/, "", text)
      gsub(/[\047,]/, " ", text)
      if (collecting == "targets")
        wanted = (" " text " ") ~ (" " target " ")
      else if (wanted && (section == "exports:" || section == "reexports:")) {
        n = split(text, names, " ")
        for (i = 1; i <= n; i++)
          print names[i]
      }
      collecting = ""
    }' "$stubs" | sort -u
}

newer_calls=()
check_executable() {
  local arch=$1 file=$2 headers dylibs imports missing name
  headers=$("$llvm/llvm-objdump" --macho --private-headers "$file")
  [ "$(awk '$1 ~ /^MH_MAGIC/ { print $2; exit }' <<<"$headers")" = \
    "$([ "$arch" = arm64 ] && echo ARM64 || echo X86_64)" ] || fail "$file is not $arch"
  awk '/cmd LC_BUILD_VERSION/ { b = 1 } b && /platform/ { p = $2 } b && /minos/ { print p, $2; exit }' \
    <<<"$headers" | grep -qx "macos $min_macos" || fail "$file is not built for macOS $min_macos"
  dylibs=$("$llvm/llvm-objdump" --macho --dylibs-used "$file" | tail -n +2 | awk '{ print $1 }')
  [ "$dylibs" = /usr/lib/libSystem.B.dylib ] || fail "$file links more than libSystem: $dylibs"
  if [ "$arch" = arm64 ]; then
    grep -q 'cmd LC_CODE_SIGNATURE' <<<"$headers" || fail "$file carries no code signature"
  fi
  # An import macOS 11 lacks is only safe where the loader binds it at its
  # first call, if ever (the compiler let it through only under
  # __builtin_available): never in the tables bound at load time.
  grep -q 'cmd LC_DYLD_INFO' <<<"$headers" || fail "$file: no bind tables to read"
  imports=$("$llvm/llvm-nm" -u -j "$file" | sort -u)
  missing=$(comm -23 <(echo "$imports") "$scratch/exports-$arch")
  for name in $missing; do
    if bound --bind "$file" "$name" || bound --weak-bind "$file" "$name"; then
      fail "$file imports $name, which macOS $min_macos lacks, and binds it at load time"
    fi
    newer_calls+=("${name#_}")
  done
}
# Whether a bind table (--bind, --lazy-bind, --weak-bind) of a file names a symbol.
bound() {
  "$llvm/llvm-objdump" --macho "$1" "$2" |
    awk -v symbol="$3" '{ for (i = 1; i <= NF; i++) if ($i == symbol) found = 1 } END { exit !found }'
}

# The ad-hoc signature of an arm64 file: the hash of every page up to the
# signature, as its code directory lists them.
check_signature() {
  local file=$1 headers dataoff at count i type offset cd hash_offset code_slots code_limit \
    hash_size hash_type page_shift sum
  be() { od -An -tx1 -j "$2" -N "$3" "$1" | tr -d ' \n'; }
  headers=$("$llvm/llvm-objdump" --macho --private-headers "$file")
  dataoff=$(awk '/cmd LC_CODE_SIGNATURE/ { s = 1 } s && /dataoff/ { print $2; exit }' <<<"$headers")
  [ "$(be "$file" "$dataoff" 4)" = fade0cc0 ] || fail "$file: no signature at $dataoff"
  count=$((16#$(be "$file" $((dataoff + 8)) 4)))
  cd=
  for ((i = 0; i < count; i++)); do
    at=$((dataoff + 12 + 8 * i))
    type=$((16#$(be "$file" "$at" 4)))
    offset=$((16#$(be "$file" $((at + 4)) 4)))
    [ "$type" -eq 0 ] && cd=$((dataoff + offset))
  done
  [ -n "$cd" ] && [ "$(be "$file" "$cd" 4)" = fade0c02 ] || fail "$file: no code directory"
  hash_offset=$((16#$(be "$file" $((cd + 16)) 4)))
  code_slots=$((16#$(be "$file" $((cd + 28)) 4)))
  code_limit=$((16#$(be "$file" $((cd + 32)) 4)))
  hash_size=$((16#$(be "$file" $((cd + 36)) 1)))
  hash_type=$((16#$(be "$file" $((cd + 37)) 1)))
  page_shift=$((16#$(be "$file" $((cd + 39)) 1)))
  case $hash_type in
    1) sum=sha1sum ;;
    2) sum=sha256sum ;;
    *) fail "$file: unknown hash type $hash_type" ;;
  esac
  [ "$code_limit" -le "$dataoff" ] || fail "$file: the signature covers itself"
  mkdir -p "$scratch/pages"
  rm -f "$scratch/pages/"*
  head -c "$code_limit" "$file" | split -a 6 -b $((1 << page_shift)) - "$scratch/pages/p"
  [ "$(ls "$scratch/pages" | wc -l)" -eq "$code_slots" ] || fail "$file: $code_slots pages signed"
  diff -q <(cd "$scratch/pages" && ls | sort | xargs "$sum" | awk '{ print $1 }' | cut -c1-$((2 * hash_size))) \
    <(od -An -v -tx1 -j $((cd + hash_offset)) -N $((code_slots * hash_size)) "$file" |
      tr -d ' \n' | fold -w $((2 * hash_size)); echo) >/dev/null ||
    fail "$file: its signature does not match its pages"
}

for arch in "${archs[@]}"; do
  exported "$arch" >"$scratch/exports-$arch"
  [ -s "$scratch/exports-$arch" ] || fail "no $arch symbols in $stubs"
  for name in $executables; do
    file=$(artifact "$arch" "$name")
    check_executable "$arch" "$file"
  done
  # What our own code calls (the C++ runtime, linked in later, left out),
  # without the variant suffixes of the x86-64 names ($INODE64).
  find "$out/$arch" -name '*.o' -path '*/CMakeFiles/*' -not -path '*/googletest/*' \
    -not -path '*/CMakeScratch/*' -print0 | xargs -0 "$llvm/llvm-nm" -u -j |
    grep -v -e ':$' -e '^$' | sed 's/\$.*//' | sort -u >"$scratch/calls-$arch"
done

# The README's table of macOS calls: every function its first column names
# (`name` or `name(...)`) must be called by the code built for both
# architectures, or the table claims a check that was not made.
table=$(awk '/^### macOS system calls/ { t = 1; next } t && /^#/ { exit } t && /^\|/ { print }' README.md |
  cut -d'|' -f2 | grep -o '`[a-z_][a-z0-9_]*\((\|`\)' | tr -d '`(' | sort -u)
[ -n "$table" ] || fail "README.md has no table of macOS calls"
for call in $table; do
  for arch in "${archs[@]}"; do
    grep -qxF "_$call" "$scratch/calls-$arch" ||
      fail "README's table of macOS calls lists $call, which the $arch build does not call"
  done
done

# ------------------------------------------------ universal files and tarball

universal=$out/universal
rm -rf "$universal"
mkdir -p "$universal"
for name in ZQIMHelper zqim zqim_client; do
  slices=()
  for arch in "${archs[@]}"; do
    file=$(artifact "$arch" "$name")
    slices+=("$file")
  done
  file=$(basename "$file")
  "$llvm/llvm-lipo" -create "${slices[@]}" -output "$universal/$file"
  [ "$("$llvm/llvm-lipo" -archs "$universal/$file" | tr ' ' '\n' | sort | xargs)" = \
    "$(printf '%s\n' "${archs[@]}" | sort | xargs)" ] || fail "$universal/$file lacks an architecture"
done
for name in ZQIMHelper zqim; do
  "$llvm/llvm-lipo" -thin arm64 "$universal/$name" -output "$scratch/$name-arm64"
  check_signature "$scratch/$name-arm64"
done

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$out/arm64/CMakeCache.txt")
for name in ZQIMHelper zqim; do
  grep -aq "$name $version" "$universal/$name" || fail "$name does not say it is version $version"
done
package=zqimhelper-$version-macos-universal
stage=$scratch/stage/$package
cmake --install "$out/arm64" --prefix "$stage" >"$out/install.log" 2>&1 ||
  { cat "$out/install.log" >&2; fail "cmake --install"; }
for file in "$universal"/*; do
  installed=$(find "$stage" -type f -name "$(basename "$file")")
  [ "$(wc -l <<<"$installed")" -eq 1 ] && [ -n "$installed" ] ||
    fail "$(basename "$file") is not installed once: $installed"
  cp "$file" "$installed"
done
tarball=$out/$package.tar.gz
tar -C "$scratch/stage" --sort=name --owner=0 --group=0 --numeric-owner -czf "$tarball" "$package"

helper_size=$(stat -c %s "$universal/ZQIMHelper")
newer=$(printf '%s\n' ${newer_calls[@]+"${newer_calls[@]}"} | sort -u | xargs)
echo "-- calls newer than macOS $min_macos (guarded; never bound at load time): ${newer:-none}"
echo "-- README's macOS calls compiled in: $(xargs <<<"$table")"
echo "macOS build: ZQIMHelper, zqim, libzqim_client.a and $tests test executables for" \
  "arm64 and x86_64 (macOS $min_macos and later), checked; universal ZQIMHelper" \
  "$((helper_size / 1024)) KiB; ${tarball#"$src"/}"
