#!/usr/bin/env bash
# Runs the README's test command as a new user of a named Debian release would: in a fresh minimal
# root of that release (debootstrap --variant=minbase), with this tree copied in, as root in a
# chroot. For example: bash scripts/test-on-debian.sh trixie
# Needs root, for debootstrap, the mounts and chroot; the root is removed afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."

release=${1:?usage: scripts/test-on-debian.sh RELEASE (such as trixie)}
if [ "$(id -u)" -ne 0 ]; then
  echo "test-on-debian: run as root: debootstrap, mount and chroot need it" >&2
  exit 1
fi
if ! command -v debootstrap >/dev/null; then
  apt-get install -y -qq --no-install-recommends debootstrap >/dev/null
fi

root=$PWD/build-debian-$release
# The mounts go first, and the removal never leaves the root's own file system, so that nothing of
# this machine's /dev, /proc or /sys is touched.
remove_root() {
  findmnt -rn -o TARGET | { grep "^$root/" || true; } | sort -r | xargs -r umount -l
  rm -rf --one-file-system "$root"
}
trap remove_root EXIT
remove_root

echo "test-on-debian: making a $release root" >&2
debootstrap --variant=minbase "$release" "$root" http://deb.debian.org/debian >/dev/null
for part in proc sys dev dev/pts; do
  mount --bind "/$part" "$root/$part"
done
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir "$root/root/vigilo"
tar --exclude='./build*' -cf - . | tar -C "$root/root/vigilo" -xf -

echo "test-on-debian: running the test command on $release" >&2
chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin CI=true \
  bash -c 'cd /root/vigilo && bash scripts/test.sh'
