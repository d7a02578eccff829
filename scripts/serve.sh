#!/usr/bin/env bash
# Sets the machine up, builds everything and runs the service in its default
# home (or $TOLVANGER_HOME), printing where it listens. Ctrl-C stops it.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
bootstrap
configure "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$ROOT/build" -j "$JOBS"
"$ROOT/build/apps/tolvanger-service" init --quiet
exec "$ROOT/build/apps/tolvanger-service" serve "$@"
