"""The real vigilo-exporter between real and scripted engines, its expositions checked by promtool.
Probes themselves are tested in prober_test.cc, the server's bounds in lib/ovhttp; here, what only
the program shows."""

import http.client
import os
import re
import shutil
import signal
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from testing.programs import (BOUND, SCALE, VALGRIND, Server, eventually, program,
                              status_reply, under_valgrind)

PROMTOOL = shutil.which("promtool")
SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


def get(port, path):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=BOUND * 6)
    connection.request("GET", path)
    answer = connection.getresponse()
    return answer.status, answer.getheader("Content-Type"), answer.read().decode()


def promtool_check(exposition):
    checked = subprocess.run([PROMTOOL, "check", "metrics"], input=exposition, text=True,
                             capture_output=True, timeout=BOUND)
    return checked.returncode, checked.stdout + checked.stderr


@pytest.mark.parametrize("path, answer", [
    ("/probe", "no target: ask /probe?target=HOST:PORT\n"),
    ("/probe?target=engine", "bad target engine: expected HOST:PORT\n"),
    ("/probe?target=127.0.0.1%00junk%1b:1", "bad target 127.0.0.1\\x00junk\\x1b:1: a host is an "
     "address or a name of letters, digits, '-' and '_'\n"),
    ("/probe?target=127.0.0.1:1&debug=yes", "bad debug yes: expected true or false\n"),
])
def test_refuses_a_bad_probe_with_its_reason(exporter, path, answer):
    assert get(exporter().port, path) == (400, "text/plain", answer)


@pytest.mark.skipif(PROMTOOL is None, reason="promtool is not installed")
def test_expositions_pass_promtool(exporter, engine):
    port = exporter().port
    status, kind, probe = get(port, "/probe?target=127.0.0.1:%d" % engine().port)
    assert (status, kind) == (200, "text/plain; version=0.0.4; charset=utf-8")
    assert "\norvex_up 1\n" in probe
    assert promtool_check(probe) == (0, "")
    _, _, metrics = get(port, "/metrics")
    assert ('\nvigilo_exporter_probes_total{result="success"} 1\n'
            'vigilo_exporter_probes_total{result="failure"} 0\n') in metrics
    assert promtool_check(metrics) == (0, "")


@pytest.mark.parametrize("under", ["prlimit"] + (["valgrind"] if VALGRIND else []))
def test_a_stop_ends_probes_in_flight_within_a_second(exporter, scripted_engine, under):
    """Started with a soft open-file limit below its hard one, the exporter raises it and shares
    the descriptors out: 2048, less 64 of its own, a quarter of the rest for its clients and 256
    for the probes in flight. (Valgrind keeps the limit as it finds it.) A stop ends it within a
    second, with probes in flight that would take five."""
    wrapper = (["/usr/bin/prlimit", "--nofile=256:2048", "--"] if under == "prlimit"
               else under_valgrind([]))
    running = exporter("--probe.timeout=5s", wrapper=wrapper)
    silent = scripted_engine(lambda *_: None)
    waiting = []
    for _ in range(5):
        waiting.append(socket.create_connection(("127.0.0.1", running.port), BOUND))
        waiting[-1].sendall(b"GET /probe?target=127.0.0.1:%d HTTP/1.1\r\n\r\n" % silent.port)
    eventually(lambda: silent.requests == 5, "the probes did not reach the engine",
               timeout=BOUND * 6)
    started = time.monotonic()
    running.signal(signal.SIGTERM)
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


def test_every_metric_is_documented_and_every_documented_one_exported(exporter, scripted_engine):
    """The names a probe (of an engine that gives every text) and /metrics answer are the names
    that vigilo-exporter(1) and docs/fleet.md give, and no others."""
    engine = scripted_engine(lambda *_: status_reply([
        ("uptime", "5"), ("persistenceNumSnapshots", "3"),
        ("persistenceLastSnapshotTime", "1795341600123"),
        ("persistenceSnapshotWaitTimeEwmaMillis", "1.5"), ("persistenceCommitTimeEwmaMillis", "2"),
        ("persistenceLastSnapshotRowsChangedEwma", "4"), ("user-tier", "gold")]))
    port = exporter().port
    names = (exported(get(port, "/probe?target=127.0.0.1:%d" % engine.port)[2])
             | exported(get(port, "/metrics")[2]))
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
    assert get(everywhere.port, "/metrics")[0] == 200


def test_refuses_a_bad_command_line(run):
    status, out, err = run([program("exporter"), "--probe.timeout", "0"])
    assert (status, out) == (2, "")
    assert err.startswith("vigilo-exporter: bad value for --probe.timeout: 0 (expected a duration "
                          "such as 500ms, 10s or 2m, at most 60m)\n\nUsage:")


def memory_kib(pid, field):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])


@pytest.mark.skipif(SCALE > 1, reason="a sanitizer's allocator keeps what is freed for a while")
def test_large_answers_are_not_kept(exporter, scripted_engine):
    """Eight engines answer 8 MiB at once, then little: the exporter's peak stays within four times
    the answers in flight, and afterwards its kept connections hold 100 KiB each at most."""
    large = status_reply([("numProcessed", "1"), ("user-big", "x" * (8 << 20))])
    engines = [scripted_engine(lambda _, n: large if n == 0 else status_reply([]))
               for _ in range(8)]
    running = exporter()
    start = memory_kib(running.pid, "VmRSS")
    with ThreadPoolExecutor(8) as scrapers:
        answers = list(scrapers.map(
            lambda e: get(running.port, "/probe?target=127.0.0.1:%d" % e.port)[2], engines))
    assert all("\norvex_up 1\n" in a for a in answers)
    assert memory_kib(running.pid, "VmHWM") - start <= 8 * 4 * 8 * 1024
    assert memory_kib(running.pid, "VmRSS") - start <= 8 * 100 + 4 * 1024
