"""The real ovengine on an ephemeral port, driven over HTTP as its users drive it. Its HTTP
server's own bounds are tested in lib/ovhttp; here, the engine's, at their edges."""

import json
import signal
import socket
import time

import pytest

from testing.programs import BOUND, SCALE, eventually, exchange, http_get, program, request

STANDARD_KEYS = 27  # of the status catalogue


def status(port):
    return dict(json.loads(http_get(port, "/status")[2])["status"])


def numbers(port):
    return {k: int(v) for k, v in status(port).items() if v.isdigit()}


def test_counters_follow_posted_events(engine):
    """Every snapshot is consistent whenever it is taken, and in the end every event has gone all
    the way through. Blank lines and CRs before line ends are passed over; a type may hold '_',
    '.' and digits."""
    ovengine = engine("--contexts", "3")
    body = "Trade(id=1,qty=5)\r\nQuote()\n\nOrder()\n" * 3000 + "_x.y2(a(b))"
    assert exchange(ovengine.port, request("POST", "/events", body)) == "200 accepted 9001 events\n"

    def through():
        n = numbers(ovengine.port)
        assert n["numProcessed"] <= n["numReceived"] == (
            n["numQueuedInput"] + n["numQueuedFastTrack"] + n["numFastTracked"])
        assert n["numFastTracked"] >= n["numProcessed"] + n["numInputQueuedInput"]
        assert n["numOutEventsSent"] + n["numOutEventsQueued"] <= n["numEmits"] == n["numProcessed"]
        assert n["mostBackedUpICQueueSize"] <= n["numInputQueuedInput"]
        return n["numOutEventsSent"] == 9001
    eventually(through, "the events did not go through")
    n = numbers(ovengine.port)
    assert [n[k] for k in ("numReceived", "numFastTracked", "numProcessed", "numEventTypes",
                           "numContexts", "numInputQueuedInput")] == [9001, 9001, 9001, 4, 3, 0]


def test_takes_each_bound_and_refuses_past_it(engine):
    """User values keep their places when set again, up to their number."""
    port = engine("--user-status", "region=emea", "--user-status", "tier=gold").port
    line2 = "400 line 2: expected Type(fields)\n"
    key = "400 user status key must be 1 to 128 of A-Z a-z 0-9 _ - .\n"
    cases = [
        ("POST", "/events", "Trade(1)\nnot an event\n", line2),
        ("POST", "/events", "Trade(1)\n9Trade(x)\n", line2),
        ("POST", "/events", "Trade(1)\nTrade(x\n", line2),
        # Each bound at its edge: the most it takes, and one more.
        ("POST", "/events", "T" * 64 + "()", "200 accepted 1 events\n"),
        ("POST", "/events", "T" * 65 + "()", "400 line 1: event type too long\n"),
        ("POST", "/events", "T(" + "f" * 256 + ")", "200 accepted 1 events\n"),
        ("POST", "/events", "T(" + "f" * 257 + ")", "400 line 1: fields too long\n"),
        ("POST", "/events", "\n" * 1048576, "200 accepted 0 events\n"),
        ("POST", "/events", "\n" * 1048577, "413 request body exceeds 1048576 bytes\n"),
        ("PUT", "/status/user/zone", "a,b", "200 user-zone set\n"),
        ("PUT", "/status/user/region", "apac", "200 user-region set\n"),
        ("DELETE", "/status/user/tier", "", "200 user-tier removed\n"),
        ("PUT", "/status/user/" + "k" * 128, "v", "200 user-" + "k" * 128 + " set\n"),
        ("PUT", "/status/user/" + "k" * 129, "v", key),
        ("PUT", "/status/user/bad%20key", "v", key),
        ("PUT", "/status/user/k", "v" * 4096, "200 user-k set\n"),
        ("PUT", "/status/user/k", "v" * 4097, "413 request body exceeds 4096 bytes\n"),
        ("PUT", "/status/user/k", b"caf\xc3",
         "400 user status value must be UTF-8 text of at most 4096 bytes\n"),
        ("DELETE", "/status/user/absent", "", "404 no user status absent\n"),
    ]
    answers = [exchange(port, request(method, path, body)) for method, path, body, _ in cases]
    assert answers == [answer for *_, answer in cases]
    assert list(status(port).items())[-4:] == [
        ("user-region", "apac"), ("user-zone", "a,b"), ("user-" + "k" * 128, "v"),
        ("user-k", "v" * 4096)]
    for i in range(96):
        exchange(port, request("PUT", "/status/user/k%d" % i, "v"))
    assert (exchange(port, request("PUT", "/status/user/one-more", "v"))
            == "400 at most 100 user status values\n")
    assert len(status(port)) == STANDARD_KEYS + 100


def test_types_and_events_in_flight_are_bounded(engine):
    """The most distinct types, and the most events in flight, that the engine takes; one more is
    refused, the events in flight with a time to come back."""
    port = engine("--contexts", "1").port
    types = lambda n: "".join("T%d()\n" % i for i in range(n))
    assert [exchange(port, request("POST", "/events", types(n))) for n in (1001, 1000)] == [
        "400 more than 1000 event types\n", "200 accepted 1000 events\n"]
    assert exchange(port, request("POST", "/events", "T0()\n" * 100000)) == (
        "200 accepted 100000 events\n")
    with socket.create_connection(("127.0.0.1", port), BOUND) as s:
        s.sendall(request("POST", "/events", "T0()\n" * 100001))
        answer = s.makefile("rb").read().decode()
    assert answer.startswith("HTTP/1.1 503 ") and "\r\nRetry-After: 1\r\n" in answer
    assert answer.endswith("\r\n\r\nengine busy: 100000 events in flight\n")


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_signal_ends_it_at_once(engine, sig):
    ovengine = engine("--load", "20000")
    with socket.create_connection(("127.0.0.1", ovengine.port), BOUND):  # an idle client
        started = time.monotonic()
        ovengine.send_signal(sig)
        assert ovengine.finish() == (0, "ovengine listening on 127.0.0.1:%d\novengine stopped\n"
                                     % ovengine.port, "")
        assert time.monotonic() - started < 1 * SCALE


def test_a_flood_is_dropped_and_counted(engine):
    """More load than the engine can take: what it has no room for is dropped and counted."""
    ovengine = engine("--load", "10000000", "--contexts", "1")
    eventually(lambda: json.loads(http_get(ovengine.port, "/info")[2])["dropped"] > 0,
               "nothing was dropped")


@pytest.mark.parametrize("args, status, stream, first", [
    (["--contexts", "0"], 2, 2, "ovengine: bad value for --contexts: 0 (expected a whole number, "
     "1 to 64)"),
    (["-h"], 0, 1, "Usage: ovengine [--port=N] [--bind=ADDR] [--contexts=N] [--load=EVENTS_PER_S]"),
])
def test_refuses_a_bad_command_line_and_helps(run, args, status, stream, first):
    result = run([program("ovengine"), *args])
    assert (result[0], result[stream].splitlines()[0], result[3 - stream]) == (status, first, "")
