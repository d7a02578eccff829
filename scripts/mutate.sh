#!/usr/bin/env bash
# Plants small faults one at a time and reports which ones the tests catch.
#
#   scripts/mutate.sh [--check] LIST [BUILD_DIR]
#
# Each line of LIST, blank lines and "#" lines aside, is one fault:
#
#   path @@ text @@ replacement [@@ targets [@@ gtest filter]]
#
# Spaces around each "@@" are not part of the fields. `text` must occur exactly once in the file; "\n" in it or in `replacement`
# stands for a line break. `targets` is a comma-separated list of test
# executables (default: tolvanger_service_tests, plus tolvanger_kit_tests for a
# file under kit/). For each fault the script replaces the text, builds the
# targets in BUILD_DIR (default build/), runs them and prints one line:
#   killed    a test failed (the first failing test is named)
#   survived  every test passed
#   no-build  the fault does not compile (not a behaviour change)
#   no-match  the text is not in the file exactly once
# With a filter, the matching tests run first and the whole executable only
# if they all pass. The file is restored with git checkout after each fault
# and on any exit; a file with uncommitted changes is refused. --check only
# checks that each text occurs exactly once.
set -uo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
check=false
if [ "${1:-}" = --check ]; then
  check=true
  shift
fi
LIST=${1:?usage: scripts/mutate.sh [--check] LIST [BUILD_DIR]}
BUILD=${2:-$ROOT/build}
# The tests run from inside the build folder, so its path must not be
# relative to where this was started.
BUILD=$(cd "$BUILD" && pwd)
planted=""
restore() {
  if [ -n "$planted" ]; then git -C "$ROOT" checkout -q -- "$planted"; fi
  planted=""
}
trap restore EXIT
trap 'exit 130' INT TERM

# replace FILE FROM TO: exit 3 unless FROM occurs exactly once.
replace() {
  FROM=$2 TO=$3 perl -0777 -i -pe '
    BEGIN { ($f, $t) = map { s/\\n/\n/gr } @ENV{qw(FROM TO)} }
    $n = () = /\Q$f\E/g;
    s/\Q$f\E/$t/ if $n == 1;
    END { exit($n == 1 ? 0 : 3) }' "$1"
}

binary() { find "$BUILD" -maxdepth 3 -type f -name "$1" -perm -u+x | head -n 1; }

# run TARGETS FILTER: prints the first failing test and fails, or succeeds.
run() {
  local target exe out
  for target in ${1//,/ }; do
    exe=$(binary "$target")
    out=$(cd "$BUILD" && timeout 300 "$exe" --gtest_brief=1 ${2:+"--gtest_filter=$2"} 2>&1)
    if [ $? -ne 0 ]; then
      grep -m1 -o '^\[  FAILED  \] [^ ,]*' <<<"$out" | sed 's/.* //' | grep . ||
        echo "$target (crash or timeout)"
      return 1
    fi
  done
}

n=0
while IFS= read -r line <&3; do
  [[ -z "${line//[[:space:]]/}" || $line == \#* ]] && continue
  n=$((n + 1))
  IFS=$'\x1f' read -r path from to targets filter \
    < <(sed 's/[[:space:]]*@@[[:space:]]*/\x1f/g' <<<"$line")
  if [ -z "${targets:-}" ]; then
    targets=tolvanger_service_tests
    [[ $path == kit/* ]] && targets=tolvanger_kit_tests,$targets
  fi
  label="$n $path: $from => $to"
  if ! git -C "$ROOT" diff --quiet -- "$path"; then
    echo "refusing: $path has uncommitted changes" >&2
    exit 2
  fi
  planted=$path
  if ! replace "$ROOT/$path" "$from" "$to"; then
    restore
    printf 'no-match  %s\n' "$label"
    continue
  fi
  if $check; then
    restore
    printf 'ok        %s\n' "$label"
    continue
  fi
  if ! cmake --build "$BUILD" --target ${targets//,/ } >/dev/null 2>&1; then
    printf 'no-build  %s\n' "$label"
  elif [ -n "${filter:-}" ] && ! by=$(run "$targets" "$filter"); then
    printf 'killed    %s  [%s]\n' "$label" "$by"
  elif by=$(run "$targets" ""); then
    printf 'survived  %s\n' "$label"
  else
    printf 'killed    %s  [%s]\n' "$label" "$by"
  fi
  restore
done 3<"$LIST"

# Leave the build as the sources are, not holding the last fault.
$check || cmake --build "$BUILD" >/dev/null 2>&1
