"""The real vigilo against a scripted engine and a real ovengine on loopback, on both allocation
routes: what only the program shows, its exit statuses, signals, files, pipes and log lines. What
each rendering holds, byte for byte, is tested at the status record; here, that it arrives."""

import os
import re
import signal

import pytest

from testing.programs import (BOUND, SANITIZED, VALGRIND, Process, http_reply, program,
                              status_reply, UNDER_VALGRIND)

ROUTES = ["plain"] + ([] if SANITIZED else ["tracking"])
DOCUMENT = [("numProcessed", "3"), ("uptime", "5"), ("user-a", "A"), ("x-user-b", "B,b")]
CONTROL_C = "Control-C to exit...\n"
# Uptime, 15 numbers, five persistence texts, processed, context name, number, receiver, number.
REAL_LINE = r"\d+(,\d+){15},0,never,0\.0,0\.0,0\.0,\d+,context-\d+,\d+,receiver-1,\d+"


@pytest.fixture(params=ROUTES)
def vigilo(request, launch):
    """Starts vigilo on an engine's port on one allocation route: vigilo(port, *options)."""
    env = dict(os.environ, ORVEX_MEMORY_TRACKING="1" if request.param == "tracking" else "0")

    def start(port, *options, wrapper=(), **more):
        argv = [*wrapper, program("vigilo"), "-n", "127.0.0.1", "-p", str(port), *options]
        return launch(Process, argv, env=env, **more)
    return start


@pytest.fixture
def answering(scripted_engine):
    """A scripted engine that answers every status request with DOCUMENT."""
    return scripted_engine(lambda path, _: http_reply(200, "pong") if path == "/ping"
                           else status_reply(DOCUMENT))


def test_the_command_line_ends_with_the_status_it_promises(run, vigilo, answering):
    """Help and version end at once with 0, a usage error with 2 and the usage text (with the
    raw headings after -r, and the port's range when it is out of it), an argument that is not
    text in the locale with 1 before anything else is looked at."""
    version = run([program("vigilo"), "-V"])
    assert version[:2] == (0, "") and re.fullmatch(r"vigilo v(\S+ \(build .+ on .+\))\n", version[2])
    detail = version[2][len("vigilo v"):-1]
    status, out, usage = run([program("vigilo"), "-h", "-x"])
    assert (status, out, usage.partition(detail)[0]) == (0, "", "\nOrvex vigilo v")
    heading = vigilo(answering.port, "-o", "-r", "-t").finish()[1].splitlines()[0]
    assert run([program("vigilo"), "-r", "-p", "70000"]) == (
        2, "", usage + "Column headings in raw mode excluding user columns are: \n" + heading
        + "\n\nPort number must be between 1 and 65535\n\n")
    assert run([program("vigilo"), "-f", "caf\xe9", "-V", b"\xed\xa0\x80"],
               env=dict(os.environ, LC_ALL="C.UTF-8")) == (
        1, "", "Invalid characters for this locale on command line... exiting\n")


def test_one_poll_reaches_a_file_that_it_truncates(vigilo, answering, tmp_path):
    """With -v, the tool's start and end stand among the library's log lines."""
    path = tmp_path / "out.csv"
    path.write_text("an older and much longer content that must go\n" + "x" * 900)
    to_stdout = vigilo(answering.port, "-o", "-r", "-t", "-a").finish()
    status, out, err = vigilo(answering.port, "-o", "-r", "-t", "-a", "-v", "-f", str(path)).finish()
    assert (status, out) == (0, "")
    assert path.read_text() == to_stdout[1] and to_stdout[1].count("\n") == 2
    at = "127.0.0.1:%d" % answering.port
    assert re.sub(r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ", "T ", err) == (
        "T INFO  engine client initialised for vigilo\nT INFO  connected to engine at %s\n"
        "vigilo starting...\nvigilo done\nT INFO  disconnected from engine at %s\n"
        "T INFO  engine client shut down\n" % (at, at))


