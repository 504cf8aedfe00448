# apt-get as every script here calls it (source this file). A package list
# that cannot be downloaded (a mirror in sync, a source that is down) is a
# warning while the packages wanted are still offered; a package that no
# source offers is an error naming it. Each download is tried twice.

export DEBIAN_FRONTEND=noninteractive

# Whether this script refreshed the package lists (1), and whether some of
# them could not be downloaded then (1).
apt_refreshed=0
apt_lists_incomplete=0

# Refreshes the package lists, a second time when the first fails; a list
# that still fails keeps the one there was (or none), with a warning.
apt_update() {
  local attempt
  apt_refreshed=1
  for attempt in 1 2; do
    if apt-get update -qq; then
      apt_lists_incomplete=0
      return 0
    fi
    echo "warning: apt-get update failed (attempt $attempt of 2, its messages above)" >&2
  done
  apt_lists_incomplete=1
  echo "warning: going on with the package lists there are" >&2
}

# Prints the packages, of those named, that no source offers (no candidate).
apt_not_offered() {
  apt-cache policy "$@" 2>/dev/null | awk -v wanted="$*" '
    /^[^ ].*:$/ { name = substr($0, 1, length($0) - 1) }
    /^  Candidate:/ && $2 != "(none)" { offered[name] = 1 }
    END {
      n = split(wanted, names, " ")
      for (i = 1; i <= n; i++)
        if (!(names[i] in offered)) {
          printf "%s%s", separator, names[i]
          separator = " "
        }
    }'
}

# Fails, naming them, when some of the packages named are offered by no
# source, after refreshing the lists if this script has not yet.
apt_check_offered() {
  local missing
  missing=$(apt_not_offered "$@")
  if [ -n "$missing" ] && [ "$apt_refreshed" = 0 ]; then
    apt_update
    missing=$(apt_not_offered "$@")
  fi
  if [ -n "$missing" ]; then
    echo "error: no source in /etc/apt offers the Debian package(s): $missing" >&2
    if [ "$apt_lists_incomplete" = 1 ]; then
      echo "(some package lists could not be downloaded: see the warnings above)" >&2
    fi
    return 1
  fi
}

# Runs an apt-get command that downloads packages; when it fails, refreshes
# the lists and runs it once more.
apt_twice() {
  if "$@"; then
    return 0
  fi
  echo "warning: $* failed; refreshing the package lists and trying once more" >&2
  apt_update
  if ! "$@"; then
    echo "error: $* failed twice (its messages above)" >&2
    return 1
  fi
}

# Installs packages (without the ones they only recommend), from freshly
# refreshed lists.
apt_install() {
  apt_update
  apt_check_offered "$@" || return 1
  apt_twice apt-get install -y -qq --no-install-recommends "$@"
}

# Downloads packages into the current folder, without installing them.
apt_download() {
  apt_check_offered "$@" || return 1
  apt_twice apt-get download "$@"
}
