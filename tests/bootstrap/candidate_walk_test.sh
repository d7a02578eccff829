#!/usr/bin/env bash
# Drives scripts/bootstrap.sh --fetch-only against stand-ins for apt-get and
# apt-cache on PATH: a mirror whose index lists versions the pool no longer
# serves, a tarball that arrives corrupt, one whose .dsc is missing, and local
# tarballs given by the user. Checks which version the walk takes, the order
# it tries them in, and the paragraph printed when nothing downloads.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT
FAILS=0

fail() { printf 'FAIL: %s\n' "$*"; FAILS=$((FAILS + 1)); }

# The stand-ins. The index is $FAKE_INDEX: "<package> <debian version> <mode>"
# a line, mode one of serve (the orig arrives, apt exits 0), nodsc (the orig
# arrives, apt exits 100), missing (nothing arrives) and corrupt (the orig
# arrives with bytes the index's hash does not match). Every download asked
# for is appended to $FAKE_LOG.
mkdir -p "$SCRATCH/bin"
cat >"$SCRATCH/bin/apt-cache" <<'STUB'
#!/usr/bin/env bash
set -eu
while [ "$1" = "-o" ]; do shift 2; done
[ "$1" = showsrc ] || exit 0
while read -r pkg ver mode; do
  [ "$pkg" = "$2" ] || continue
  up=${ver%-*}
  sum=$(printf '%s %s\n' "$pkg" "$up" | sha256sum | cut -d' ' -f1)
  printf 'Package: %s\nVersion: %s\nChecksums-Sha256:\n %s 42 %s_%s.orig.tar.gz\n %s 7 %s_%s.dsc\n\n' \
    "$pkg" "$ver" "$sum" "$pkg" "$up" "$sum" "$pkg" "$ver"
done <"$FAKE_INDEX"
STUB
cat >"$SCRATCH/bin/apt-get" <<'STUB'
#!/usr/bin/env bash
set -eu
while [ "$1" = "-o" ]; do shift 2; done
case "$1" in
  update) exit 0 ;;
  source) ;;
  *) exit 2 ;;
esac
want=${3:?}
pkg=${want%%=*} ver=${want#*=} up=${ver%-*}
echo "$pkg $ver" >>"$FAKE_LOG"
mode=$(awk -v p="$pkg" -v v="$ver" '$1 == p && $2 == v {print $3}' "$FAKE_INDEX")
case "$mode" in
  serve) printf '%s %s\n' "$pkg" "$up" >"${pkg}_$up.orig.tar.gz" ;;
  nodsc) printf '%s %s\n' "$pkg" "$up" >"${pkg}_$up.orig.tar.gz"; exit 100 ;;
  corrupt) printf 'tampered\n' >"${pkg}_$up.orig.tar.gz"; exit 0 ;;
  *) echo "E: 404 Not Found" >&2; exit 100 ;;
esac
STUB
chmod +x "$SCRATCH/bin/"*

# run <name> [VAR=value ...]: runs the fetch-only walk into a fresh cache and
# leaves its stdout, stderr and exit code in $SCRATCH/<name>.{out,err,rc}.
run() {
  local name=$1
  shift
  : >"$SCRATCH/$name.log"
  set +e
  env "$@" PATH="$SCRATCH/bin:$PATH" FAKE_INDEX="$SCRATCH/$name.index" FAKE_LOG="$SCRATCH/$name.log" \
    TOLVANGER_DEPS_CACHE="$SCRATCH/$name.cache" \
    bash "$ROOT/scripts/bootstrap.sh" --fetch-only >"$SCRATCH/$name.out" 2>"$SCRATCH/$name.err"
  echo $? >"$SCRATCH/$name.rc"
  set -e
}

