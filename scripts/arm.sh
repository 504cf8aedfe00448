#!/usr/bin/env bash
# Cross-builds the plug-in, the stand-in host and the tests for 32-bit ARM
# (armhf) and runs the tests under qemu-arm. `scripts/arm.sh quick` runs the
# subset that the test command runs; without it, the whole suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build arm
scripts/arm-sysroot.sh
cmake --preset arm >/dev/null
cmake --build --preset arm
if [ "${1:-}" = quick ]; then
  ctest --preset arm -L arm-quick
else
  ctest --preset arm
fi
size=$(arm-linux-gnueabihf-strip -o build/arm/libcatra-stripped.so build/arm/catra/libcatra.so && stat -c %s build/arm/libcatra-stripped.so)
echo "libcatra.so on ARM, stripped: $size bytes"
