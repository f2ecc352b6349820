#!/usr/bin/env bash
# Builds the Debian package and checks it as an operator would meet it: its contents, lintian, the
# manual pages, the hardened units and the clean-up rule, the installed vigilo running from the
# unpacked tree without LD_LIBRARY_PATH (the end-to-end suite on both allocation routes), the
# maintainer scripts through install, upgrade, remove and purge, and `cmake --install` into a
# prefix of its own.
set -euo pipefail
# A step that fails without a word of its own still names itself in the log.
trap 'echo "package: stopped at line $LINENO: $BASH_COMMAND" >&2' ERR
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
for path in usr/bin/{vigilo,ovengine,vigilo-plot,vigilo-exporter} "$libdir"/lib{ovcommon,ovclient}.so \
  usr/share/man/man1/{vigilo,ovengine,vigilo-plot,vigilo-exporter}.1.gz \
  usr/share/bash-completion/completions/{vigilo,ovengine,vigilo-exporter,vigilo-plot} \
  usr/share/zsh/vendor-completions/_{vigilo,ovengine,vigilo-exporter,vigilo-plot} \
  usr/lib/systemd/system/{vigilo@,vigilo-exporter}.service usr/lib/{tmpfiles,sysusers}.d/vigilo.conf \
  etc/default/vigilo-exporter usr/share/vigilo/prometheus/vigilo-rules.yml \
  usr/share/doc/vigilo/{copyright,fields.md,fleet.md}; do
  grep -qx "./$path" <<<"$listing" || fail "no $path in $deb"
done

# Informational tags only: no error, warning or hardening tag.
lintian_report=$(lintian --pedantic -I "$deb" 2>&1 | grep -v '^running with root privileges' || true)
echo "$lintian_report" >&2
grep -qE '^[EW]:|hardening' <<<"$lintian_report" && fail "lintian: $lintian_report"

dpkg-deb -x "$deb" "$root"
for page in "$root"/usr/share/man/man1/*.1.gz; do
  warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "man --warnings -l $page: $warnings"
done
for program in vigilo vigilo-exporter; do
  ldd "$root/usr/bin/$program" | grep -q "libovclient.so => $root/" ||
    fail "the installed $program does not find its libraries: $(ldd "$root/usr/bin/$program")"
done

# The units verify and are hardened to an exposure of 2.0 or better.
unit_dir=$(mktemp -d -p "$root")
for unit in vigilo@ vigilo-exporter; do
  file=$unit_dir/${unit/%@/@example}.service
  sed "s|/usr/bin/|$root/usr/bin/|" "$root/usr/lib/systemd/system/$unit.service" >"$file"
  verdict=$(systemd-analyze verify --man=no "$file" 2>&1) ||
    fail "systemd-analyze verify $file: $verdict"
  exposure=$(systemd-analyze security --offline=true "$file" | sed -n 's/.*exposure level .*: \([0-9.]*\) .*/\1/p')
  echo "package: $unit.service exposure $exposure" >&2
  awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.0) }' || fail "$unit.service exposure $exposure"
done

# A file written 40 days ago and read today is removed; one written today stays.
grep '^adm:' /etc/group >"$root/etc/group"
systemd-sysusers --root="$root" >/dev/null
mkdir -p "$root/var/log/vigilo"
touch -m -d '40 days ago' "$root/var/log/vigilo/old.csv"
touch "$root/var/log/vigilo/new.csv"
cat "$root/var/log/vigilo/old.csv"
systemd-tmpfiles --clean --root="$root" vigilo.conf
[ "$(ls "$root/var/log/vigilo")" = new.csv ] || fail "clean-up left: $(ls "$root/var/log/vigilo")"

VIGILO_BINARY="$root/usr/bin/vigilo" OVENGINE_BINARY="$root/usr/bin/ovengine" \
  EXPORTER_BINARY="$root/usr/bin/vigilo-exporter" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider -p testing.programs \
  src/front/vigilo_e2e_test.py >&2 || fail "the end-to-end tests of the installed vigilo"

# Install, an upgrade over an edited conffile, remove and purge, on this machine; systemd need not
# be running. Nothing is enabled until the operator enables it, and purge forgets what was.
if [ "$(id -u)" -eq 0 ] && ! dpkg-query -W vigilo >/dev/null 2>&1; then
  trap 'dpkg -P vigilo >/dev/null 2>&1; rm -rf "$root"' EXIT
  wants=/etc/systemd/system/multi-user.target.wants
  dpkg -i "$deb" >&2 || fail "dpkg -i"
  [ ! -e $wants/vigilo-exporter.service ] || fail "installing enabled the exporter"
  [ "$(stat -c %a:%U:%G /var/log/vigilo)" = 2750:vigilo:adm ] ||
    fail "/var/log/vigilo is $(stat -c %a:%U:%G /var/log/vigilo)"
  echo 'ARGS="--allow-target=10.0.0.0/8"' >>/etc/default/vigilo-exporter
  systemctl enable vigilo-exporter.service vigilo@orders.service 2>/dev/null
  newer=$(mktemp -d -p "$root")
  dpkg-deb -R "$deb" "$newer/tree"
  sed -i 's/^Version: .*/&+1/' "$newer/tree/DEBIAN/control"
  dpkg-deb -b "$newer/tree" "$newer/newer.deb" >/dev/null
  dpkg -i "$newer/newer.deb" >&2 || fail "dpkg -i of an upgrade"
  grep -q '^ARGS="--allow-target=10.0.0.0/8"$' /etc/default/vigilo-exporter ||
    fail "the upgrade lost the operator's edit"
  dpkg -r vigilo >&2 || fail "dpkg -r"
  [ ! -e /usr/lib/systemd/system/vigilo@.service ] || fail "dpkg -r left the unit"
  dpkg -P vigilo >&2 || fail "dpkg -P"
  # A file that vanishes while find walks these trees makes it fail; only what it prints counts.
  left=$(find /etc/systemd/system /etc/default /var/log /var/lib/systemd -name '*vigilo*' 2>/dev/null || true)
  [ -z "$left" ] || fail "purge left $left"
else
  echo "package: not root, or vigilo installed: install, upgrade, remove and purge not tried" >&2
fi

# Installed into a prefix of its own, nothing lands outside it.
prefix=$(mktemp -d -p "$root")
cmake --install build --prefix "$prefix" >/dev/null
outside=$(grep -v "^$prefix/" build/install_manifest.txt || true)
[ -z "$outside" ] || fail "cmake --install --prefix $prefix wrote $outside"
exit $failed
