#!/usr/bin/env bash
# cppcheck and clang-tidy over the plug-in and the stand-in host; any finding
# fails. The configuration (.clang-tidy, inline suppressions) gives the reason
# for every check that is switched off.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh cppcheck clang-tidy-14
[ -f build/default/compile_commands.json ] || cmake --preset default >/dev/null

echo "-- cppcheck"
cppcheck --std=c++17 --enable=warning,style,performance,portability \
  --inline-suppr --error-exitcode=1 --quiet \
  -I host/include -I catra/src/source -I host/src \
  catra/src/source host/src

echo "-- clang-tidy"
mapfile -t sources < <(ls catra/src/source/*.cpp host/src/*.cpp)
run-clang-tidy-14 -quiet -p build/default -j "$(nproc)" "${sources[@]}" >build/clang-tidy.log 2>&1 || {
  grep -E 'warning:|error:' build/clang-tidy.log | sort -u
  echo "clang-tidy: findings above" >&2
  exit 1
}
echo "static analysis: no findings in ${#sources[@]} files"
