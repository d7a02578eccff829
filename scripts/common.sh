# Shared by the build scripts: bootstraps the machine and configures a build.
# Sourced, not run.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
JOBS=${JOBS:-$(nproc)}

bootstrap() {
  local out
  out=$(bash "$ROOT/scripts/bootstrap.sh")
  DEPS_PREFIX=$(tail -n 1 <<<"$out")
  NODE_TOOLS_DIR=$(sed -n 's/^node-tools: //p' <<<"$out")
  export DEPS_PREFIX NODE_TOOLS_DIR
}

# configure <build dir> [cmake args...]
configure() {
  local dir=$1
  shift
  local launcher=()
  # ccache, where the machine has it, lets several checkouts share compiled objects.
  if command -v ccache >/dev/null 2>&1; then
    export CCACHE_BASEDIR=$ROOT
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S "$ROOT" -B "$dir" -G Ninja -DTOLVANGER_DEPS_PREFIX="$DEPS_PREFIX" \
    -DTOLVANGER_NODE_TOOLS_DIR="$NODE_TOOLS_DIR" "${launcher[@]}" "$@" >/dev/null
}
