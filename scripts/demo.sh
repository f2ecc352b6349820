#!/usr/bin/env bash
# Builds vigilo and ovengine, starts ovengine under load, and watches it with vigilo until
# Control-C, which stops both. Arguments are handed to vigilo (for example -r -t -a).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
echo "demo: building vigilo and ovengine in build/" >&2
cmake --preset default >/dev/null
cmake --build --preset default --target vigilo ovengine >&2

port=${OVENGINE_PORT:-15903}
log=$(mktemp)
build/bin/ovengine --port "$port" --load 2500 --user-status region=emea --user-status tier=gold \
  >"$log" 2>&1 &
engine=$!
trap 'kill -TERM "$engine" 2>/dev/null || true; wait "$engine" 2>/dev/null || true; rm -f "$log"' EXIT

# The engine is up once it says it listens; one that ends first says why (a port another process
# serves, say), and the demo ends with that rather than watching someone else's engine.
for _ in $(seq 50); do
  grep -q '^ovengine listening on ' "$log" && break
  if ! kill -0 "$engine" 2>/dev/null; then
    echo "demo: ovengine did not start: $(head -n 1 "$log")" >&2
    exit 1
  fi
  sleep 0.1
done
if ! grep -q '^ovengine listening on ' "$log"; then
  echo "demo: ovengine did not start within 5 seconds" >&2
  exit 1
fi

build/bin/vigilo -n 127.0.0.1 -p "$port" "$@"
