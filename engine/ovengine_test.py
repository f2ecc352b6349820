"""The real ovengine on an ephemeral port, driven over HTTP as its users drive it. Its HTTP
server's own bounds are tested in lib/ovhttp; here, the engine's, at their edges."""

import http.client
import json
import signal
import socket
import time

import pytest

from testing.programs import (BOUND, SCALE, eventually, exchange, program, request,
                              threads_of)

STANDARD_KEYS = 27  # of the status catalogue


def get(port, path):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=BOUND)
    connection.request("GET", path)
    return json.loads(connection.getresponse().read())


def status(port):
    return dict(get(port, "/status")["status"])


def numbers(port):
    return {k: int(v) for k, v in status(port).items() if v.isdigit()}


def test_counters_follow_posted_events(engine):
    """Every snapshot is consistent whenever it is taken, and in the end every event has gone all
    the way through. Blank lines and CRs before line ends are passed over; a type may hold '_',
    '.' and digits."""
    ovengine = engine("--contexts", "3")
    assert len(status(ovengine.port)) == STANDARD_KEYS
    body = "Trade(id=1,qty=5)\r\nQuote()\n\nOrder()\n" * 3000 + "_x.y2(a(b))"
    assert exchange(ovengine.port, request("POST", "/events", body)) == "200 accepted 9001 events\n"

    def through():
        n = numbers(ovengine.port)
        assert n["numProcessed"] <= n["numReceived"]
        assert n["numReceived"] == n["numQueuedInput"] + n["numQueuedFastTrack"] + n["numFastTracked"]
        assert n["numFastTracked"] >= n["numProcessed"] + n["numInputQueuedInput"]
        assert n["numEmits"] == n["numProcessed"]
        assert n["numOutEventsSent"] + n["numOutEventsQueued"] <= n["numEmits"]
        assert n["mostBackedUpICQueueSize"] <= n["numInputQueuedInput"]
        return n["numOutEventsSent"] == 9001
    eventually(through, "the events did not go through")
    n = numbers(ovengine.port)
    assert [n[k] for k in ("numReceived", "numFastTracked", "numProcessed", "numEventTypes",
                           "numContexts", "numInputQueuedInput")] == [9001, 9001, 9001, 4, 3, 0]


def types(count):
    return "".join("T%d()\n" % i for i in range(count))


@pytest.mark.parametrize("method, path, body, answer", [
    pytest.param("POST", "/events", "Trade(1)\nnot an event\n",
                 "400 line 2: expected Type(fields)\n", id="not an event"),
    pytest.param("POST", "/events", "Trade(1)\n9Trade(x)\n",
                 "400 line 2: expected Type(fields)\n", id="a type that starts with a digit"),
    pytest.param("POST", "/events", "Trade(1)\nTrade(x\n",
                 "400 line 2: expected Type(fields)\n", id="unclosed fields"),
    # Each bound at its edge: the most it takes, and one more.
    pytest.param("POST", "/events", "T" * 64 + "()", "200 accepted 1 events\n", id="type 64"),
    pytest.param("POST", "/events", "T" * 65 + "()", "400 line 1: event type too long\n",
                 id="type 65"),
    pytest.param("POST", "/events", "T(" + "f" * 256 + ")", "200 accepted 1 events\n",
                 id="fields 256"),
    pytest.param("POST", "/events", "T(" + "f" * 257 + ")", "400 line 1: fields too long\n",
                 id="fields 257"),
    pytest.param("POST", "/events", types(1000), "200 accepted 1000 events\n", id="types 1000"),
    pytest.param("POST", "/events", types(1001), "400 more than 1000 event types\n",
                 id="types 1001"),
    pytest.param("POST", "/events", "T()\n" * 100000, "200 accepted 100000 events\n",
                 id="events 100000"),
    pytest.param("POST", "/events", "\n" * 1048576, "200 accepted 0 events\n", id="body 1 MiB"),
    pytest.param("POST", "/events", "\n" * 1048577, "413 request body exceeds 1048576 bytes\n",
                 id="body 1 MiB + 1"),
    pytest.param("PUT", "/status/user/" + "k" * 128, "v", "200 user-" + "k" * 128 + " set\n",
                 id="key 128"),
    pytest.param("PUT", "/status/user/" + "k" * 129, "v",
                 "400 user status key must be 1 to 128 of A-Z a-z 0-9 _ - .\n", id="key 129"),
    pytest.param("PUT", "/status/user/bad%20key", "v",
                 "400 user status key must be 1 to 128 of A-Z a-z 0-9 _ - .\n", id="key blank"),
    pytest.param("PUT", "/status/user/k", "v" * 4096, "200 user-k set\n", id="value 4096"),
    pytest.param("PUT", "/status/user/k", "v" * 4097, "413 request body exceeds 4096 bytes\n",
                 id="value 4097"),
    pytest.param("PUT", "/status/user/k", b"caf\xc3",
                 "400 user status value must be UTF-8 text of at most 4096 bytes\n",
                 id="value not UTF-8"),
    pytest.param("DELETE", "/status/user/absent", "", "404 no user status absent\n",
                 id="delete absent"),
])
def test_takes_each_bound_and_refuses_past_it(engine, method, path, body, answer):
    assert exchange(engine().port, request(method, path, body)) == answer


