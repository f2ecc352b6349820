#!/usr/bin/env bash
# Builds vigilo and ovengine, starts ovengine under load, and watches it with vigilo until
# Control-C, which stops both. Arguments are handed to vigilo (for example -r -t -a).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target vigilo ovengine >/dev/null

port=${OVENGINE_PORT:-15903}
build/bin/ovengine --port "$port" --load 2500 --user-status region=emea --user-status tier=gold \
  >/dev/null &
engine=$!
trap 'kill -TERM "$engine" 2>/dev/null || true; wait "$engine" 2>/dev/null || true' EXIT

# The engine is up once it answers a ping; give it five seconds.
for _ in $(seq 50); do
  if curl -sf "http://127.0.0.1:$port/ping" >/dev/null; then break; fi
  sleep 0.1
done

build/bin/vigilo -n 127.0.0.1 -p "$port" "$@"
