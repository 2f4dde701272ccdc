#!/usr/bin/env bash
# Installs what the AArch64 cross build needs from Debian's archive: the cross
# compiler, qemu-user, and the arm64 libraries beside the host's (multiarch).
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  g++-aarch64-linux-gnu qemu-user
  libc6:arm64 libstdc++6:arm64
  libxml2-dev:arm64 zlib1g-dev:arm64 libminizip-dev:arm64
  android-liblog-dev:arm64 android-libcutils-dev:arm64
  # libqrtr-dev is not co-installable with the host's; CMake links the runtime library.
  libqrtr1:arm64
  # tests/support links the simulator's device doubles, which use FUSE.
  libfuse3-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64
)

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "cross_setup: adding the arm64 architecture"
  if [ "$(id -u)" -ne 0 ]; then sudo dpkg --add-architecture arm64; else dpkg --add-architecture arm64; fi
fi

. "$(dirname "$0")/apt_install.sh"
apt_install_missing cross_setup "${packages[@]}"
