#!/usr/bin/env bash
# Checks the README's promise on a bare Debian 12: a clean clone of HEAD, in
# a chroot of a minimal Debian 12 with git added, runs the run command and,
# with --test, the test command; each one's exit status and time are printed
# at the end. Needs root and the Debian mirror.
#   scripts/fresh-machine.sh [--test]
# The bare Debian is made once (debootstrap --variant=minbase) and kept as a
# tarball in /var/cache/catra/fresh-machine/; every run unpacks it afresh into
# /var/cache/catra/fresh-machine/root, which stays as the run left it (with
# each command's log beside it) until the next run.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: scripts/fresh-machine.sh [--test]"
with_tests=0
case "$#:${1:-}" in
  0:) ;;
  1:--test) with_tests=1 ;;
  *)
    echo "$usage" >&2
    exit 2
    ;;
esac

suite=bookworm
mirror=http://deb.debian.org/debian
cache=/var/cache/catra/fresh-machine
bare="$cache/$suite-minbase.tar"
root="$cache/root"

if [ "$(id -u)" -ne 0 ]; then
  echo "error: scripts/fresh-machine.sh needs root (debootstrap, mount, chroot)" >&2
  exit 1
fi
probe=$(mktemp)
if ! /usr/lib/apt/apt-helper download-file "$mirror/dists/$suite/Release" "$probe" >/dev/null 2>&1; then
  rm -f "$probe"
  echo "error: scripts/fresh-machine.sh needs the Debian mirror, and $mirror cannot be reached" >&2
  exit 1
fi
rm -f "$probe"
mkdir -p "$cache"

# Nothing may stay mounted in the root when it is removed or left.
mounted() {
  findmnt -rn -o TARGET | grep -E "^$root(/|$)" | sort -r || true
}
unmount_all() {
  local target
  for target in $(mounted); do
    umount "$target" 2>/dev/null || umount -l "$target"
  done
}
trap unmount_all EXIT
trap 'exit 130' INT TERM
unmount_all
if [ -n "$(mounted)" ]; then
  echo "error: still mounted, so $root is left as it is: $(mounted)" >&2
  exit 1
fi

if [ ! -f "$bare" ]; then
  scripts/setup.sh fresh
  echo "==> making a bare Debian 12 ($suite, minbase, with git) into $bare"
  rm -rf --one-file-system "$bare.dir"
  debootstrap --variant=minbase --include=git "$suite" "$bare.dir" "$mirror"
  # The sources of an installed Debian 12: the release, its updates and its
  # security updates.
  cat >"$bare.dir/etc/apt/sources.list" <<EOF
deb $mirror $suite main
deb $mirror $suite-updates main
deb ${mirror%/debian}/debian-security $suite-security main
EOF
  tar -C "$bare.dir" -cf "$bare.new" .
  mv "$bare.new" "$bare"
  rm -rf --one-file-system "$bare.dir"
fi

echo "==> unpacking the bare Debian into $root"
rm -rf --one-file-system "$root"
mkdir -p "$root"
tar -C "$root" -xf "$bare"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
mount --bind /sys "$root/sys"
mount --bind /dev "$root/dev"
mount --bind /dev/pts "$root/dev/pts"
mount -t tmpfs -o mode=1777 shm "$root/dev/shm"

commit=$(git rev-parse HEAD)
echo "==> a clean clone of $commit in $root/root/catra"
git clone --quiet --no-hardlinks "$PWD" "$root/root/catra"
git -C "$root/root/catra" checkout --quiet --detach "$commit"

# Runs a command of the clone's in the chroot, as a new user would, and
# records its exit status and time.
results=()
failed=0
run() {
  local name=$1 command=$2 start=$SECONDS status
  local log="$cache/${name// /-}.log"
  echo "==> $name: $command (log: $log)"
  set +e
  chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 TERM=dumb \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    bash -c "cd /root/catra && $command" </dev/null 2>&1 | tee "$log"
  status=${PIPESTATUS[0]}
  set -e
  results+=("$name ($command): exit $status in $((SECONDS - start)) s")
  [ "$status" -eq 0 ] || failed=1
}
run "run command" scripts/run.sh
if [ "$with_tests" = 1 ]; then
  run "test command" scripts/test.sh
fi

echo "==> on a bare Debian 12 ($suite minbase, git added), $commit:"
printf '%s\n' "${results[@]}"
exit "$failed"
