#!/usr/bin/env bash
# Builds the Debian package of vigilo in build-package/ and prints its path as the last line.
# Release build with Debian's build flags, installed under /usr; dpkg-shlibdeps decides the
# dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
# Debian's hardening flags: fortified functions, stack protector, read-only relocations bound at
# start, position-independent executables.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
compile="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
link=$(dpkg-buildflags --get LDFLAGS)
{
  cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON -DCMAKE_CXX_FLAGS="$compile" \
    -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$link" -DCMAKE_SHARED_LINKER_FLAGS="$link"
  cmake --build build-package --target vigilo ovengine vigilo-exporter manual_pages package_changelog
  rm -f build-package/package/*.deb
  (cd build-package && cpack -G DEB)
} >&2
ls build-package/package/*.deb
