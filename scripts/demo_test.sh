#!/usr/bin/env bash
# The demo, its port held by another engine, ends with a one-line reason and status 1 instead of
# watching the other engine. Argument: ovengine.
set -u
coproc holder { exec "$1" --port 0; }
read -r line <&"${holder[0]}"
port=${line##*:}
said=$(OVENGINE_PORT=$port bash "$(dirname "$0")/demo.sh" 2>&1 >/dev/null </dev/null)
status=$?
kill "$holder_PID"
expected="1 demo: ovengine did not start: ovengine: cannot listen on 127.0.0.1:$port: address in use"
actual="$status ${said##*$'\n'}"
[ "$actual" = "$expected" ] || { printf 'FAIL\n  expected: %s\n  actual:   %s\n' "$expected" "$actual"; exit 1; }
