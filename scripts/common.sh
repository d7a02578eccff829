# Shared by the build scripts: bootstraps the machine and configures a build.
# Sourced, not run.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
JOBS=${JOBS:-$(nproc)}

bootstrap() {
  DEPS_PREFIX=$(bash "$ROOT/scripts/bootstrap.sh" | tail -n 1)
  export DEPS_PREFIX
}

# configure <build dir> [cmake args...]
configure() {
  local dir=$1
  shift
  cmake -S "$ROOT" -B "$dir" -G Ninja -DTOLVANGER_DEPS_PREFIX="$DEPS_PREFIX" "$@" >/dev/null
}
