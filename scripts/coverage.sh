#!/usr/bin/env bash
# Builds with gcov, runs every test, and prints the plug-in's line and branch
# coverage (throw branches left out). A report, not a gate.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build tests
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage
# Only the plug-in's object files are read (its code is compiled once, under
# the build's catra/, for the plug-in and the white-box tests alike): reading
# every object file of the build gave the same report fifteen times slower.
gcovr --root . --object-directory build/coverage \
  --filter 'catra/src/source/' \
  --exclude-throw-branches \
  --txt --print-summary build/coverage/catra
