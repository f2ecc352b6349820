"""The bash completion of vigilo, ovengine, vigilo-exporter and vigilo-plot, driven as bash drives
it for a user pressing Tab: options from each program's --help, files, hosts, and nothing where a
number or a free text goes."""

import os
import subprocess

import pytest

from testing.programs import BOUND, program

HERE = os.path.dirname(os.path.abspath(__file__))
# Sources the completion and completes the words given, the last one being completed, split where
# bash splits them (at "=", which then stands next to its neighbours on the line); prints the
# offers, each once, however often /etc/hosts names a host.
DRIVER = r"""
source /usr/share/bash-completion/bash_completion
source "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
COMP_LINE=$(sed 's/ = /=/g' <<<"$*")
COMP_POINT=${#COMP_LINE}
COMPREPLY=()
"$(complete -p "$1" | sed 's/.*-F \([^ ]*\).*/\1/')" "$1" "${COMP_WORDS[COMP_CWORD]}" \
    "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\n' "${COMPREPLY[@]}" | sort -u
"""


@pytest.fixture(scope="module")
def complete(tmp_path_factory):
    files = tmp_path_factory.mktemp("completion")
    for name in ("engine.csv", "other.csv", "engine.png", "engine.svg"):
        (files / name).touch()
    plot = files / "vigilo-plot"
    plot.write_text('#!/bin/sh\nexec /usr/bin/python3 "%s" "$@"\n'
                    % os.path.join(HERE, "..", "tools", "vigilo_plot.py"))
    plot.chmod(0o755)
    path = "%s:%s:%s" % (os.path.dirname(program("vigilo")), files, os.environ["PATH"])

    def offers(*words):
        words = [w.replace("DIR", str(files)) for w in words]
        done = subprocess.run(["bash", "-c", DRIVER, "driver", os.path.join(HERE, "bash-completion",
                                                                           "vigilo"), *words],
                              capture_output=True, text=True, timeout=BOUND,
                              env=dict(os.environ, PATH=path))
        return done.stdout.replace(str(files), "DIR").split()
    return offers


@pytest.mark.parametrize("words, offered", [
    (["vigilo", "--ho"], ["--hostname"]),
    (["vigilo", "-r", "-f", "DIR/engine.c"], ["DIR/engine.csv"]),
    (["vigilo", "-n", "localh"], ["localhost"]),
    (["vigilo", "-p", "1"], []),
    (["ovengine", "--"], ["--bind=", "--contexts=", "--help", "--load=", "--port=",
                          "--user-status=", "--version"]),
    (["ovengine", "--bind", "=", "localh"], ["--bind=localhost"]),
    (["ovengine", "--load", "=", "1"], []),
    (["vigilo-exporter", "--"], ["--allow-target=", "--help", "--probe.timeout=", "--version",
                                 "--web.listen-address="]),
    (["vigilo-exporter", "--allow-target", "=", "localh"], ["--allow-target=localhost"]),
    (["vigilo-plot", "--"], ["--help", "--output", "--rates", "--size", "--title"]),
    (["vigilo-plot", "-o", "DIR/engine"], ["DIR/engine.png", "DIR/engine.svg"]),
    (["vigilo-plot", "DIR/oth"], ["DIR/other.csv"]),
    (["vigilo-plot", "-t", "x"], []),
])
def test_offers(complete, words, offered):
    assert complete(*words) == offered
