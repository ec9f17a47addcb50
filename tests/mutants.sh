#!/usr/bin/env bash
# Mutation check: plants each fault of tests/mutants.list, one at a time, in a
# scratch copy of this checkout, rebuilds, runs the fast suite (everything but
# the load, package and demo tests) and says whether the suite noticed:
#
#   killed    the suite failed (or ran out of time) with the fault planted
#   survived  the suite passed with the fault planted: a gap in the tests
#   error     the fault's text is not in its file exactly once, or the
#             planted fault does not build: the list must be brought up to
#             date with the code
#
# and a score line. Run by hand (it takes about a minute a fault); it is not
# part of tools/test.sh. The checkout itself is never modified.
#
#   bash tests/mutants.sh            # every fault
#   bash tests/mutants.sh walker     # the faults whose name contains "walker"
#   bash tests/mutants.sh --check    # only checks that every fault's text is
#                                    # found, in seconds, building nothing
#
# Environment: ZQIM_MUTANTS_DIR reuses that directory for the scratch copy
# and its build (kept afterwards, so a second run builds incrementally;
# default: a fresh temporary directory, removed at the end);
# ZQIM_MUTANTS_LIST names another list; ZQIM_MUTANT_TIMEOUT is the limit of
# one suite run in seconds (default: three times what the suite took without
# a fault, and a minute); ZQIM_JOBS the build's parallelism.
# Exit status: 0 when every fault was killed, 1 otherwise, 2 when the suite
# fails without any fault planted.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
list=${ZQIM_MUTANTS_LIST:-$here/tests/mutants.list}
jobs=${ZQIM_JOBS:-$(getconf _NPROCESSORS_ONLN)}
check_only=no
case "${1:-}" in
  --check) check_only=yes; filter="" ;;
  -*) echo "usage: bash tests/mutants.sh [--check | name-part]" >&2; exit 2 ;;
  *) filter=${1:-} ;;
esac
[ -f "$list" ] || { echo "no fault list at $list" >&2; exit 2; }

if [ -n "${ZQIM_MUTANTS_DIR:-}" ]; then
  work=$ZQIM_MUTANTS_DIR
  mkdir -p "$work"
  keep=yes
else
  work=$(mktemp -d "${TMPDIR:-/tmp}/zqim-mutants.XXXXXX")
  keep=no
fi
src=$work/src
build=$work/build
# The suite's scratch trees (TMPDIR), emptied after every run: a test that a
# fault crashed or that ran out of time leaves its files, even its mounts
# and switches.
# Its helper as nobody must reach them.
scratch=$(mktemp -d "${TMPDIR:-/tmp}/zqim-mutants-tmp.XXXXXX")
chmod 755 "$scratch"
# Linux's fs.protected_* switches as found: a test stopped while it had
# them off never restores them.
switches=()
for f in /proc/sys/fs/protected_*; do
  if [ -w "$f" ]; then switches+=("$f=$(cat "$f")"); fi
