#!/usr/bin/env bash
# Builds the Debian package of vigilo in build-package/ and prints its path as the last line.
# Release build, installed under /usr; dpkg-shlibdeps decides the dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
{
  cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON
  cmake --build build-package --target vigilo ovengine vigilo-exporter manual_pages package_changelog
  rm -f build-package/package/*.deb
  (cd build-package && cpack -G DEB)
} >&2
ls build-package/package/*.deb
