#!/usr/bin/env bash
# Drives the bash completion of vigilo, ovengine, vigilo-exporter and vigilo-plot as bash does for
# a user pressing Tab: options from the usage texts, files, hosts, and nothing where a number or a
# text goes. Arguments: the directory of the programs, and vigilo-plot.
set -u
source /usr/share/bash-completion/bash_completion
source "$(dirname "$0")/bash-completion/vigilo"
plots=$(mktemp -d)
trap 'rm -r "$plots"' EXIT
printf '#!/bin/sh\nexec /usr/bin/python3 "%s" "$@"\n' "$2" >"$plots/vigilo-plot"
chmod +x "$plots/vigilo-plot"
PATH="$1:$plots:$PATH"
failures=0

# The words of a command line, the last one being completed, split where bash splits them (at
# "=", which then stands next to its neighbours on the line): prints the offers, one a line, each
# once, however often /etc/hosts names a host.
offers() {
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE=$(sed 's/ = /=/g' <<<"$*")
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    local function
    function=$(complete -p "$1" | sed 's/.*-F \([^ ]*\).*/\1/')
    "$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort -u
}

expect() {
    local name=$1 expected=$2 actual=$3
    if [[ "$actual" != "$expected" ]]; then
        printf 'FAIL %s\n  expected: %q\n  actual:   %q\n' "$name" "$expected" "$actual"
        failures=$((failures + 1))
    fi
}

options=$(vigilo --help 2>&1 | sed -n 's/^    \(-.\) | \(--[a-z]*\).*/\1\n\2/p' | sort)
expect "22 option forms in the usage text" 22 "$(wc -l <<<"$options")"
expect "every option" "$options" "$(offers vigilo -)"
expect "a long option" "--hostname" "$(offers vigilo --ho)"
expect "after -r" "-r" "$(offers vigilo -r -r)"
touch "$plots/engine.csv" "$plots/other.csv" "$plots/engine.png" "$plots/engine.svg"
expect "files after -f" "$plots/engine.csv" "$(offers vigilo -r -f "$plots/engine.c")"
expect "hosts after -n" "localhost" "$(offers vigilo -n localh)"
expect "nothing after -p" "" "$(offers vigilo -p 1)"

expect "ovengine's options" "$(printf '%s\n' --bind --contexts --help --load --port --user-status)" \
    "$(offers ovengine --)"
expect "ovengine: hosts after --bind" "localhost" "$(offers ovengine --bind localh)"
expect "ovengine: nothing after --load" "" "$(offers ovengine --load 1)"

expect "the exporter's options, a value after =" \
    "$(printf '%s\n' --allow-target= --help --probe.timeout= --version --web.listen-address=)" \
    "$(offers vigilo-exporter --)"
expect "the exporter: hosts after --allow-target=" "--allow-target=localhost" \
    "$(offers vigilo-exporter --allow-target = localh)"
expect "the exporter: nothing after --probe.timeout=" "" "$(offers vigilo-exporter --probe.timeout = 1)"

expect "vigilo-plot's options" "$(printf '%s\n' --help --output --rates --size --title)" \
    "$(offers vigilo-plot --)"
expect "vigilo-plot: pictures after -o" "$(printf '%s\n' "$plots/engine.png" "$plots/engine.svg")" \
    "$(offers vigilo-plot -o "$plots/engine")"
expect "vigilo-plot: logs" "$plots/other.csv" "$(offers vigilo-plot "$plots/oth")"
expect "vigilo-plot: nothing after -t" "" "$(offers vigilo-plot -t x)"
exit $((failures != 0))
