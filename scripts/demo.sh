#!/usr/bin/env bash
# Runs the daemon on a simulated phone: vornsim makes the device root
# build/device on first use (with the demo configuration), mounts its FUSE
# devices, starts its services and runs vornd --root build/device in the
# foreground. Ctrl-C stops the daemon and takes the phone down.
#
#   VORN_DEVICE_ROOT=DIR  use another device root
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2

root=${VORN_DEVICE_ROOT:-$PWD/build/device}
if [ ! -f "$root/etc/vorn-conf.xml" ]; then
  echo "demo: creating the device root $root"
  ./build/vornsim create "$root"
  cp tools/demo/vorn-conf.xml "$root/etc/vorn-conf.xml"
fi

echo "demo: vornsim run $root (socket $root/dev/socket/vornd)"
exec ./build/vornsim run "$root"
