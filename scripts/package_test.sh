#!/usr/bin/env bash
# Builds the Debian package and checks it as an operator would meet it: its contents, lintian,
# the manual pages, the systemd unit, and the installed vigilo running from the unpacked tree
# without LD_LIBRARY_PATH, with the end-to-end suite on both allocation routes.
set -euo pipefail
cd "$(dirname "$0")/.."

deb=$(bash scripts/package.sh | tail -n 1)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
failed=0
fail() {
  echo "package: $*" >&2
  failed=1
}

libdir=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/vigilo
listing=$(dpkg-deb -c "$deb" | awk '{print $6}')
for path in usr/bin/vigilo usr/bin/ovengine usr/bin/vigilo-plot usr/bin/vigilo-exporter \
  "$libdir/libovcommon.so" "$libdir/libovclient.so" usr/share/man/man1/vigilo.1.gz \
  usr/share/man/man1/ovengine.1.gz usr/share/man/man1/vigilo-plot.1.gz \
  usr/share/man/man1/vigilo-exporter.1.gz usr/share/bash-completion/completions/vigilo \
  usr/share/zsh/vendor-completions/_vigilo lib/systemd/system/vigilo@.service \
  lib/systemd/system/vigilo-exporter.service usr/lib/tmpfiles.d/vigilo.conf \
  usr/share/doc/vigilo/copyright usr/share/doc/vigilo/fields.md usr/share/doc/vigilo/fleet.md; do
  grep -qx "./$path" <<<"$listing" || fail "no $path in $deb"
done

lintian_report=$(lintian "$deb" 2>&1 | grep -v '^running with root privileges' || true)
grep -q '^E:' <<<"$lintian_report" && fail "lintian: $lintian_report"
echo "$lintian_report" >&2

dpkg-deb -x "$deb" "$root"
for page in "$root"/usr/share/man/man1/*.1.gz; do
  warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "man --warnings -l $page: $warnings"
done
for program in vigilo vigilo-exporter; do
  ldd "$root/usr/bin/$program" | grep -q "libovclient.so => $root/" ||
    fail "the installed $program does not find its libraries: $(ldd "$root/usr/bin/$program")"
done

if command -v systemd-analyze >/dev/null; then
  unit_dir=$(mktemp -d -p "$root")
  sed "s|/usr/bin/|$root/usr/bin/|" "$root/lib/systemd/system/vigilo@.service" \
    >"$unit_dir/vigilo@example.service"
  sed "s|/usr/bin/|$root/usr/bin/|" "$root/lib/systemd/system/vigilo-exporter.service" \
    >"$unit_dir/vigilo-exporter.service"
  for unit in "$unit_dir/vigilo@example.service" "$unit_dir/vigilo-exporter.service"; do
    verdict=$(systemd-analyze verify --man=no "$unit" 2>&1) ||
      fail "systemd-analyze verify $unit: $verdict"
  done
else
  echo "package: no systemd-analyze on this machine, the unit is not verified" >&2
fi

for tracking in 0 1; do
  VIGILO_UNDER_TEST="$root/usr/bin/vigilo" ORVEX_MEMORY_TRACKING=$tracking \
    build/bin/vigilo_e2e_tests --gtest_brief=1 >&2 || fail "end-to-end tests, tracking $tracking"
done
exit $failed
