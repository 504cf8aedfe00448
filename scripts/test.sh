#!/usr/bin/env bash
# The test command (what CI runs): every stage below, each printing its time.
#   scripts/test.sh              all stages
#   scripts/test.sh asan         one preset alone (default, asan, tsan)
#   scripts/test.sh arm coverage static fuzz scenarios demo package   other stages by name
set -euo pipefail
cd "$(dirname "$0")/.."

stages=("$@")
[ "${#stages[@]}" -eq 0 ] && stages=(static default scenarios demo asan tsan coverage arm fuzz package)

# The processor time of this shell's finished children, in seconds.
children_cpu() {
  local times
  times=$(sed 's/.*) //' /proc/$$/stat)
  # Fields 14 and 15 after the command's name: children's user and system time.
  awk -v ticks="$(getconf CLK_TCK)" '{ printf "%d", ($14 + $15) / ticks }' <<<"$times"
}

# Each stage prints its time, and the processor time it used (both cores
# count): on a machine shared with other work the second is the steadier.
stage() {
  local name=$1
  shift
  local start=$SECONDS cpu
  cpu=$(children_cpu)
  echo "==> $name"
  "$@"
  echo "<== $name: $((SECONDS - start)) s (CPU $(($(children_cpu) - cpu)) s)"
}

packages() {
  scripts/package.sh
  scripts/check-packages.sh
}

preset() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
  ctest --preset "$1"
}

# Every scenario (the examples and tests/scenarios) checked by the terminal
# of the default build, one line per file, with a JUnit report beside it.
scenarios() {
  cmake --preset default >/dev/null
  cmake --build --preset default --target catra-terminal catra
  build/default/terminal/catra-terminal --plugin build/default/catra/libcatra.so -j 2 \
    --junit build/default/scenarios.xml --check examples/*.jsonl tests/scenarios/*.jsonl
}

# The README's run command, as a person runs it: its demo must meet its
# expectations. What it printed is kept in build/default/demo.jsonl.
demo() {
  mkdir -p build/default
  scripts/run.sh >build/default/demo.jsonl
}

stage "setup" scripts/setup.sh build tests arm packaging static
stage "format check" scripts/check-format.sh
for name in "${stages[@]}"; do
  case "$name" in
    default | asan | tsan) stage "build and test: $name" preset "$name" ;;
    static) stage "static analysis" scripts/static-analysis.sh ;;
    scenarios) stage "scenarios" scenarios ;;
    demo) stage "the run command" demo ;;
    coverage) stage "coverage" scripts/coverage.sh ;;
    arm) stage "ARM (armhf) under qemu-arm" scripts/arm.sh quick ;;
    fuzz) stage "fuzz corpus replay" scripts/fuzz.sh replay ;;
    package) stage "Debian packages" packages ;;
    *)
      echo "unknown stage: $name" >&2
      exit 2
      ;;
  esac
done
echo "all stages passed in $SECONDS s"
