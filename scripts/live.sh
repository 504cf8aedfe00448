#!/usr/bin/env bash
# Builds the terminal and serves its live view: open http://127.0.0.1:8080/
# (or the address given as first argument, [ADDR:]PORT) and work the simulated
# turnstile with the mouse; Ctrl-C ends it. Further arguments go to the
# program (e.g. --script examples/give-up.jsonl). Lines typed on standard
# input run as well.
set -euo pipefail
cd "$(dirname "$0")/.."
address="${1:-8080}"
shift || true
scripts/setup.sh >&2
cmake --preset default >/dev/null
cmake --build --preset default --target catra-terminal >&2
exec build/default/terminal/catra-terminal --config examples/terminal.ini --http "$address" \
  "$@"
