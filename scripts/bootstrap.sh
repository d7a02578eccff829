#!/usr/bin/env bash
# Brings a Debian 12 machine to the point where the project builds:
#   1. installs the Debian packages the build and tests use (only the missing ones);
#   2. builds OpenSSL 3.5 and curl (static, curl against that OpenSSL) from the
#      next Debian release's source packages into a versioned cache outside the
#      tree, and reuses that cache when it is already complete.
#   3. installs the real counterparts the tests drive from the npm registry into
#      the same cache: the official MCP TypeScript SDK, the Claude Code and Codex
#      command lines, an OpenID Connect authorisation server and a mail composer.
# Prints "node-tools: <dir>" and then the cache prefix on its last line. Safe
# to run any number of times.
#
# With --fetch-only it only fetches and checks the two source tarballs into
# $TOLVANGER_DEPS_CACHE/sources and prints the versions chosen: a quick check
# that a fresh machine could bootstrap today.
#
# The sources come from the first version whose upstream tarball downloads and
# matches the index's SHA-256, trying OpenSSL's 3.5 line newest first, then its
# newer lines, and curl 8.14 and newer likewise. A machine that cannot reach
# the mirror passes its own tarballs: TOLVANGER_OPENSSL_TARBALL and
# TOLVANGER_CURL_TARBALL, each with TOLVANGER_*_SHA256 or a <tarball>.sha256
# file beside it.
set -euo pipefail

# Bump when the configure flags below change, so an old cache is not reused.
readonly RECIPE=r1
readonly CACHE_ROOT="${TOLVANGER_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tolvanger-deps}"

log() { printf 'bootstrap: %s\n' "$*" >&2; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

readonly PACKAGES=(
  build-essential cmake ninja-build perl pkg-config ca-certificates
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  zlib1g-dev libicu-dev libqrencode-dev libsystemd-dev libsecret-1-dev
  unison python3-dbusmock tmux gzip dbus
  clang clang-format libclang-rt-14-dev
  python3
  xz-utils tar
)

install_packages() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$p")
    fi
  done
  # The machine may carry its own Node.js with npm inside; Debian's nodejs and npm
  # packages would conflict with it, so they are only installed where node is absent.
  if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
    missing+=(nodejs npm)
  fi
  if [ "${#missing[@]}" -gt 0 ]; then
    log "installing: ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q >&2
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
  fi
}