done
# Restored under the lock the tests' own guard takes, so that a test of
# another run, which has them off meanwhile, is not disturbed.
restore_switches() {
  local s lock
  [ ${#switches[@]} -gt 0 ] || return 0
  exec {lock}</proc/sys/fs/protected_hardlinks
  flock "$lock" || true
  for s in "${switches[@]}"; do echo "${s#*=}" >"${s%%=*}" || true; done
  exec {lock}<&-
}
clear_scratch() {
  restore_switches
  if [ -r /proc/self/mounts ]; then
    awk -v d="$scratch" 'index($2, d "/") == 1 { print $2 }' /proc/self/mounts | sort -r |
      while IFS= read -r m; do umount -l "$m" || true; done
  fi
  rm -rf "${scratch:?}"/* "$scratch"/.[!.]* 2>/dev/null || true
}
planted=""   # the file holding a fault right now, restored on any exit
suite=""
cleanup() {
  if [ -n "$suite" ]; then kill -TERM -- -"$suite" 2>/dev/null || true; fi
  if [ -n "$suite" ]; then sleep 1; clear_scratch; fi
  rm -rf "$scratch"
  if [ -n "$planted" ]; then cp "$work/original" "$src/$planted"; fi
  if [ "$keep" = no ]; then rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---------------------------------------------------------------- the list

# Blocks of "fault: ", "file: ", "old: " and "new: " lines, separated by
# blank lines; "#" starts a comment line. See tests/mutants.list.
names=() files=() olds=() news=()
parse() {
  local line key value name="" file="" old="" new="" have_new=no number=0
  flush() {
    if [ -n "$name$file$old" ] || [ "$have_new" = yes ]; then
      if [ -z "$name" ] || [ -z "$file" ] || [ -z "$old" ] || [ "$have_new" = no ]; then
        echo "$list: the fault ending at line $number lacks a fault, file, old or new line" >&2
        exit 2
      fi
      names+=("$name") files+=("$file") olds+=("$old") news+=("$new")
    fi
    name="" file="" old="" new="" have_new=no
  }
  while IFS= read -r line || [ -n "$line" ]; do
    number=$((number + 1))
    case "$line" in
      "#"*) continue ;;
      "") flush; continue ;;
      "new:") key=new value="" ;;
      *": "*) key=${line%%: *} value=${line#*: } ;;
      *) echo "$list:$number: not a \"key: value\" line: $line" >&2; exit 2 ;;
    esac
    case "$key" in
      fault) name=$value ;;
      file) file=$value ;;
      old) old=$value ;;
      new) new=$value have_new=yes ;;
      *) echo "$list:$number: unknown key \"$key\"" >&2; exit 2 ;;
    esac
  done <"$list"
  flush
}
parse

# ------------------------------------------------------ the scratch copy

# The checkout's files as they are now (committed or not, ignored ones
# left out), copied where they differ, so that a reused build recompiles
# only what changed; files the checkout no longer has are removed.
sync_sources() {
  mkdir -p "$src"
  local wanted=$work/files
  (cd "$here" && git ls-files -z --cached --others --exclude-standard |
     while IFS= read -r -d '' f; do
       if [ -f "$f" ] || [ -L "$f" ]; then printf '%s\0' "$f"; fi
     done) >"$wanted"
  while IFS= read -r -d '' f; do
    if ! cmp -s "$here/$f" "$src/$f" 2>/dev/null; then
      mkdir -p "$src/$(dirname "$f")"
      rm -f "$src/$f"
      cp -P "$here/$f" "$src/$f"
    fi
  done <"$wanted"
  (cd "$src" && find . -type f -o -type l) | sed 's|^\./||' | LC_ALL=C sort >"$work/present"
  tr '\0' '\n' <"$wanted" | LC_ALL=C sort >"$work/wanted"
  LC_ALL=C comm -23 "$work/present" "$work/wanted" | while IFS= read -r f; do rm -f "$src/$f"; done
}

# Where `old` stands in `file` exactly once, prints the file with `new` in
# its place; otherwise says why not and fails. Plain text, no patterns.
replaced() {
  local file=$1 old=$2 new=$3 text before after
  [ -f "$src/$file" ] || { echo "no file $file" >&2; return 1; }
  text=$(cat "$src/$file"; printf x)
  text=${text%x}
  case "$text" in
    *"$old"*) ;;
    *) echo "text not found in $file: $old" >&2; return 1 ;;
  esac
  before=${text%%"$old"*}
  after=${text:$((${#before} + ${#old}))}
  case "$after" in
    *"$old"*) echo "text found more than once in $file: $old" >&2; return 1 ;;
  esac
  printf '%s%s%s' "$before" "$new" "$after"
}

# ------------------------------------------------------------- the suite

ctest_args=(-j2 -E '^(Load\.|package$|demo$)')
failure='\*\*\*(Failed|Exception|Timeout|Not Run)'   # how ctest marks a failed test

# Runs the fast suite; the failed tests' names go to $work/failed. With `first` the run
# is stopped at the first failure (ctest's own --stop-on-failure lets the
# tests already started run on, and some take minutes), and after `limit`
# seconds. Returns 0 (passed), 1 (failed) or 124 (out of time).
run_suite() {
  local first=$1 out=$work/ctest.log status=0 stopped="" begun=$SECONDS
  rm -f "$work/suite-status"
  # Emptied here, not by the run: the check below must never see the last run's failures.
  : >"$out"
  set -m
  (cd "$build" && TMPDIR=$scratch ctest "${ctest_args[@]}"; echo $? >"$work/suite-status") \
    >>"$out" 2>&1 &
  suite=$!
  set +m
  while [ ! -s "$work/suite-status" ]; do
    if [ "$first" = yes ] && grep -qE "$failure" "$out"; then stopped=failed; break; fi
    if [ "$first" = yes ] && [ $((SECONDS - begun)) -ge "$limit" ]; then stopped=time; break; fi
    sleep 1
  done
  if [ -n "$stopped" ]; then
    kill -TERM -- -"$suite" 2>/dev/null || true
    sleep 2
    kill -KILL -- -"$suite" 2>/dev/null || true
  fi
  wait "$suite" 2>/dev/null || true
  suite=""
  clear_scratch
  grep -E "$failure" "$out" | sed -nE 's/^ *[0-9]+\/[0-9]+ +Test +#[0-9]+: ([^ ]+) .*/\1/p' |
    tr '\n' ' ' >"$work/failed"
  case $stopped in
    failed) return 1 ;;
    time) return 124 ;;
  esac
  status=$(cat "$work/suite-status")
  [ "$status" -eq 0 ] || return 1
}

