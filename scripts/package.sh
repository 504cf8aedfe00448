#!/usr/bin/env bash
# Writes the Debian packages into build/packages/:
#   catra-plugin and catra-terminal for amd64, from the default preset's build;
#   catra-plugin for armhf, from the ARM cross-build (the `arm` preset).
# Only the packaged targets are built; build folders are reused.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build packaging arm
scripts/arm-sysroot.sh >/dev/null

out=build/packages
rm -rf "$out"
mkdir -p "$out"

# Builds the packaged targets of a preset and writes its packages.
package() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target "$@"
  rm -rf "build/$preset/packages"
  (cd "build/$preset" && cpack >/dev/null)
  cp "build/$preset"/packages/*.deb "$out"/
}

package default catra catra-terminal catra-terminal-manpage catra-simulator catra-simulator-manpage
package arm catra

for deb in "$out"/*.deb; do
  echo "$deb: $(stat -c %s "$deb") bytes"
done
