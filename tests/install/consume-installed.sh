#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds the
# quickstart example against that copy as another project would, once through
# find_package and once through pkg-config, and runs both builds.
#   consume-installed.sh <build dir> <quickstart.cc> <consumer project> <work dir>
# CXX, CXXFLAGS and LDFLAGS are passed on (a sanitized library needs its
# runtime, and flags may be one compiler's own).
set -euo pipefail
build=$1 source=$2 project=$3 work=$4

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
pcdir=$(find "$prefix" -name qelss.pc -printf '%h\n' | head -n1)
[[ -n $pcdir ]] || { echo "qelss.pc was not installed" >&2; exit 1; }
libdir=$(dirname "$pcdir")

run() {  # runs a consumer on a domain and a host key of its own
  local name=$1
  XDG_DATA_HOME=$work/$name-data LD_LIBRARY_PATH=$libdir \
    "$work/$name/consumer" "$work/$name-domain"
}

echo "== find_package"
cmake -S "$project" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DQUICKSTART_SOURCE="$source" -DCMAKE_CXX_FLAGS="${CXXFLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="${LDFLAGS:-}" >/dev/null
cmake --build "$work/cmake" >/dev/null
run cmake

echo "== pkg-config"
pc() { PKG_CONFIG_PATH=$pcdir pkg-config --define-variable=prefix="$prefix" "$@" qelss; }
mkdir -p "$work/pkg-config"
# shellcheck disable=SC2046,SC2086
"${CXX:-c++}" ${CXXFLAGS:-} $(pc --cflags) "$source" -o "$work/pkg-config/consumer" ${LDFLAGS:-} $(pc --libs)
run pkg-config
echo "both builds ran"
