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

. "$(dirname "$0")/apt_install.sh"
apt_install_missing setup "${packages[@]}"
