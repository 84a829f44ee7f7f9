#!/usr/bin/env bash
# Installs the Debian packages Tavra builds and tests with, when any is missing.
# Usage: scripts/deps.sh [build|test]
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  nlohmann-json3-dev libicu-dev libcurl4-openssl-dev libasio-dev
  libsystemd-dev libcli11-dev
  # The release build, which scripts/run.sh makes, includes the benchmarks.
  libbenchmark-dev
)
if [[ "${1:-build}" == test ]]; then
  # Tests run a private D-Bus daemon, private mount and network namespaces.
  packages+=(libgtest-dev libgmock-dev dbus-daemon util-linux procps iproute2)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=()
[[ $(id -u) -ne 0 ]] && sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
