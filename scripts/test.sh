#!/usr/bin/env bash
# Builds and runs every test: format check, then the default, address+undefined
# and thread sanitizer presets. `scripts/test.sh asan` runs one preset alone.
set -euo pipefail
cd "$(dirname "$0")/.."

presets=("$@")
[ "${#presets[@]}" -eq 0 ] && presets=(default asan tsan)

stage() {
  local name=$1
  shift
  local start=$SECONDS
  echo "==> $name"
  "$@"
  echo "<== $name: $((SECONDS - start)) s"
}

stage "setup" scripts/setup.sh
stage "format check" scripts/check-format.sh
for preset in "${presets[@]}"; do
  stage "configure $preset" cmake --preset "$preset" >/dev/null
  stage "build $preset" cmake --build --preset "$preset"
  stage "test $preset" ctest --preset "$preset"
done
echo "all stages passed in $SECONDS s"
