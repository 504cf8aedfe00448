#!/usr/bin/env bash
# Checks the Debian packages that scripts/package.sh wrote into build/packages/:
#   - lintian reports no error on any of them;
#   - the amd64 packages, unpacked into a temporary root, run the installed
#     road of one release: the installed terminal, loading the installed
#     plug-in and stand-in host, with the installed configuration and script;
#   - each plug-in is a stripped shared object of its architecture that
#     exports only `init` and needs no host library.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh packaging
dir=build/packages

fail() {
  echo "check-packages: $*" >&2
  exit 1
}

# The one package file of a name and architecture.
package_file() {
  local files=("$dir/$1"_*_"$2".deb)
  if [ "${#files[@]}" -ne 1 ] || [ ! -f "${files[0]}" ]; then
    fail "expected one $1 package for $2 in $dir"
  fi
  echo "${files[0]}"
}

plugin_amd64=$(package_file catra-plugin amd64)
terminal_amd64=$(package_file catra-terminal amd64)
plugin_armhf=$(package_file catra-plugin armhf)

echo "lintian:"
lintian --allow-root --fail-on error "$dir"/*.deb || fail "lintian reports errors"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

# The plug-in of a package: its file type, its exported symbols, the
# libraries it needs.
check_plugin() {
  local deb=$1 type=$2
  local unpacked
  unpacked="$root/$(basename "$deb" .deb)"
  dpkg-deb -x "$deb" "$unpacked"
  local so="$unpacked/usr/lib/catra/libcatra.so"
  [ -f "$so" ] || fail "$deb: no usr/lib/catra/libcatra.so"
  local described
  described=$(file -b "$so")
  [[ "$described" == "$type"* ]] || fail "$deb: libcatra.so is not a $type: $described"
  [[ "$described" == *", stripped"* ]] || fail "$deb: libcatra.so is not stripped"
  local exported
  exported=$(readelf --dyn-syms -W "$so" |
    awk '($5 == "GLOBAL" || $5 == "WEAK") && $7 != "UND" { print $8 }' | sort -u)
  [ "$exported" = init ] || fail "$deb: libcatra.so exports more than init: ${exported//$'\n'/ }"
  local needed
  needed=$(readelf -d -W "$so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  for library in $needed; do
    case "$library" in
      libc.so.* | libm.so.* | libstdc++.so.* | libgcc_s.so.* | libpthread.so.* | libdl.so.*) ;;
      *) fail "$deb: libcatra.so needs $library" ;;
    esac
  done
  echo "$(basename "$deb"): $described; exports init; needs ${needed//$'\n'/ }"
}
check_plugin "$plugin_amd64" "ELF 64-bit LSB shared object, x86-64"
check_plugin "$plugin_armhf" "ELF 32-bit LSB shared object, ARM"

# The installed road of one release, in a root holding both amd64 packages.
installed="$root/installed"
dpkg-deb -x "$plugin_amd64" "$installed"
dpkg-deb -x "$terminal_amd64" "$installed"
program="$installed/usr/bin/catra-terminal"
examples="$installed/usr/share/catra-terminal/examples"
version=$(dpkg-deb -f "$terminal_amd64" Version)
[ "$("$program" --version)" = "catra-terminal ${version%-*}" ] ||
  fail "catra-terminal --version does not print ${version%-*}"
[ "$("$installed/usr/bin/catra-simulator" --version)" = "catra-simulator ${version%-*}" ] ||
  fail "catra-simulator --version does not print ${version%-*}"
output=$(LD_DEBUG=libs LD_DEBUG_OUTPUT="$root/loader" "$program" --json \
  --config "$examples/terminal.ini" --script "$examples/road-of-one-release.jsonl") ||
  fail "the installed terminal failed on the road of one release"
# The loader's trace names where the plug-in and the host library came from.
loaded=$(cat "$root"/loader.* | sed -n 's/.*calling init: \(.*lib\(catra\|ac_host\)\.so\)$/\1/p')
[ "$(echo "$loaded" | grep -c "^$installed/")" -eq 2 ] ||
  fail "the installed terminal did not load the installed plug-in and host library: $loaded"
echo "$output" | awk '
  /^\{"bus":"catra_event",.*\["event_name","TURN RIGHT"\]/ { turned = NR }
  turned && /^\{"bus":"catra_state_changed","fields":\[\["state",0\]\]\}$/ { blocked = NR }
  END { exit !(turned && blocked) }' ||
  fail "the installed road of one release did not turn right and block again: $output"
echo "the installed terminal ran the road of one release with the installed plug-in"
