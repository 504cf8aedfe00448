#!/usr/bin/env bash
# Runs the soak test for SECONDS (default 600) under the thread sanitizer: the
# running plug-in with its event thread, queue and exit-request workers busy at
# once, then the accounting of every turn. CATRA_SOAK_SEED repeats a run's
# choices (each run prints its seed).
#
#   scripts/soak.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
scripts/setup.sh
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target soak_tests
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
CATRA_SOAK_SECONDS=$seconds build/tsan/tests/soak/soak_tests \
  --gtest_filter=Soak.EventThreadQueueAndExitRequestWorkersAtOnce
