#!/usr/bin/env bash
# Builds the coverage preset, runs the whole suite once, and prints the share
# of lines, functions and branches of src/, include/ and tools/ that it ran.
# Needs gcovr (Debian package gcovr). Not part of CI: it takes a full build.
#   scripts/coverage.sh [--keep]   --keep: reuse the counters of an earlier run
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/coverage

command -v gcovr >/dev/null || { echo "gcovr is missing: apt-get install gcovr" >&2; exit 1; }
cmake --preset coverage >/dev/null
cmake --build --preset coverage
if [[ ${1:-} != --keep ]]; then
  find "$build" -name '*.gcda' -delete
  # A failing test still counts what it ran; the figures are what matter here.
  ctest --preset coverage || echo "some tests failed; the figures below include their runs" >&2
fi

# Branches count gcc's hidden unwinding paths too, as the project's agreed
# baseline does; most of them no test can take, so the figure reads lower than
# the code's own branching.
gcovr --root . --object-directory "$build" \
  --filter 'src/' --filter 'include/' --filter 'tools/' \
  --gcov-ignore-parse-errors \
  --print-summary --output /dev/null | grep -E '^(lines|functions|branches):'
