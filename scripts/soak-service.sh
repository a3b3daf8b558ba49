#!/usr/bin/env bash
# Kills the settings service at random moments under a commit load, many
# times over, and checks after each restart that nothing acknowledged was
# lost and no client saw a generation count go back. Not part of the default
# suite, which runs the same test with a handful of kills.
#
#   scripts/soak-service.sh [kills, default 250] [preset, default "default"]
set -euo pipefail
cd "$(dirname "$0")/.."
kills="${1:-250}"
preset="${2:-default}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target ipc_service_test
QELSS_SOAK_KILLS="$kills" "build/$preset/tests/ipc/ipc_service_test" \
  --gtest_filter='ServiceKillTest.*'
