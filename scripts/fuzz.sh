#!/usr/bin/env bash
# The fuzz targets, built with the "fuzz" preset (clang 14,
# libFuzzer, address and undefined-behaviour sanitizers).
#
#   scripts/fuzz.sh replay                   the test command's stage: each
#       target's test replays every committed input (fuzz/corpus/<target>/ and
#       fuzz/crashes/<target>/), then fuzzes 20000 inputs with a fixed seed
#   scripts/fuzz.sh [SECONDS] [TARGET...]    fuzzes each target for SECONDS
#       (default 300) with a random seed; targets: controller_bytes bus_messages
#       command_parser
#
# Fuzzing for longer starts from the committed corpus. New inputs go to
# build/fuzz/long/<target>/corpus; a crash's input is written to
# build/fuzz/long/<target>/ and the script fails. To keep a finding, minimise
# it and commit it under fuzz/crashes/<target>/ (the test replays that folder):
#   build/fuzz/fuzz/<target>_fuzz -minimize_crash=1 -runs=10000 CRASH_FILE
# and, to refresh the committed corpus from a long run:
#   build/fuzz/fuzz/<target>_fuzz -merge=1 fuzz/corpus/<target> build/fuzz/long/<target>/corpus
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build tests
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

if [ "${1:-}" = replay ]; then
  exec ctest --preset fuzz
fi

seconds=${1:-300}
shift || true
targets=("$@")
[ "${#targets[@]}" -eq 0 ] && targets=(controller_bytes bus_messages command_parser)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for target in "${targets[@]}"; do
  work=build/fuzz/long/$target
  mkdir -p "$work/corpus"
  echo "==> fuzzing $target for $seconds s"
  if ! "build/fuzz/fuzz/${target}_fuzz" -max_total_time="$seconds" -timeout=30 \
      -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" "fuzz/corpus/$target"; then
    echo "!!! $target: crash; input in $work/" >&2
    status=1
  fi
done
exit $status
