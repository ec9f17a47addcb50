#!/usr/bin/env bash
# Builds ZQIMHelper and drives it as an installer front-end would: installs a
# small application tree with examples/install.txt, shows the answers, the
# tree and the log, then removes it with examples/uninstall.txt.
#
#   ZQIM_HELPER=<path>        use this helper binary instead of building one
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
  say "Building the helper in build-demo/ (log: build-demo/build.log)"
  mkdir -p build-demo
  { cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DZQIM_TESTS=OFF &&
    cmake --build build-demo --target ZQIMHelper -j2; } >build-demo/build.log 2>&1 ||
    { cat build-demo/build.log >&2; exit 1; }
  helper=$repo/build-demo/ZQIMHelper
fi
[ -x "$helper" ] || { echo "No helper at $helper" >&2; exit 1; }

# ------------------------------------------------------- work directories
base=${ZQIM_DEMO_TMP:-${TMPDIR:-/tmp}}
work=$(mktemp -d "${base%/}/zqim-demo.XXXXXX")
stage=$work/stage root=$work/root comm=$work/comm
hpid=
cleanup() {
  if [ -n "$hpid" ] && kill -0 "$hpid" 2>/dev/null; then kill "$hpid"; fi
  rm -rf "$work"
}
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
start_helper() {  # output file
  "$helper" -c "$comm" -p $$ >"$1" 2>&1 &
  hpid=$!
}

send() {  # number, example file: write ZQCmd<N>.txt completely, then its signal file
  local line
  while IFS= read -r line || [ -n "$line" ]; do
    line=${line//@ROOT@/"$root"} line=${line//@STAGE@/"$stage"} line=${line//@UID@/"$uid"}
    line=${line//@GID@/"$gid"} line=${line//@PREFLOC@/"$prefloc"}
    printf '%s\n' "$line"
  done <"$2" >"$comm/ZQCmd$1.txt"
  : >"$comm/ZQCmd$1.zqsig"
  echo "sent ZQCmd$1.txt ($2) and ZQCmd$1.zqsig"
}

await() {  # number: follow the progress file until the finished file appears
  local fin=$comm/ZQCmd$1.zqfin prog=$comm/ZQCmd$1.progress shown='' now done='' tries=0
  while :; do
    [ -e "$fin" ] && done=yes
    now=$(cat "$prog" 2>/dev/null || true)
    if [ -n "$now" ] && [ "$now" != "$shown" ]; then echo "progress: $now"; shown=$now; fi
    [ -n "$done" ] && break
    kill -0 "$hpid" 2>/dev/null || { echo "helper ended without ZQCmd$1.zqfin" >&2; exit 1; }
    tries=$((tries + 1))
    [ "$tries" -lt 600 ] || { echo "no ZQCmd$1.zqfin after 120 s" >&2; exit 1; }
    sleep 0.2
  done
  echo "ZQCmd$1.zqfin: $(cat "$fin")"
  if [ -e "$comm/ZQCmd$1.err" ]; then
    echo "ZQCmd$1.err:"; indent "$comm/ZQCmd$1.err"
  else
    echo "no ZQCmd$1.err: no error recorded"
  fi
}

finish_helper() {  # output file: the command file ended with exit, so the helper ends
  local status=0 tries=0
  while kill -0 "$hpid" 2>/dev/null && [ "$tries" -lt 50 ]; do sleep 0.2; tries=$((tries + 1)); done
  kill -0 "$hpid" 2>/dev/null && { echo "helper still running after exit" >&2; exit 1; }
  wait "$hpid" || status=$?
  hpid=
  echo "helper exit status: $status"
  echo "helper standard output:"; indent "$1"
  echo "ZQIMLog.txt:"; indent "$comm/ZQIMLog.txt"
  [ "$status" -eq 0 ] || exit 1
}

# ------------------------------------------------------------- install
say "Install: helper started with -c comm -p $$ (it stops if this script dies)"
start_helper "$work/helper1.out"
send 1 "${ZQIM_DEMO_EXAMPLES:-examples}/install.txt"
await 1
finish_helper "$work/helper1.out"

say "Installed tree (owner uid $uid, gid $gid)"
(cd "$root" && find . | sort | while IFS= read -r entry; do ls -ld "$entry"; done) | indent
echo "running the installed program:"; "$root/bin/zqdemo" | indent

# ----------------------------------------------------------- uninstall
# A new helper counts from scratch and would run ZQCmd1 again: the front-end
# owns the communication files and clears them before starting it.
say "Uninstall: old command and answer files removed, a new helper started"
rm -f "$comm"/ZQCmd*
start_helper "$work/helper2.out"
send 2 "${ZQIM_DEMO_EXAMPLES:-examples}/uninstall.txt"
await 2
finish_helper "$work/helper2.out"

say "After uninstall"
if [ -e "$root" ]; then
  echo "install root still there:"; ls -lR "$root"; exit 1
fi
echo "The install root $root is gone."
