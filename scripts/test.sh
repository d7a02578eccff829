#!/usr/bin/env bash
# Sets the machine up, builds everything and runs every test: the formatting
# check, the suite in an optimised build, a check that each executable carries
# exactly one OpenSSL, and the suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer (built with clang, which checks the lock
# annotations), and the threaded parts once more under ThreadSanitizer.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

step() { printf '\n== %s\n' "$*"; }

# A warm deps cache would hide a mirror that no longer serves what a fresh
# machine needs; fetching the sources into an empty directory shows it.
step "the mirror still serves OpenSSL and curl sources"
fetch_check=$(mktemp -d)
trap 'rm -rf "$fetch_check"' EXIT
TOLVANGER_DEPS_CACHE=$fetch_check bash "$ROOT/scripts/bootstrap.sh" --fetch-only
rm -rf "$fetch_check"
trap - EXIT

step "set-up"
bootstrap

step "formatting"
cd "$ROOT"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t sources < <(git ls-files -co --exclude-standard -- '*.cc' '*.h')
else
  mapfile -t sources < <(find . -path ./build\* -prune -o \( -name '*.cc' -o -name '*.h' \) -print)
fi
clang-format --dry-run --Werror "${sources[@]}"
echo "${#sources[@]} files formatted"

step "build and test"
configure "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$ROOT/build" -j "$JOBS"
(cd "$ROOT/build" && ctest --output-on-failure -j "$JOBS")

step "one OpenSSL in each executable"
for exe in "$ROOT"/build/apps/tolvanger-*; do
  [ -x "$exe" ] || continue
  if ldd "$exe" | grep -E 'lib(ssl|crypto|curl)\.so'; then
    echo "$exe links a shared OpenSSL or curl" >&2
    exit 1
  fi
  echo "$(basename "$exe"): $(ldd "$exe" | wc -l) shared libraries, none of them OpenSSL"
done

# This build uses clang, which also checks every lock annotation (-Wthread-safety
# with warnings as errors), so the annotations cost no build of their own.
step "build and test under AddressSanitizer and UndefinedBehaviorSanitizer, with clang's lock checks"
configure "$ROOT/build-asan" -DCMAKE_BUILD_TYPE=Debug -DTOLVANGER_SANITIZE=address,undefined \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTOLVANGER_BENCH=OFF
cmake --build "$ROOT/build-asan" -j "$JOBS"
(cd "$ROOT/build-asan" &&
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --output-on-failure -j "$JOBS")

step "build and test the threaded parts under ThreadSanitizer"
configure "$ROOT/build-tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOLVANGER_SANITIZE=thread \
  -DTOLVANGER_BENCH=OFF -DTOLVANGER_FUZZ=OFF
cmake --build "$ROOT/build-tsan" -j "$JOBS" --target tolvanger_service_tests functional_tests
(cd "$ROOT/build-tsan" &&
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --output-on-failure -j "$JOBS" -R '^(tolvanger_service_tests|functional_tests)$')
