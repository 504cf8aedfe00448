#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing need, when
# they are missing. Run as root on Debian 12; does nothing when all are there.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev sqlite3
  nlohmann-json3-dev libinih-dev libcli11-dev libcpp-httplib-dev
  libmicrohttpd-dev
  librapidcheck-dev
  clang-format-14
)
if [ "$#" -gt 0 ]; then
  packages+=("$@")
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "error: packages missing and not running as root: ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
