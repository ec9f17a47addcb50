#!/usr/bin/env bash
# Runs tools/demo.sh with an already built helper (and the zqim tool beside
# it) and checks what it did.
# Usage: bash tests/demo_check.sh <path of ZQIMHelper>
set -u
helper=${1:?usage: demo_check.sh <path of ZQIMHelper>}
repo=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; echo "--- demo output:" >&2; cat "$tmp/out" >&2; exit 1; }

mkdir "$tmp/work"
ZQIM_HELPER=$helper ZQIM_DEMO_TMP=$tmp/work bash "$repo/tools/demo.sh" >"$tmp/out" 2>&1 ||
  fail "demo exited with status $?"

# The installed tree, as listed by the demo, with the expected owner.
if [ "$(id -u)" -eq 0 ]; then owner=${SUDO_USER:-nobody}; else owner=$(id -un); fi
for entry in ./bin/zqdemo "./lib/current -> zqdemo-1.0" ./lib/zqdemo-1.0/messages.txt \
             ./lib/zqdemo-1.0/plugins/hello.sh ./share/doc/zqdemo/README.txt \
             ./share/doc/zqdemo/LICENSE.txt ./var/cache/installed-at; do
  grep -qE "^    [-dl][^ ]+ +[0-9]+ +$owner .* ${entry//./\\.}\$" "$tmp/out" ||
    fail "installed tree lacks '$entry' owned by $owner"
done
grep -qx "    Hello from ZQ Demo." "$tmp/out" || fail "the installed program did not run"
for file in install uninstall; do
  grep -qE "^.*/$file\.txt \(ZQCmd1\): [0-9.]+ s, no failed line$" "$tmp/out" ||
    fail "zqim run's summary for $file.txt"
done
[ "$(grep -c '^zqim run exit status: 0$' "$tmp/out")" -eq 2 ] || fail "zqim run exit status"
[ "$(grep -c "^helper ended: exit status 0, after exit in file 1 (.*)$" "$tmp/out")" -eq 2 ] || fail "helper exit status"
grep -q "Fatal error" "$tmp/out" && fail "a log holds a Fatal error line"
grep -q "^The install root .* is gone\.$" "$tmp/out" || fail "uninstall left the install root"
[ -z "$(ls -A "$tmp/work")" ] || fail "demo left $(ls -A "$tmp/work") behind"
echo "demo check passed"
