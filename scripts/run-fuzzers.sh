#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz") and runs each one for a bounded
# time on a scratch copy of its starting corpus (fuzz/corpus/<target>, left as
# it is). Stops with a failure at the first crash, leak, timeout or memory blow-
# up; the input that caused it is kept under build/fuzz/artifacts/.
#
#   scripts/run-fuzzers.sh [seconds per target, default 60]
#   scripts/run-fuzzers.sh --remake-corpus    rewrite fuzz/corpus from the library
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(hash_from_bytes format_bytes decrypt frame_reader)

cmake --preset fuzz >/dev/null
if [ "${1:-}" = "--remake-corpus" ]; then
  cmake --build --preset fuzz -j2 --target make_starting_corpus
  build/fuzz/fuzz/make_starting_corpus fuzz/corpus
  exit 0
fi

seconds="${1:-60}"
cmake --build --preset fuzz -j2 --target "${targets[@]/#/fuzz_}"

artifacts="build/fuzz/artifacts"
mkdir -p "$artifacts"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

for target in "${targets[@]}"; do
  echo "== fuzz_$target for ${seconds}s =="
  mkdir -p "$scratch/$target"
  cp fuzz/corpus/"$target"/* "$scratch/$target/"
  # Byte forms larger than 16 KiB add nothing but time per run; 2 GiB is far
  # above what any input of that size may cost.
  dictionary=()
  case "$target" in hash_from_bytes | format_bytes) dictionary=(-dict=fuzz/byteform.dict) ;; esac
  build/fuzz/fuzz/fuzz_"$target" "$scratch/$target" "${dictionary[@]}" \
    -max_total_time="$seconds" -max_len=16384 -rss_limit_mb=2048 -timeout=30 \
    -artifact_prefix="$artifacts/$target-" -print_final_stats=1
done
echo "== fuzzers ran clean =="
