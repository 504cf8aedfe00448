#!/usr/bin/env bash
# Builds the plug-in, the stand-in host and the terminal program, then runs the
# demo: the road of one release against a simulated turnstile.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
exec build/default/terminal/catra-terminal \
  --config examples/terminal.ini \
  --plugin build/default/catra/libcatra.so \
  --script examples/road-of-one-release.jsonl "$@"
