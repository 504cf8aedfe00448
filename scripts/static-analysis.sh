#!/usr/bin/env bash
# cppcheck and clang-tidy over the product's C++ sources: every .cpp file that
# git knows under the product's folders below (not tests/, fuzz/, bench/),
# each read as the default build compiles it (its compile_commands.json), and
# the headers of those folders; any finding fails. The configuration
# (.clang-tidy, inline suppressions) gives the reason for every check that is
# switched off.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build static

product=(catra host simulator lines catra-simulator terminal)
# The plug-in and the stand-in host; the rest is the tools around them.
core=(catra host)

build=build/default
cmake --preset default >/dev/null
# The headers that the build generates into a folder the sources include
# (the live view's page) are made first; nothing else is built.
mapfile -t generated_folders < <(grep -o -- "-I$PWD/$build/[^ ]*" "$build/compile_commands.json" |
  sed "s|^-I$PWD/$build/||" | sort -u)
if [ "${#generated_folders[@]}" -gt 0 ]; then
  mapfile -t generated < <(ninja -C "$build" -t targets all |
    awk -F': ' -v folders="${generated_folders[*]}" '
      BEGIN { n = split(folders, f, " ") }
      { for (i = 1; i <= n; i++) if (index($1, f[i] "/") == 1) print $1 }')
  [ "${#generated[@]}" -eq 0 ] || ninja -C "$build" "${generated[@]}" >/dev/null
fi

# The product's sources of some folders that the build compiles.
sources() {
  local folder patterns=() file
  for folder in "$@"; do
    patterns+=("$folder/*.cpp")
  done
  git ls-files -- "${patterns[@]}" | while read -r file; do
    if grep -qF "\"file\": \"$PWD/$file\"" "$build/compile_commands.json"; then
      echo "$file"
    else
      echo "not compiled by the default build, so not analysed: $file" >&2
    fi
  done
}
tools=()
for folder in "${product[@]}"; do
  [[ " ${core[*]} " == *" $folder "* ]] || tools+=("$folder")
done
mapfile -t core_sources < <(sources "${core[@]}")
mapfile -t tool_sources < <(sources "${tools[@]}")

# cppcheck over the files named, each with its flags from the build.
cppcheck_over() {
  local filters=() file
  [ "$#" -gt 0 ] || return 0
  for file in "$@"; do
    filters+=("--file-filter=$file")
  done
  cppcheck --project="$build/compile_commands.json" "${filters[@]}" "${extra[@]}" \
    --std=c++17 --enable=warning,style,performance,portability \
    --inline-suppr --error-exitcode=1 --quiet -j "$(nproc)"
}
echo "-- cppcheck"
extra=()
cppcheck_over "${core_sources[@]}"
# The tools are ordinary C++, where a short loop that copies or looks for an
# element reads as plainly as the algorithm cppcheck proposes.
extra=(--suppress=useStlAlgorithm)
cppcheck_over "${tool_sources[@]}"

echo "-- clang-tidy"
# Over the project's own code: findings in the product's headers count, not in
# the libraries' (nor in the headers the build generates); and the
# path-sensitive analyzer takes a call into a template (the standard
# library's, JSON's, CLI11's) as opaque rather than following it through the
# library's code, where it spent most of its time on the terminal's files.
# The project's own code has one template member.
folders=$(IFS='|' && echo "${product[*]}")
header_filter="^$(printf '%s' "$PWD" | sed 's/[][\.*^$+?(){}|]/\\&/g')/($folders)/"
analyzer_config=c++-template-inlining=false
all_sources=("${core_sources[@]}" "${tool_sources[@]}")
run-clang-tidy-14 -quiet -p "$build" -j "$(nproc)" -header-filter="$header_filter" \
  -extra-arg=-Xclang -extra-arg=-analyzer-config -extra-arg=-Xclang -extra-arg="$analyzer_config" \
  "${all_sources[@]/#/$PWD/}" >build/clang-tidy.log 2>&1 || {
  grep -E 'warning:|error:' build/clang-tidy.log | sort -u
  echo "clang-tidy: findings above" >&2
  exit 1
}
echo "static analysis: no findings in ${#all_sources[@]} files"
