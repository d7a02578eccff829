#!/usr/bin/env bash
# Brings a Debian 12 machine to the point where the project builds:
#   1. installs the Debian packages the build and tests use (only the missing ones);
#   2. builds OpenSSL 3.5 and curl (static, curl against that OpenSSL) from the
#      next Debian release's source packages into a versioned cache outside the
#      tree, and reuses that cache when it is already complete.
#   3. installs the official MCP TypeScript SDK from the npm registry into the
#      same cache, for the end-to-end test that drives the MCP server with a
#      real client.
# Prints "mcp-sdk: <dir>" and then the cache prefix on its last line. Safe to
# run any number of times.
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
  zlib1g-dev libicu-dev libqrencode-dev
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

# The machine's own Debian mirror, read from its apt sources; no host is named here.
debian_mirror() {
  local uri=""
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    uri=$(awk '/^URIs:/ {print $2; exit}' /etc/apt/sources.list.d/debian.sources)
  fi
  if [ -z "$uri" ] && [ -f /etc/apt/sources.list ]; then
    uri=$(awk '$1 == "deb" && $0 !~ /security/ {for (i = 2; i <= NF; i++) if ($i ~ /^[a-z]+:\/\//) {print $i; exit}}' /etc/apt/sources.list)
  fi
  [ -n "$uri" ] || { log "no Debian mirror found in the apt sources"; exit 1; }
  printf '%s\n' "$uri"
}

fetch_sources() {
  local work=$1
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
  cat >"$work/next.sources" <<EOT
Types: deb-src
URIs: $(debian_mirror)
Suites: trixie
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOT
  local opts=(-o "Dir::Etc::sourcelist=$work/next.sources" -o Dir::Etc::sourceparts=/dev/null
    -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache")
  apt-get "${opts[@]}" update -q >&2
  (cd "$work" && apt-get "${opts[@]}" source --download-only openssl/trixie curl/trixie >&2) 2>&1 |
    grep -v 'unsandboxed' >&2 || true
  ls "$work"/openssl_*.orig.tar.gz "$work"/curl_*.orig.tar.gz >/dev/null
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

build_deps() {
  local stamp="$CACHE_ROOT/current-$RECIPE"
  if [ -f "$stamp" ]; then
    local prefix
    prefix=$(cat "$stamp")
    if [ -f "$prefix/lib/libcrypto.a" ] && [ -f "$prefix/lib/libcurl.a" ]; then
      printf '%s\n' "$prefix"
      return
    fi
  fi
  mkdir -p "$CACHE_ROOT"
  local work
  work=$(mktemp -d "$CACHE_ROOT/work.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  log "fetching OpenSSL and curl sources"
  fetch_sources "$work"
  local ossl_tar curl_tar ossl_ver curl_ver
  ossl_tar=$(ls "$work"/openssl_*.orig.tar.gz | head -n1)
  curl_tar=$(ls "$work"/curl_*.orig.tar.gz | head -n1)
  ossl_ver=$(basename "$ossl_tar" | sed -E 's/^openssl_(.*)\.orig\.tar\.gz$/\1/')
  curl_ver=$(basename "$curl_tar" | sed -E 's/^curl_(.*)\.orig\.tar\.gz$/\1/')
  case "$ossl_ver" in 3.[5-9]*|3.1[0-9]*) ;; *) log "OpenSSL $ossl_ver is older than 3.5"; exit 1 ;; esac
  local prefix="$CACHE_ROOT/openssl-$ossl_ver-curl-$curl_ver-$RECIPE"
  rm -rf "$prefix"
  mkdir -p "$work/openssl" "$work/curl"
  tar -xzf "$ossl_tar" -C "$work/openssl" --strip-components=1
  tar -xzf "$curl_tar" -C "$work/curl" --strip-components=1
  log "building OpenSSL $ossl_ver (a few minutes)"
  build_openssl "$work/openssl" "$prefix"
  log "building curl $curl_ver against it (a few minutes)"
  build_curl "$work/curl" "$prefix" "$prefix"
  printf '%s\n' "$prefix" >"$stamp.tmp" && mv "$stamp.tmp" "$stamp"
  rm -rf "$work"
  trap - EXIT
  printf '%s\n' "$prefix"
}

readonly MCP_SDK_VERSION=1.32.2

install_mcp_sdk() {
  local dir="$CACHE_ROOT/mcp-sdk-$MCP_SDK_VERSION"
  if [ ! -f "$dir/node_modules/@modelcontextprotocol/sdk/package.json" ]; then
    log "installing @modelcontextprotocol/sdk@$MCP_SDK_VERSION from the npm registry"
    mkdir -p "$CACHE_ROOT"
    local work
    work=$(mktemp -d "$CACHE_ROOT/npm.XXXXXX")
    (cd "$work" && npm install --no-audit --no-fund --ignore-scripts --loglevel=error \
      "@modelcontextprotocol/sdk@$MCP_SDK_VERSION" >&2)
    rm -rf "$dir"
    mv "$work" "$dir"
  fi
  printf 'mcp-sdk: %s\n' "$dir"
}

install_packages
install_mcp_sdk
build_deps
