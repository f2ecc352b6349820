"""The real vigilo-exporter between real and scripted engines, its expositions checked by promtool.
Probes themselves are tested in prober_test.cc, the server's bounds in lib/ovhttp; here, what only
the program shows."""

import os
import re
import shutil
import signal
import socket
import subprocess
import time

import pytest

from testing.programs import (BOUND, SCALE, VALGRIND, Server, eventually, http_get, program,
                              status_reply, UNDER_VALGRIND)

PROMTOOL = shutil.which("promtool")
SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


@pytest.mark.parametrize("path, answer", [
    ("/probe", "no target: ask /probe?target=HOST:PORT\n"),
    ("/probe?target=engine", "bad target engine: expected HOST:PORT\n"),
    ("/probe?target=127.0.0.1%00junk%1b:1", "bad target 127.0.0.1\\x00junk\\x1b:1: a host is an "
     "address or a name of letters, digits, '-' and '_'\n"),
    ("/probe?target=127.0.0.1:1&debug=yes", "bad debug yes: expected true or false\n"),
])
def test_refuses_a_bad_probe_with_its_reason(exporter, path, answer):
    assert http_get(exporter().port, path) == (400, "text/plain", answer)


@pytest.mark.parametrize("under", ["prlimit"] + (["valgrind"] if VALGRIND else []))
def test_a_stop_ends_probes_in_flight_within_a_second(exporter, scripted_engine, under):
    """Started with a soft open-file limit below its hard one, the exporter raises it and shares
    the descriptors out: 2048, less 64 of its own, a quarter of the rest for its clients and 256
    for the probes in flight. (Valgrind keeps the limit as it finds it.) A stop ends it within a
    second, with probes in flight that would take five."""
    wrapper = (["/usr/bin/prlimit", "--nofile=256:2048", "--"] if under == "prlimit"
               else UNDER_VALGRIND)
    running = exporter("--probe.timeout=5s", wrapper=wrapper)
    silent = scripted_engine(lambda *_: None)
    waiting = []
    for _ in range(5):
        waiting.append(socket.create_connection(("127.0.0.1", running.port), BOUND))
        waiting[-1].sendall(b"GET /probe?target=127.0.0.1:%d HTTP/1.1\r\n\r\n" % silent.port)
    eventually(lambda: silent.requests == 5, "the probes did not reach the engine",
               timeout=BOUND * 6)
    started = time.monotonic()
    running.send_signal(signal.SIGTERM)
    status, out, err = running.finish(BOUND * 6)
    stopped = time.monotonic() - started
    lines = out.splitlines()
    assert (status, err, len(lines)) == (0, "", 3)
    assert lines[0] == "vigilo-exporter listening on 127.0.0.1:%d" % running.port
    assert lines[2] == "vigilo-exporter stopped"
    if under == "prlimit":
        assert stopped < 1 * SCALE
        assert lines[1] == ("vigilo-exporter keeps up to 1232 idle connections to engines "
                            "(open file limit 2048)")
    for s in waiting:
        s.close()


def exported(text):
    return {line.split()[2] for line in text.splitlines() if line.startswith("# TYPE ")}


def test_expositions_are_valid_and_documented(exporter, scripted_engine):
    """A probe of an engine that gives every text, and /metrics: promtool finds nothing wrong
    (where it is installed), and the names are those that vigilo-exporter(1) and docs/fleet.md
    give, no more and no fewer."""
    engine = scripted_engine(lambda *_: status_reply([
        ("uptime", "5"), ("persistenceNumSnapshots", "3"),
        ("persistenceLastSnapshotTime", "1795341600123"),
        ("persistenceSnapshotWaitTimeEwmaMillis", "1.5"), ("persistenceCommitTimeEwmaMillis", "2"),
        ("persistenceLastSnapshotRowsChangedEwma", "4"), ("user-tier", "gold")]))
    port = exporter().port
    status, kind, probe = http_get(port, "/probe?target=127.0.0.1:%d" % engine.port)
    assert (status, kind) == (200, "text/plain; version=0.0.4; charset=utf-8")
    assert "\norvex_up 1\n" in probe
    metrics = http_get(port, "/metrics")[2]
    assert ('\nvigilo_exporter_probes_total{result="success"} 1\n'
            'vigilo_exporter_probes_total{result="failure"} 0\n') in metrics
    for text in (probe, metrics) if PROMTOOL is not None else ():
        checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, text=True,
                                 capture_output=True, timeout=BOUND)
        assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")
    names = exported(probe) | exported(metrics)
    for document in ("docs/man/vigilo-exporter.1.in", "docs/fleet.md"):
        with open(os.path.join(SOURCE, document)) as text:
            named = set(re.findall(r"(?<![:\w])((?:orvex|vigilo_exporter|process)_\w+)",
                                   text.read()))
        assert (document, names - named, named - names) == (document, set(), set())


def test_serves_every_interface_for_a_port_alone(launch):
    """:PORT listens on every interface, IPv4's among them, and says so in brackets."""
    everywhere = launch(Server, [program("exporter"), "--web.listen-address=:0"], "vigilo-exporter")
    assert everywhere.out.decode().startswith("vigilo-exporter listening on [::]:%d\n"
                                              % everywhere.port)
    assert http_get(everywhere.port, "/metrics")[0] == 200
