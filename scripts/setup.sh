#!/usr/bin/env bash
# Installs the Debian packages of scripts/packages.list that are missing, those
# of the groups named. Run as root on Debian 12; does nothing when all are
# there.
#   scripts/setup.sh                           the group "build": building and
#       running, what scripts/run.sh needs
#   scripts/setup.sh build tests arm ...       these groups
#   scripts/setup.sh --check PACKAGE...        fails, naming the missing ones
#       and the command that installs them, unless all are installed
set -euo pipefail
cd "$(dirname "$0")/.."
list=scripts/packages.list

# The list's rows: group, package.
rows() {
  awk '!/^#/ && NF >= 2 { print $1, $2 }' "$list"
}

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

# Fails unless every package named is installed, printing the missing ones
# and the command that installs their groups.
check() {
  local missing=() package
  for package in "$@"; do
    installed "$package" || missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return 0
  local groups unlisted
  groups=$(rows | awk -v wanted="${missing[*]}" '
    BEGIN { n = split(wanted, names, " "); for (i = 1; i <= n; i++) missing[names[i]] = 1 }
    $2 in missing && !seen[$1]++ { printf " %s", $1 }')
  unlisted=$(rows | awk -v wanted="${missing[*]}" '
    { listed[$2] = 1 }
    END { n = split(wanted, names, " "); for (i = 1; i <= n; i++) if (!(names[i] in listed)) printf " %s", names[i] }')
  echo "missing Debian package(s): ${missing[*]}; as root, scripts/setup.sh$groups installs them" >&2
  if [ -n "$unlisted" ]; then
    echo "error: not in $list:$unlisted" >&2
  fi
  return 1
}

if [ "${1:-}" = --check ]; then
  shift
  check "$@"
  exit
fi

groups=("$@")
[ "${#groups[@]}" -gt 0 ] || groups=(build)
known=$(rows | awk '{ print $1 }' | sort -u)
for group in "${groups[@]}"; do
  if ! grep -qx "$group" <<<"$known"; then
    echo "error: no group \"$group\" in $list; the groups: ${known//$'\n'/ }" >&2
    exit 2
  fi
done
mapfile -t packages < <(rows | awk -v wanted="${groups[*]}" '
  BEGIN { n = split(wanted, names, " "); for (i = 1; i <= n; i++) named[names[i]] = 1 }
  $1 in named { print $2 }')

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  check "${missing[@]}" || exit 1
fi
echo "Installing: ${missing[*]}"
# shellcheck source=scripts/apt.sh
source scripts/apt.sh
apt_install "${missing[@]}"
