#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running vigilo need, and only the ones
# that are missing: `apt-get update` runs at most once, and a machine that has everything is left
# untouched. Safe to run any number of times.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-dev llvm clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libboost-dev libsimdjson-dev libc-ares-dev
  pkg-config git python3 python3-pytest valgrind curl procps
  dpkg-dev fakeroot lintian man-db groff-base bash-completion gnuplot-nox systemd prometheus
  victoria-metrics
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing Debian packages: ${missing[*]}" >&2
  echo "setup: run this script as root, or: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