# The newest 3.5 is listed but gone, the next 3.5 arrives without its .dsc,
# a newer line serves in full; older lines are never tried. curl's newest
# arrives corrupt, the next is served.
cat >"$SCRATCH/walk.index" <<'IDX'
openssl 3.0.17-1~deb12u2 serve
openssl 3.5.9-1~deb13u1 missing
openssl 3.5.7-1~deb13u2 nodsc
openssl 3.6.3-1 serve
curl 8.14.1-2+deb13u7 corrupt
curl 8.14.1-2+deb13u5 serve
curl 7.88.1-10 serve
IDX
run walk
[ "$(cat "$SCRATCH/walk.rc")" = 0 ] || fail "the walk exited $(cat "$SCRATCH/walk.rc"): $(cat "$SCRATCH/walk.err")"
grep -qx 'openssl 3.5.7' "$SCRATCH/walk.out" || fail "the walk did not choose OpenSSL 3.5.7: $(cat "$SCRATCH/walk.out")"
grep -qx 'curl 8.14.1' "$SCRATCH/walk.out" || fail "the walk did not choose curl 8.14.1: $(cat "$SCRATCH/walk.out")"
expected=$'openssl 3.5.9-1~deb13u1\nopenssl 3.5.7-1~deb13u2\ncurl 8.14.1-2+deb13u7\ncurl 8.14.1-2+deb13u5'
[ "$(cat "$SCRATCH/walk.log")" = "$expected" ] || fail "tried in the wrong order: $(tr '\n' ',' <"$SCRATCH/walk.log")"
[ -f "$SCRATCH/walk.cache/sources/openssl_3.5.7.orig.tar.gz" ] || fail "the OpenSSL tarball is not in the cache"
grep -q 'tampered' "$SCRATCH/walk.cache/sources/curl_8.14.1.orig.tar.gz" && fail "the corrupt curl tarball was kept"

# Nothing downloads: one paragraph naming every version tried and the way out.
cat >"$SCRATCH/none.index" <<'IDX'
openssl 3.5.9-1~deb13u1 missing
openssl 3.6.5-1 corrupt
curl 8.14.1-2+deb13u7 serve
IDX
run none
[ "$(cat "$SCRATCH/none.rc")" != 0 ] || fail "a walk where nothing downloads exited 0"
for needle in 'no source of OpenSSL could be downloaded' 'openssl 3.5.9-1~deb13u1' 'openssl 3.6.5-1' \
  TOLVANGER_OPENSSL_TARBALL TOLVANGER_CURL_SHA256; do
  grep -qF -- "$needle" "$SCRATCH/none.err" || fail "the failure paragraph lacks '$needle': $(cat "$SCRATCH/none.err")"
done

# Local tarballs: used without asking the mirror, and only with a matching checksum.
printf 'openssl 3.5.7\n' >"$SCRATCH/openssl-3.5.7.tar.gz"
sha256sum "$SCRATCH/openssl-3.5.7.tar.gz" | cut -d' ' -f1 >"$SCRATCH/openssl-3.5.7.tar.gz.sha256"
printf 'curl 8.14.1\n' >"$SCRATCH/curl-8.14.1.tar.gz"
curl_sum=$(sha256sum "$SCRATCH/curl-8.14.1.tar.gz" | cut -d' ' -f1)
: >"$SCRATCH/local.index"
run local TOLVANGER_OPENSSL_TARBALL="$SCRATCH/openssl-3.5.7.tar.gz" \
  TOLVANGER_CURL_TARBALL="$SCRATCH/curl-8.14.1.tar.gz" TOLVANGER_CURL_SHA256="$curl_sum"
[ "$(cat "$SCRATCH/local.rc")" = 0 ] || fail "local tarballs were refused: $(cat "$SCRATCH/local.err")"
grep -qx 'openssl 3.5.7' "$SCRATCH/local.out" || fail "the local OpenSSL version was not read from its name"
[ ! -s "$SCRATCH/local.log" ] || fail "the mirror was asked although both tarballs were given"
run badsum TOLVANGER_OPENSSL_TARBALL="$SCRATCH/openssl-3.5.7.tar.gz" \
  TOLVANGER_OPENSSL_SHA256=0000000000000000000000000000000000000000000000000000000000000000 \
  TOLVANGER_CURL_TARBALL="$SCRATCH/curl-8.14.1.tar.gz" TOLVANGER_CURL_SHA256="$curl_sum"
[ "$(cat "$SCRATCH/badsum.rc")" != 0 ] || fail "a tarball with the wrong checksum was accepted"
grep -q 'does not match the SHA-256' "$SCRATCH/badsum.err" || fail "no clear sentence for a wrong checksum"

if [ "$FAILS" -eq 0 ]; then
  echo "candidate walk: all checks passed"
else
  exit 1
fi
