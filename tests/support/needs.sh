#!/usr/bin/env bash
# Runs a test's command when the Debian packages it needs are installed:
#   tests/support/needs.sh PACKAGE... -- COMMAND [ARGUMENT...]
# Otherwise the test fails with a message that names the missing packages and
# the command that installs them; it is never skipped.
set -euo pipefail
packages=()
while [ "$#" -gt 0 ] && [ "$1" != -- ]; do
  packages+=("$1")
  shift
done
if [ "$#" -lt 2 ]; then
  echo "usage: $0 PACKAGE... -- COMMAND [ARGUMENT...]" >&2
  exit 2
fi
shift
# The message goes to standard output too, where a test's listing is read.
"$(dirname "$0")/../../scripts/setup.sh" --check "${packages[@]}" 2>&1
exec "$@"
