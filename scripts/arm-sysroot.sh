#!/usr/bin/env bash
# Unpacks the armhf libraries that the cross-build needs (SQLite) from
# Debian's packages into build/arm-sysroot, without installing them.
set -euo pipefail
cd "$(dirname "$0")/.."
sysroot=build/arm-sysroot
if [ -f "$sysroot/.complete" ]; then
  exit 0
fi
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
  apt-get update -qq || true
fi
mkdir -p "$sysroot/debs"
(cd "$sysroot/debs" && apt-get download libsqlite3-0:armhf libsqlite3-dev:armhf)
for deb in "$sysroot"/debs/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
touch "$sysroot/.complete"
echo "armhf sysroot ready in $sysroot"
