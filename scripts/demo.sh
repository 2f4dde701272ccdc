#!/usr/bin/env bash
# Runs the daemon on this host against a simulated device root under
# build/device, created on first use with the demo configuration. The daemon
# logs to stderr; stop it with Ctrl-C.
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
  mkdir -p "$root"/{etc,data,dev/socket,sdcard/logs,system/bin,system/etc,proc}
  ln -sf /bin/sh "$root/system/bin/sh"
  cat >"$root/system/build.prop" <<PROP
ro.build.version.sdk=29
ro.product.board=vornhost
ro.board.platform=msm8974
PROP
  cp tools/demo/vorn-conf.xml "$root/etc/vorn-conf.xml"
fi

export VORN_DEVICE_ROOT=$root
export PATH=$PWD/tools/demo/bin:$PATH
echo "demo: vornd --root $root (socket $root/dev/socket/vornd)"
exec ./build/vornd --root "$root"
