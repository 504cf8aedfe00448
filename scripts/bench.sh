#!/usr/bin/env bash
# Builds the default preset's benchmarks and prints their figures, each beside
# the floor measured in the same run: event and release latency (median and
# 99th percentile over RUNS runs), idle wake-ups per second with
# "select_timeout" 1000, the terminal's peak memory over PASSAGES passages, and
# a letter's latency to 10 pages of the live view.
# Figures depend on the machine; nothing is asserted.
#
#   scripts/bench.sh [RUNS] [PASSAGES]      defaults: 10000 10000
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-10000}
passages=${2:-10000}
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target latency_bench terminal_memory_bench catra catra-terminal
echo "==> latency and idle wake-ups"
build/default/bench/latency_bench "$runs" 10
echo
echo "==> peak memory"
build/default/bench/terminal_memory_bench "$passages"
echo
echo "==> the live view: a letter to 10 pages"
python3 bench/live_view_bench.py build/default/terminal/catra-terminal examples/terminal.ini 10 200