build_all() {
  cmake --build "$build" -j"$jobs" >"$work/build.log" 2>&1
}

# -------------------------------------------------------------------- run

echo "== scratch copy in $work"
sync_sources

# Every fault is checked against the code before anything is built.
selected=() errors=0
for i in ${names[@]+"${!names[@]}"}; do
  case "${names[$i]}" in *"$filter"*) ;; *) continue ;; esac
  if why=$(replaced "${files[$i]}" "${olds[$i]}" "${news[$i]}" 2>&1 >/dev/null); then
    selected+=("$i")
  else
    printf 'error     %s: %s\n' "${names[$i]}" "$why"
    errors=$((errors + 1))
  fi
done

if [ "$check_only" = yes ]; then
  echo "${#selected[@]} faults found in the code, $errors errors"
  [ "$errors" -eq 0 ]
  exit
fi

echo "== without any fault"
# The suite's optimisation, without the debugging information that makes
# every relinking of the tests slow.
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" -DZQIM_TESTS=ON \
  >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 2; }
build_all || { cat "$work/build.log"; echo "the unmodified copy does not build" >&2; exit 2; }
begun=$SECONDS
if ! run_suite no; then
  cat "$work/ctest.log" >&2
  echo "the suite fails without any fault planted ($(cat "$work/failed")); nothing to judge" >&2
  exit 2
fi
# A fault that makes a test wait for ever is stopped after three times as
# long as the suite took without any: a loaded machine is no fault.
took=$((SECONDS - begun))
limit=${ZQIM_MUTANT_TIMEOUT:-$((3 * took + 60))}
echo "the suite took $took s; each fault's run is stopped after $limit s"

echo "== $((${#selected[@]})) faults, one at a time"
killed=0 survived=0
for i in ${selected[@]+"${selected[@]}"}; do
  name=${names[$i]} file=${files[$i]} start=$SECONDS
  cp "$src/$file" "$work/original"
  planted=$file
  replaced "$file" "${olds[$i]}" "${news[$i]}" >"$work/mutant"
  cp "$work/mutant" "$src/$file"
  if ! build_all; then
    printf 'error     %s: does not build with the fault (see below)\n' "$name"
    grep -m 3 -E 'error' "$work/build.log" | sed 's/^/          /'
    errors=$((errors + 1))
  else
    status=0
    run_suite yes || status=$?
    failed=$(cat "$work/failed")
    took="$((SECONDS - start)) s"
    case $status in
      0) printf 'survived  %s [%s]\n' "$name" "$took"; survived=$((survived + 1)) ;;
      124) printf 'killed    %s (out of time) [%s]\n' "$name" "$took"
           killed=$((killed + 1)) ;;
      *) printf 'killed    %s (by %s) [%s]\n' "$name" "${failed% }" "$took"
         killed=$((killed + 1)) ;;
    esac
  fi
  cp "$work/original" "$src/$file"
  planted=""
done
# Leave the reused build as the code is, for the next run.
if [ "$keep" = yes ]; then build_all || true; fi

total=$((killed + survived + errors))
echo "score: $killed of $total killed, $survived survived, $errors errors"
[ "$survived" -eq 0 ] && [ "$errors" -eq 0 ]
