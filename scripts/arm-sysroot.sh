#!/usr/bin/env bash
# Unpacks the armhf libraries that the cross-build needs (SQLite) from
# Debian's packages into build/arm-sysroot, without installing them.
set -euo pipefail
cd "$(dirname "$0")/.."
sysroot=build/arm-sysroot
if [ -f "$sysroot/.complete" ]; then
  exit 0
fi
# shellcheck source=scripts/apt.sh
source scripts/apt.sh
# The packages are kept in a cache outside the work tree, so that a fresh
# clone on the same machine does not fetch them again.
cache=/var/cache/catra/arm-debs
mkdir -p "$cache"
if ! ls "$cache"/libsqlite3-dev_*_armhf.deb >/dev/null 2>&1; then
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    dpkg --add-architecture armhf
    apt_update
  fi
  (cd "$cache" && apt_download libsqlite3-0:armhf libsqlite3-dev:armhf)
fi
mkdir -p "$sysroot"
for deb in "$cache"/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
touch "$sysroot/.complete"
echo "armhf sysroot ready in $sysroot"
