#!/bin/sh
# Runs a program against a settings service of its own, in a temporary runtime
# and state folder, and stops the service by pid afterwards.
#
#   with-service.sh SERVICE PROGRAM [ARGUMENTS...]
set -eu
service=$1
shift
dir=$(mktemp -d)
pid=
stop() {
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  rm -rf "$dir"
}
trap stop EXIT
QELSS_RUNTIME_DIR=$dir/run
XDG_DATA_HOME=$dir/data
export QELSS_RUNTIME_DIR XDG_DATA_HOME
"$service" --state-dir "$dir/state" --socket-group "$(id -gn)" --sync none 2>"$dir/service.log" &
pid=$!
# The service logs this line once it accepts connections.
tries=0
until grep -q 'listening on' "$dir/service.log" 2>/dev/null; do
  tries=$((tries + 1))
  if [ "$tries" -gt 200 ] || ! kill -0 "$pid" 2>/dev/null; then
    echo "the settings service did not start:" >&2
    cat "$dir/service.log" >&2
    exit 1
  fi
  sleep 0.05
done
"$@"
