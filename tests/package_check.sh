#!/usr/bin/env bash
# Makes the Debian package from a build directory and checks it without
# touching the system: its control data and contents, lintian where it is
# installed, the manual pages naming the installed paths, a front-end built
# with find_package() and one with pkg-config against the unpacked tree, and
# the demo run with the helper, zqim and the example command files unpacked
# from it.
# Usage: bash tests/package_check.sh <build dir>     (exit 77: skipped)
set -euo pipefail
build=$(cd "${1:?usage: package_check.sh <build dir>}" && pwd)
repo=$(cd "$(dirname "$0")/.." && pwd)
command -v dpkg-deb >/dev/null || { echo "skipped: no dpkg-deb here"; exit 77; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$tmp/pkg") >"$tmp/cpack.log" 2>&1 ||
  { cat "$tmp/cpack.log" >&2; fail "cpack"; }
deb=$(ls "$tmp"/pkg/*.deb)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
info=$(dpkg-deb --info "$deb")
for field in "Package: zqimhelper" "Version: $version-1" "Section: admin" "Depends: libc6"; do
  grep -q "^ $field" <<<"$info" || fail "control lacks '$field': $info"
done
contents=$(dpkg-deb --contents "$deb")
for file in usr/bin/ZQIMHelper usr/bin/zqim usr/include/zqimClient.h usr/lib/libzqim_client.a \
            usr/lib/cmake/ZQIMHelper/ZQIMHelperConfig.cmake \
            usr/lib/cmake/ZQIMHelper/ZQIMHelperConfigVersion.cmake \
            usr/share/doc/zqimhelper/README.md usr/share/doc/zqimhelper/copyright \
            usr/share/doc/zqimhelper/changelog.Debian.gz usr/share/man/man1/ZQIMHelper.1.gz \
            usr/share/man/man1/zqim.1.gz usr/share/man/man5/zqim-commands.5.gz \
            usr/lib/pkgconfig/zqim-client.pc \
            usr/share/doc/zqimhelper/examples/install.txt \
            usr/share/doc/zqimhelper/examples/uninstall.txt; do
  grep -q " \./$file\$" <<<"$contents" || fail "package lacks $file"
done
grep -v ' root/root ' <<<"$contents" && fail "files not owned by root"

if command -v lintian >/dev/null; then
  lintian --fail-on error,warning "$deb" 2>&1 | grep -v 'root privileges' || true
  lintian --fail-on error,warning "$deb" >/dev/null 2>&1 || fail "lintian"
else
  echo "lintian: not installed, not run"
fi

dpkg -x "$deb" "$tmp/root"
# The pages name where the package puts things, not the build's prefix.
for page in man1/zqim.1 man1/ZQIMHelper.1 man5/zqim-commands.5; do
  text=$(gzip -dc "$tmp/root/usr/share/man/$page.gz")
  grep -q '@ZQIM_' <<<"$text" && fail "$page keeps a placeholder"
  grep -q '/usr/share/doc/zqimhelper/examples/' <<<"$text" || fail "$page lacks the examples' path"
done
mkdir -p "$tmp/consumer"
cat >"$tmp/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(ZQIMHelper 1 REQUIRED)
add_executable(front front.cpp)
target_link_libraries(front PRIVATE ZQIMHelper::zqim_client)
file(GENERATE OUTPUT helper-path.txt CONTENT "$<TARGET_FILE:ZQIMHelper::ZQIMHelper>")
CMAKE
cat >"$tmp/consumer/front.cpp" <<'CPP'
// A front-end of its own, built against the unpacked package.
#include <zqimClient.h>
#include <iostream>
int main(int, char** argv) {
    zqim::Session::Options options;
    options.helper = argv[1];
    zqim::Session helper = zqim::Session::Start(options);
    const zqim::Answer a = helper.Wait(helper.Send("progress 100\n"));
    std::cout << (a.finished ? "answered" : "unanswered") << "; " << helper.Stop() << "\n";
}
CPP
{ cmake -S "$tmp/consumer" -B "$tmp/consumer/build" -DCMAKE_PREFIX_PATH="$tmp/root/usr" &&
  cmake --build "$tmp/consumer/build"; } >"$tmp/consumer.log" 2>&1 ||
  { cat "$tmp/consumer.log" >&2; fail "a front-end built with find_package(ZQIMHelper)"; }
[ "$(cat "$tmp/consumer/build/helper-path.txt")" = "$tmp/root/usr/bin/ZQIMHelper" ] ||
  fail "find_package points at $(cat "$tmp/consumer/build/helper-path.txt")"
[ "$("$tmp/consumer/build/front" "$tmp/root/usr/bin/ZQIMHelper")" = "answered; exit status 0" ] ||
  fail "the front-end built against the package"

if command -v pkg-config >/dev/null; then
  # The .pc file names /usr; the unpacked tree stands in for it.
  flags=$(PKG_CONFIG_PATH=$tmp/root/usr/lib/pkgconfig PKG_CONFIG_SYSROOT_DIR=$tmp/root \
          pkg-config --cflags --libs zqim-client) || fail "pkg-config zqim-client"
  # shellcheck disable=SC2086
  c++ -std=c++17 -o "$tmp/consumer/front-pc" "$tmp/consumer/front.cpp" $flags ||
    fail "a front-end built with pkg-config"
  [ "$("$tmp/consumer/front-pc" "$tmp/root/usr/bin/ZQIMHelper")" = "answered; exit status 0" ] ||
    fail "the front-end built with pkg-config"
else
  echo "pkg-config: not installed, not tried"
fi

ZQIM_DEMO_EXAMPLES=$tmp/root/usr/share/doc/zqimhelper/examples \
  bash "$repo/tests/demo_check.sh" "$tmp/root/usr/bin/ZQIMHelper"
echo "package check passed: $(basename "$deb")"
