#!/usr/bin/env bash
# Installs the Debian packages that building, testing and fuzzing the project need.
# Idempotent: installs only what is missing. As root it runs apt-get itself;
# otherwise it prints the command to run.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config g++
  clang libclang-rt-14-dev clang-format
  libasio-dev libssl-dev libxml2-dev libsystemd-dev uuid-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  systemd
  # the service's etcd store: gRPC client, etcd's API definitions, and etcd
  # itself for its tests
  libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc
  golang-etcd-server-dev etcd-server etcd-client
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Run as root:" >&2
  echo "  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}"
