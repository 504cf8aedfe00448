#!/usr/bin/env bash
# Fails when a C++ file of the project is not formatted with clang-format 14.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh static
mapfile -t files < <(git ls-files -co --exclude-standard -- '*.cpp' '*.h' | grep -v '^build/')
[ "${#files[@]}" -eq 0 ] && exit 0
clang-format-14 --dry-run --Werror "${files[@]}"
echo "format: ${#files[@]} files clean"
