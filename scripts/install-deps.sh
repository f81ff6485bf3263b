#!/usr/bin/env bash
# Installs every Debian 12 package that building, testing and running vorlend needs.
# Safe to run again: packages already present are left alone, and apt is only asked
# when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  libplist-dev libcurl4-openssl-dev libasio-dev nlohmann-json3-dev
  libsqlite3-dev zlib1g-dev libssl-dev libicu-dev libfmt-dev libcld2-dev
  libsystemd-dev systemtap-sdt-dev libcli11-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3
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

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
