#!/usr/bin/env bash
# Builds and runs every test of vigilo on a fresh machine: installs what is missing, then
# configures, builds and tests the default build and the sanitizer builds.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

echo "== format" >&2
find . \( -path './build*' -o -path ./.git \) -prune -o \( -name '*.cc' -o -name '*.h' \) -print |
  xargs clang-format --dry-run --Werror

for preset in default asan tsan; do
  echo "== $preset build" >&2
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

echo "== package" >&2
bash scripts/package_test.sh
