#!/usr/bin/env bash
# Drives the bash completion of vigilo as bash does for a user pressing Tab: options from the
# usage text, files after -f, hosts after -n, nothing after -p. Argument: the directory of vigilo.
set -u
source /usr/share/bash-completion/bash_completion
source "$(dirname "$0")/bash-completion/vigilo"
PATH="$1:$PATH"
failures=0

# The words of a command line, the last one being completed: prints the offers, one a line.
offers() {
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _vigilo vigilo "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort
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
scratch=$(mktemp -d)
touch "$scratch/engine.csv" "$scratch/other.csv"
expect "files after -f" "$scratch/engine.csv" "$(offers vigilo -r -f "$scratch/en")"
rm -r "$scratch"
expect "hosts after -n" "localhost" "$(offers vigilo -n localh)"
expect "nothing after -p" "" "$(offers vigilo -p 1)"
exit $((failures != 0))
