#!/usr/bin/env bash
# Builds and runs every test of vigilo on a fresh machine: installs what is missing, then
# configures, builds and tests the default build and the sanitizer builds.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

# The layout is checked with the clang-format major version that .clang-format names, and skipped
# where another one is installed, which would lay some constructs out differently.
wanted=$(sed -n 's/.*as clang-format \([0-9]*\) writes it.*/\1/p' .clang-format)
installed=$(clang-format --version | sed -n 's/.*version \([0-9]*\)\..*/\1/p')
if [ "$installed" = "$wanted" ]; then
  echo "== format" >&2
  find . \( -path './build*' -o -path ./.git \) -prune -o \( -name '*.cc' -o -name '*.h' \) -print |
    xargs clang-format --dry-run --Werror
else
  echo "== format: skipped, clang-format $installed is installed and the code is laid out by $wanted" >&2
fi

for preset in default asan tsan; do
  echo "== $preset build" >&2
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

echo "== package" >&2
bash scripts/package_test.sh