# The machine's own apt sources, read in either format: "<uri> <suite>" a line
# for every deb entry. No host is named in this script.
apt_entries() {
  local f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk '
      function flush() { if (deb && uris != "") { n = split(uris, u, " "); m = split(suites, s, " ");
                           for (i = 1; i <= n; i++) for (j = 1; j <= m; j++) print u[i], s[j] }
                         deb = 0; uris = ""; suites = "" }
      /^[[:space:]]*$/ { flush(); next }
      /^Types:/ { deb = ($0 ~ /(^|[[:space:]])deb([[:space:]]|$)/) }
      /^URIs:/ { sub(/^URIs:[[:space:]]*/, ""); uris = $0 }
      /^Suites:/ { sub(/^Suites:[[:space:]]*/, ""); suites = $0 }
      END { flush() }' "$f"
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '$1 == "deb" { i = 2; if ($2 ~ /^\[/) { while (i <= NF && $i !~ /\]$/) i++; i++ }
                       if ($i ~ /^[a-z]+:\/\//) print $i, $(i + 1) }' "$f"
  done
}

# The main archive and the security archive, each as one URI.
debian_mirror() { apt_entries | awk '$2 !~ /-security$/ {print $1; exit}'; }
security_mirror() { apt_entries | awk '$2 ~ /-security$/ {print $1; exit}'; }

# A private apt configuration that reads only the next releases' source
# indexes, leaving the machine's own apt state untouched.
APT_OPTS=()
apt_private() {
  local dir=$1 main security
  main=$(debian_mirror)
  security=$(security_mirror)
  if [ -z "$main" ]; then
    log "no Debian mirror found in the machine's apt sources"
    return 1
  fi
  mkdir -p "$dir/lists/partial" "$dir/cache/archives/partial"
  {
    printf 'Types: deb-src\nURIs: %s\nSuites: trixie trixie-updates forky sid\n' "$main"
    printf 'Components: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n'
    if [ -n "$security" ]; then
      printf '\nTypes: deb-src\nURIs: %s\nSuites: trixie-security\n' "$security"
      printf 'Components: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n'
    fi
  } >"$dir/next.sources"
  APT_OPTS=(-o "Dir::Etc::sourcelist=$dir/next.sources" -o Dir::Etc::sourceparts=/dev/null
    -o "Dir::State::Lists=$dir/lists" -o "Dir::Cache=$dir/cache")
  # One suite that fails to update still leaves the others' indexes.
  apt-get "${APT_OPTS[@]}" update -q >>"$dir/apt.log" 2>&1 ||
    log "some source indexes did not update (see $dir/apt.log); going on with the rest"
}

# Prints "<debian version> <upstream version> <sha256> <orig file name>" for
# every version of a source package the private indexes carry, in the order
# to try them: the wanted line first, newest first, then the newer lines,
# each newest first. Lines older than the wanted one are left out.
candidates() {
  local package=$1 line=$2
  apt-cache "${APT_OPTS[@]}" showsrc "$package" 2>/dev/null | awk -v pkg="$package" '
    /^Package:/ { p = $2 }
    /^Version:/ { v = $2 }
    /^Checksums-Sha256:/ { sums = 1; next }
    sums && /^ / { if (p == pkg && $3 ~ /\.orig\.tar\.(gz|xz)$/) {
                     u = v; sub(/^[0-9]+:/, "", u); sub(/-[^-]*$/, "", u); print v, u, $1, $3 }
                   next }
    { sums = 0 }' | sort -u | awk -v line="$line" '
    { split($2, a, "."); split(line, w, ".");
      if (a[1] != w[1]) next
      if (a[2] + 0 < w[2] + 0) next
      rank = (a[2] + 0 == w[2] + 0) ? 0 : a[2] + 0
      print rank, $0 }' | sort -k1,1n -k3,3Vr -k2,2Vr | cut -d' ' -f2-
}

# Checks a file's SHA-256 against the expected hex digest.
sha256_ok() {
  local file=$1 want=$2 got
  got=$(sha256sum "$file" | cut -d' ' -f1)
  [ "${got,,}" = "${want,,}" ]
}

# Downloads the first candidate of a package whose upstream tarball arrives
# intact, into $dir. Only the .orig tarball matters: the .dsc and Debian's
# patches may be missing from the pool, and apt then exits non-zero, so the
# files present decide. Prints "<upstream version> <path>"; returns 1 when no
# candidate downloads. Each try is appended to $TRIED_FILE.
fetch_first() {
  local package=$1 line=$2 dir=$3 version upstream sum file
  mkdir -p "$dir"
  while read -r version upstream sum file; do
    [ -n "$version" ] || continue
    local try="$dir/$version"
    mkdir -p "$try"
    (cd "$try" && apt-get "${APT_OPTS[@]}" source --download-only "$package=$version") \
      >>"$dir/apt.log" 2>&1 || true
    if [ -f "$try/$file" ] && sha256_ok "$try/$file" "$sum"; then
      mv "$try/$file" "$dir/$file"
      rm -rf "$try"
      printf '%s %s: downloaded\n' "$package" "$version" >>"$TRIED_FILE"
      printf '%s %s\n' "$upstream" "$dir/$file"
      return 0
    fi
    rm -rf "$try"
    printf '%s %s: the upstream tarball did not download\n' "$package" "$version" >>"$TRIED_FILE"
    log "$package $version did not download; trying the next candidate"
  done < <(candidates "$package" "$line")
  return 1
}

# A tarball the user supplied instead of the mirror: $TOLVANGER_<NAME>_TARBALL,
# checked against $TOLVANGER_<NAME>_SHA256 or a "<tarball>.sha256" file beside
# it. Prints "<upstream version> <path>"; exits when the check fails.
local_tarball() {
  local name=$1 package=$2 tarball_var="TOLVANGER_$1_TARBALL" sum_var="TOLVANGER_$1_SHA256"
  local tarball=${!tarball_var:-} want=${!sum_var:-}
  if [ ! -f "$tarball" ]; then
    log "$tarball_var names $tarball, which is not a file"
    exit 1
  fi
  if [ -z "$want" ] && [ -f "$tarball.sha256" ]; then
    want=$(awk '{print $1; exit}' "$tarball.sha256")
  fi
  if [ -z "$want" ]; then
    log "$tarball_var is set but its checksum is not: set $sum_var or put $(basename "$tarball").sha256 beside it"
    exit 1
  fi
  if ! sha256_ok "$tarball" "$want"; then
    log "$tarball does not match the SHA-256 given for it"
    exit 1
  fi
  local version
  version=$(basename "$tarball" | sed -E "s/^$package[_-]([0-9][0-9.]*[0-9])(\.orig)?\.tar\.(gz|xz)$/\1/")
  if [ "$version" = "$(basename "$tarball")" ]; then
    log "cannot read a version from the name $(basename "$tarball") (expected $package-X.Y.Z.tar.gz)"
    exit 1
  fi
  printf '%s %s\n' "$version" "$tarball"
}

no_sources() {
  {
    printf 'bootstrap: no source of %s could be downloaded from the mirror.\n' "$1"
    printf 'Versions tried, in order:\n'
    if [ -s "$TRIED_FILE" ]; then
      sed 's/^/  /' "$TRIED_FILE"
    else
      printf '  (none: the source indexes listed no version of the wanted lines)\n'
    fi
    printf 'To build without the mirror, download the upstream tarballs yourself and set\n'
    printf 'TOLVANGER_OPENSSL_TARBALL and TOLVANGER_CURL_TARBALL to their paths, with\n'
    printf 'TOLVANGER_OPENSSL_SHA256 and TOLVANGER_CURL_SHA256 (or a <tarball>.sha256 file\n'
    printf 'beside each) holding their SHA-256, then run this again.\n'
  } >&2
  exit 1
}

# Puts the OpenSSL and curl sources in $dir, from the user's tarballs or the
# mirror. Sets OSSL_VER, OSSL_TAR, CURL_VER and CURL_TAR.
fetch_sources() {
  local dir=$1 got
  mkdir -p "$dir"
  local need_mirror=0
  [ -n "${TOLVANGER_OPENSSL_TARBALL:-}" ] || need_mirror=1
  [ -n "${TOLVANGER_CURL_TARBALL:-}" ] || need_mirror=1
  if [ "$need_mirror" -eq 1 ]; then apt_private "$dir/apt"; fi
  TRIED_FILE="$dir/tried"
  : >"$TRIED_FILE"
  if [ -n "${TOLVANGER_OPENSSL_TARBALL:-}" ]; then
    got=$(local_tarball OPENSSL openssl) || exit 1
  else
    got=$(fetch_first openssl 3.5 "$dir/src") || no_sources OpenSSL
  fi
  read -r OSSL_VER OSSL_TAR <<<"$got"
  if [ -n "${TOLVANGER_CURL_TARBALL:-}" ]; then
    got=$(local_tarball CURL curl) || exit 1
  else
    got=$(fetch_first curl 8.14 "$dir/src") || no_sources curl
  fi
  read -r CURL_VER CURL_TAR <<<"$got"
  log "sources: OpenSSL $OSSL_VER, curl $CURL_VER"
}
build_openssl() {
  local src=$1 prefix=$2
  (cd "$src" &&
    ./Configure no-shared no-tests no-docs no-apps no-legacy no-engine no-module \
      --prefix="$prefix" --libdir=lib linux-x86_64 >&2 &&
    make -j"$(nproc)" build_libs >&2 && make install_dev >&2)
}

build_curl() {
  local src=$1 prefix=$2 ssl=$3
  (cd "$src" &&
    ./configure --prefix="$prefix" --with-openssl="$ssl" --disable-shared --enable-static \
      --with-ca-bundle=/etc/ssl/certs/ca-certificates.crt --without-ca-path \
      --disable-ldap --disable-ldaps --without-libssh2 --without-librtmp --without-libpsl \
      --without-nghttp2 --without-libidn2 --without-brotli --without-zstd --without-zlib \
      --disable-dict --disable-file --disable-ftp --disable-gopher --disable-imap --disable-mqtt \
      --disable-pop3 --disable-rtsp --disable-smb --disable-smtp --disable-telnet --disable-tftp \
      --disable-ipfs --disable-websockets --disable-manual --disable-docs --without-gssapi >&2 &&
    make -j"$(nproc)" -C lib >&2 && make -C lib install >&2 && make -C include install >&2)
}

# The scratch directory of this run, removed however the script ends.
WORK=""
cleanup() { if [ -n "$WORK" ]; then rm -rf "$WORK"; fi; }
trap cleanup EXIT

# The stamp names the prefix on its first line and the versions built into it
# on the next two ("openssl X", "curl Y").
STAMP="$CACHE_ROOT/current-$RECIPE"

cached_prefix() {
  [ -f "$STAMP" ] || return 1
  local prefix
  prefix=$(head -n 1 "$STAMP")
  [ -f "$prefix/lib/libcrypto.a" ] && [ -f "$prefix/lib/libcurl.a" ] || return 1
  printf '%s\n' "$prefix"
}

build_deps() {
  local prefix
  if prefix=$(cached_prefix); then
    log "using the cached build in $prefix${STAMP:+ ($(sed -n '2,3p' "$STAMP" | tr '\n' ' ' | sed 's/ $//'))}"
    printf '%s\n' "$prefix"
    return
  fi
  mkdir -p "$CACHE_ROOT"
  WORK=$(mktemp -d "$CACHE_ROOT/work.XXXXXX")
  fetch_sources "$WORK"
  case "$OSSL_VER" in 3.[5-9]* | 3.[1-9][0-9]*) ;; *)
    log "OpenSSL $OSSL_VER is older than 3.5, which has ML-KEM and ML-DSA"
    exit 1
    ;;
  esac
  prefix="$CACHE_ROOT/openssl-$OSSL_VER-curl-$CURL_VER-$RECIPE"
  rm -rf "$prefix"
  mkdir -p "$WORK/openssl" "$WORK/curl"
  tar -xf "$OSSL_TAR" -C "$WORK/openssl" --strip-components=1
  tar -xf "$CURL_TAR" -C "$WORK/curl" --strip-components=1
  log "building OpenSSL $OSSL_VER (a few minutes)"
  build_openssl "$WORK/openssl" "$prefix"
  log "building curl $CURL_VER against it (a few minutes)"
  build_curl "$WORK/curl" "$prefix" "$prefix"
  printf '%s\nopenssl %s\ncurl %s\n' "$prefix" "$OSSL_VER" "$CURL_VER" >"$STAMP.tmp"
  mv "$STAMP.tmp" "$STAMP"
  log "built OpenSSL $OSSL_VER and curl $CURL_VER into $prefix"
  printf '%s\n' "$prefix"
}

