#!/usr/bin/env bash
# Builds the plug-in, the stand-in host and the terminal program, then runs the
# demo: the road of one release against a simulated turnstile.
set -euo pipefail
cd "$(dirname "$0")/.."
# Setting up and building report on standard error: standard output is the
# demo's alone (JSON lines when it is not a terminal).
scripts/setup.sh >&2
cmake --preset default >/dev/null
cmake --build --preset default >&2
exec build/default/terminal/catra-terminal \
  --config examples/terminal.ini \
  --plugin build/default/catra/libcatra.so \
  --script examples/road-of-one-release.jsonl "$@"
