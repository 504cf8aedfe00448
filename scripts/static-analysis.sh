#!/usr/bin/env bash
# cppcheck and clang-tidy over the plug-in, the stand-in host, the terminal
# program and the simulator; any finding fails. The configuration (.clang-tidy,
# inline suppressions) gives the reason for every check that is switched off.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh cppcheck clang-tidy-14
[ -f build/default/compile_commands.json ] || cmake --preset default >/dev/null

echo "-- cppcheck"
cppcheck --std=c++17 --enable=warning,style,performance,portability \
  --inline-suppr --error-exitcode=1 --quiet \
  -I host/include -I catra/src/source -I host/src \
  catra/src/source host/src
# The terminal and the simulator: ordinary C++, where a short loop that copies
# or looks for an element reads as plainly as the algorithm cppcheck proposes
# (useStlAlgorithm); the page's assets are generated into the build.
[ -f build/default/terminal/generated/web_assets.h ] ||
  cmake --build --preset default --target catra-terminal >/dev/null
cppcheck --std=c++17 --enable=warning,style,performance,portability \
  --inline-suppr --error-exitcode=1 --quiet --suppress=useStlAlgorithm \
  -I host/include -I simulator/include -I terminal/src -I build/default/terminal/generated \
  terminal/src simulator/src simulator/program

echo "-- clang-tidy"
mapfile -t sources < <(ls catra/src/source/*.cpp host/src/*.cpp terminal/src/*.cpp \
  simulator/src/*.cpp simulator/program/*.cpp)
run-clang-tidy-14 -quiet -p build/default -j "$(nproc)" "${sources[@]}" >build/clang-tidy.log 2>&1 || {
  grep -E 'warning:|error:' build/clang-tidy.log | sort -u
  echo "clang-tidy: findings above" >&2
  exit 1
}
echo "static analysis: no findings in ${#sources[@]} files"