def test_events_beyond_those_in_flight_are_refused_until_later(engine):
    ovengine = engine("--contexts", "1")
    with socket.create_connection(("127.0.0.1", ovengine.port), BOUND) as s:
        s.sendall(request("POST", "/events", "T()\n" * 100001))
        answer = s.makefile("rb").read().decode()
    assert answer.startswith("HTTP/1.1 503 ")
    assert "\r\nRetry-After: 1\r\n" in answer
    assert answer.endswith("\r\n\r\nengine busy: 100000 events in flight\n")
    assert numbers(ovengine.port)["numReceived"] == 0


def test_user_values_keep_their_order_up_to_their_number(engine):
    ovengine = engine("--user-status", "region=emea", "--user-status", "tier=gold")
    port = ovengine.port
    assert exchange(port, request("PUT", "/status/user/zone", "a,b")) == "200 user-zone set\n"
    assert exchange(port, request("PUT", "/status/user/region", "apac")) == "200 user-region set\n"
    assert exchange(port, request("DELETE", "/status/user/tier")) == "200 user-tier removed\n"
    assert list(status(port).items())[-2:] == [("user-region", "apac"), ("user-zone", "a,b")]
    for i in range(98):
        exchange(port, request("PUT", "/status/user/k%d" % i, "v"))
    assert (exchange(port, request("PUT", "/status/user/one-more", "v"))
            == "400 at most 100 user status values\n")
    assert len(status(port)) == STANDARD_KEYS + 100


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_idle_and_slow_clients_hold_no_thread_and_no_stop(engine, sig):
    """With hundreds of idle and slow clients connected, the engine has no more threads than
    without them, a new client is answered at once, and a stop ends them all at once."""
    ovengine = engine("--load", "20000")
    exchange(ovengine.port, request("GET", "/ping"))
    threads = threads_of(ovengine.pid)
    waiting = []
    for i in range(300):
        waiting.append(socket.create_connection(("127.0.0.1", ovengine.port), BOUND))
        if i % 10 == 0:
            waiting[-1].sendall(b"GET /status HTTP/1.1\r\nHo")
    started = time.monotonic()
    assert exchange(ovengine.port, request("GET", "/ping")) == "200 pong\n"
    assert time.monotonic() - started < 1 * SCALE
    assert threads_of(ovengine.pid) == threads
    started = time.monotonic()
    ovengine.signal(sig)
    assert ovengine.finish() == (0, "ovengine listening on 127.0.0.1:%d\novengine stopped\n"
                                 % ovengine.port, "")
    assert time.monotonic() - started < 1 * SCALE
    for s in waiting:
        s.close()


def test_a_flood_is_bounded_and_counted(engine):
    """More load than the engine can process: what it cannot take is dropped and counted, and no
    more events are ever in flight than the bound allows."""
    ovengine = engine("--load", "10000000", "--contexts", "1")

    def dropped():
        n = numbers(ovengine.port)
        assert n["numReceived"] - n["numOutEventsSent"] <= 100000
        return get(ovengine.port, "/info")["dropped"] > 0
    eventually(dropped, "nothing was dropped")


@pytest.mark.parametrize("args, status, stream, first", [
    (["--contexts", "0"], 2, 2, "ovengine: bad value for --contexts: 0 (expected a whole number, "
     "1 to 64)"),
    (["--port=70000"], 2, 2, "ovengine: bad value for --port: 70000 (expected a port, 0 to 65535 "
     "(0 picks a free one))"),
    (["--bogus"], 2, 2, "ovengine: unknown option --bogus"),
    (["-h"], 0, 1, "Usage: ovengine [--port=N] [--bind=ADDR] [--contexts=N] [--load=EVENTS_PER_S]"),
])
def test_refuses_a_bad_command_line_and_helps(run, args, status, stream, first):
    result = run([program("ovengine"), *args])
    assert (result[0], result[stream].splitlines()[0], result[3 - stream]) == (status, first, "")