# Fetches and checks the sources into $CACHE_ROOT/sources and builds nothing:
# a quick check that a fresh machine could still bootstrap today.
fetch_only() {
  mkdir -p "$CACHE_ROOT"
  WORK=$(mktemp -d "$CACHE_ROOT/work.XXXXXX")
  fetch_sources "$WORK"
  mkdir -p "$CACHE_ROOT/sources"
  cp "$OSSL_TAR" "$CURL_TAR" "$CACHE_ROOT/sources/"
  printf 'openssl %s\ncurl %s\n' "$OSSL_VER" "$CURL_VER"
}

# Exact versions, so every machine tests against the same counterparts. Bump
# NODE_TOOLS_REV when the list changes, so an old folder is not reused.
readonly NODE_TOOLS_REV=1
readonly NODE_TOOLS=(
  @modelcontextprotocol/sdk@1.32.2
  @anthropic-ai/claude-code@2.1.330
  @openai/codex@0.169.0
  oidc-provider@9.13.3
  nodemailer@10.6.0
)

install_node_tools() {
  local dir="$CACHE_ROOT/node-tools-r$NODE_TOOLS_REV"
  if [ ! -f "$dir/.complete" ]; then
    log "installing from the npm registry: ${NODE_TOOLS[*]}"
    mkdir -p "$CACHE_ROOT"
    local work
    work=$(mktemp -d "$CACHE_ROOT/npm.XXXXXX")
    (cd "$work" && npm install --no-audit --no-fund --ignore-scripts --loglevel=error \
      "${NODE_TOOLS[@]}" >&2)
    # Install scripts stay off for every package; Claude Code's only copies its
    # platform's native binary into place, so that one runs by name.
    (cd "$work" && node node_modules/@anthropic-ai/claude-code/install.cjs >&2)
    touch "$work/.complete"
    rm -rf "$dir"
    mv "$work" "$dir"
  fi
  printf 'node-tools: %s\n' "$dir"
}

case "${1:-}" in
  --fetch-only)
    fetch_only
    ;;
  "")
    install_packages
    install_node_tools
    build_deps
    ;;
  *)
    log "usage: bootstrap.sh [--fetch-only]"
    exit 2
    ;;
esac
