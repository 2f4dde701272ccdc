#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's archive.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev clang-format
  libxml2-dev zlib1g-dev libminizip-dev
  android-liblog-dev android-libcutils-dev
  libqrtr-dev
  libfuse3-dev fuse3
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 zip unzip procps util-linux
  help2man
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq || true
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
