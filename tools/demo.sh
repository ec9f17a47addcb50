#!/usr/bin/env bash
# Builds ZQIMHelper and the zqim tool, and installs a small application tree
# with examples/install.txt through `zqim run`, the ready front-end: it shows
# the progress, the answers and the log; then removes the tree again with
# examples/uninstall.txt.
#
#   ZQIM_HELPER=<path>        use this helper binary instead of building one
#                             (the zqim tool beside it, or ZQIM_TOOL=<path>)
#   ZQIM_DEMO_EXAMPLES=<dir>  where install.txt and uninstall.txt are (default examples/)
#   ZQIM_DEMO_TMP=<dir>       where to make the temporary work dir (default $TMPDIR or /tmp)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

say() { printf '\n== %s\n' "$*"; }
indent() { sed 's/^/    /' "$@"; }

# ---------------------------------------------------------------- build
helper=${ZQIM_HELPER:-}
if [ -z "$helper" ]; then
  need=()
  command -v cmake >/dev/null || need+=(cmake)
  command -v c++ >/dev/null || need+=(g++)
  command -v make >/dev/null || need+=(make)
  if [ ${#need[@]} -gt 0 ]; then
    if [ "$(uname)" = Linux ] && [ "$(id -u)" -eq 0 ]; then
      apt-get update -qq
      DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}"
    else
      echo "Missing: ${need[*]}. On Debian: sudo apt-get install ${need[*]};" \
           "on macOS: xcode-select --install and brew install cmake. Then run again." >&2
      exit 1
    fi
  fi
  say "Building the helper and zqim in build-demo/ (log: build-demo/build.log)"
  mkdir -p build-demo
  { cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DZQIM_TESTS=OFF &&
    cmake --build build-demo --target ZQIMHelper zqim -j2; } >build-demo/build.log 2>&1 ||
    { cat build-demo/build.log >&2; exit 1; }
  helper=$repo/build-demo/ZQIMHelper
fi
[ -x "$helper" ] || { echo "No helper at $helper" >&2; exit 1; }
zqim=${ZQIM_TOOL:-$(dirname "$helper")/zqim}
[ -x "$zqim" ] || { echo "No zqim tool at $zqim" >&2; exit 1; }

# ------------------------------------------------------- work directories
base=${ZQIM_DEMO_TMP:-${TMPDIR:-/tmp}}
work=$(mktemp -d "${base%/}/zqim-demo.XXXXXX")
stage=$work/stage root=$work/root comm=$work/comm
cleanup() { rm -rf "$work"; }
trap cleanup EXIT
mkdir -p "$stage/payload/bin" "$stage/payload/doc" "$stage/payload/lib/zqdemo-1.0/plugins" "$comm"
cat >"$stage/payload/bin/zqdemo" <<'EOF'
#!/bin/sh
# ZQ Demo 1.0
top=$(cd "$(dirname "$0")/.." && pwd)
if [ "$1" = --post-install ]; then
  sleep 1   # builds its cache
  date >"$top/var/cache/installed-at"
  echo "zqdemo: post-install done"
else
  cat "$top/lib/current/messages.txt"
fi
EOF
chmod 755 "$stage/payload/bin/zqdemo"
echo "Hello from ZQ Demo." >"$stage/payload/lib/zqdemo-1.0/messages.txt"
printf '#!/bin/sh\necho hello\n' >"$stage/payload/lib/zqdemo-1.0/plugins/hello.sh"
echo "ZQ Demo: read me." >"$stage/payload/doc/README.txt"
echo "ZQ Demo: licence." >"$stage/payload/doc/LICENSE.txt"

# Who gets the installed files: as root the invoking user (or nobody),
# otherwise ourselves. Preferences are written "as the user" only by root;
# any other location runs the preference tool as the helper's own user.
if [ "$(id -u)" -eq 0 ]; then
  uid=${SUDO_UID:-$(id -u nobody)} gid=${SUDO_GID:-$(id -g nobody)} prefloc=user
else
  uid=$(id -u) gid=$(id -g) prefloc=own
fi
say "Work dir $work: stage/ (payload), root/ (install root), comm/ (communication dir)"

# ------------------------------------------------------------ front-end
fill() {  # example file -> the command file with the placeholders filled in
  local line
  while IFS= read -r line || [ -n "$line" ]; do
    line=${line//@ROOT@/"$root"} line=${line//@STAGE@/"$stage"} line=${line//@UID@/"$uid"}
    line=${line//@GID@/"$gid"} line=${line//@PREFLOC@/"$prefloc"}
    printf '%s\n' "$line"
  done <"$1" >"$work/$(basename "$1")"
}

run() {  # command file: zqim run sends it and answers; then the helper's log
  local status=0
  rm -rf "$comm" && mkdir -m 700 "$comm"
  "$zqim" run --helper "$helper" --comm "$comm" --keep "$1" || status=$?
  echo "zqim run exit status: $status"
  echo "ZQIMLog.txt:"; indent "$comm/ZQIMLog.txt"
  [ "$status" -eq 0 ] || exit 1
}

examples=${ZQIM_DEMO_EXAMPLES:-examples}
fill "$examples/install.txt"
fill "$examples/uninstall.txt"

# ------------------------------------------------------------- install
say "Install: zqim run sends install.txt to a helper it starts"
run "$work/install.txt"

say "Installed tree (owner uid $uid, gid $gid)"
(cd "$root" && find . | sort | while IFS= read -r entry; do ls -ld "$entry"; done) | indent
echo "running the installed program:"; "$root/bin/zqdemo" | indent

# ----------------------------------------------------------- uninstall
say "Uninstall: a new helper, a fresh communication directory"
run "$work/uninstall.txt"

say "After uninstall"
if [ -e "$root" ]; then
  echo "install root still there:"; ls -lR "$root"; exit 1
fi
echo "The install root $root is gone."
