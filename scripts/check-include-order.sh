#!/usr/bin/env bash
# Lists every include that points up the subsystem order
#   platform <- values <- persistence <- domain <- ipc <- api <- configurations
#   <- predefine
# (a file may include its own subsystem and those to its left). Prints the
# offending lines and exits 1 when there are any.
set -euo pipefail
cd "$(dirname "$0")/.."

order=(platform values persistence domain ipc api configurations predefine)
rank() {
  local i
  for i in "${!order[@]}"; do [[ ${order[$i]} == "$1" ]] && { echo "$i"; return; }; done
  echo -1
}

bad=0
while IFS= read -r file; do
  own=$(sed -E 's#^(src|include/qelss)/([^/]+)/.*#\2#' <<<"$file")
  ownRank=$(rank "$own")
  ((ownRank >= 0)) || continue
  while IFS= read -r line; do
    target=$(sed -E 's/^#include "(qelss\/)?([^/"]+)\/.*/\2/' <<<"$line")
    targetRank=$(rank "$target")
    if ((targetRank > ownRank)); then
      echo "$file: $line"
      bad=1
    fi
  done < <(grep -E '^#include "' "$file" || true)
done < <(git ls-files -- 'src/*' 'include/qelss/*' | grep -E '\.(cc|h)$')
exit "$bad"