@pytest.mark.parametrize("sig", [signal.SIGINT, signal.SIGTERM, signal.SIGSEGV])
def test_a_signal_during_a_wait_ends_the_watch_at_once(run, vigilo, answering, sig):
    """A stop signal ends it with 0; a fatal one is reported with the version, status 128 + 11."""
    detail = run([program("vigilo"), "-V"])[2][len("vigilo v"):-1]
    watch = vigilo(answering.port, "-r", "-i", "60000")
    assert watch.wait_for(lambda out, _: out.endswith("\n"))
    assert watch.wait_for(lambda *_: sleeping(watch.pid))  # the wait itself, not the write
    watch.send_signal(sig)
    status, out, err = watch.finish(timeout=5)
    assert (status, err, out.count("\n"), answering.requests - answering.connections) == (
        (139, CONTROL_C + "Orvex %s: fatal signal SIGSEGV\n" % detail, 1, 1)
        if sig == signal.SIGSEGV else (0, CONTROL_C, 1, 1))


def sleeping(pid):
    with open("/proc/%d/stat" % pid) as stat:
        return stat.read().rpartition(")")[2].split()[0] == "S"


def test_output_that_cannot_be_written_ends_the_watch(vigilo, answering):
    """A full device as the file, and a reader that goes away: status 0 and one line that says
    so."""
    failed = "Failed to write status to output.\n"
    assert vigilo(answering.port, "-r", "-f", "/dev/full").finish() == (0, "", CONTROL_C + failed)
    watch = vigilo(answering.port, "-r", "-i", "0")
    assert watch.wait_for(lambda out, _: out.endswith("\n"))
    watch.close_stdout()
    assert watch.finish()[::2] == (0, CONTROL_C + failed)


@pytest.mark.parametrize("under", ["as is"] + (["valgrind"] if VALGRIND else []))
def test_watches_a_real_engine_until_control_c(vigilo, engine, under):
    """Every line holds the engine's figures; under valgrind, the whole path from argument
    conversion through polls and Control-C to the last release has no memory error or leak."""
    ovengine = engine("--load", "2000", "--user-status", "region=emea")
    watch = vigilo(ovengine.port, "-r", "-t", "-a", "-i", "20",
                   wrapper=UNDER_VALGRIND if under == "valgrind" else ())
    assert watch.wait_for(lambda out, _: out.count("\n") >= 3, timeout=BOUND * 6), watch.err
    watch.send_signal(signal.SIGINT)
    status, out, err = watch.finish(BOUND * 6)
    assert (status, err) == (0, CONTROL_C)
    lines = out.splitlines()
    assert lines[0].endswith(",Slowest receiver queue,user-region")
    assert all(re.fullmatch(REAL_LINE + ",emea", line) for line in lines[1:]), out


@pytest.mark.skipif(SANITIZED, reason="the sanitizers bring their own allocator")
def test_tracked_memory_does_not_grow_with_polls(launch, scripted_engine):
    """The bytes still held when the library shuts down are the same after one poll as after
    hundreds: nothing accumulates per poll."""
    def held(polls, *options):
        engine = scripted_engine(lambda path, n: http_reply(200, "") if path == "/ping"
                                 else status_reply(DOCUMENT) if n <= polls else http_reply(500, ""))
        argv = [program("vigilo"), "-n", "127.0.0.1", "-p", str(engine.port), "-v", "-v", "-r",
                "-a", "-t", "-i", "0", *options]
        err = launch(Process, argv, env=dict(os.environ, ORVEX_MEMORY_TRACKING="1")).finish()[2]
        allocated, freed, still = map(int, re.search(
            r"DEBUG memory: (\d+) bytes allocated, (\d+) freed, (\d+) still held", err).groups())
        assert allocated - freed == still
        return allocated, still
    once = held(1, "-o")
    many = held(300)
    assert many[0] - once[0] > 300 * 100  # every poll was counted
    assert once[1] > 0 and abs(many[1] - once[1]) < 1024, (once, many)
