"""The client library on real sockets, as vigilo uses it: a scripted engine answers each request as
a row says, and vigilo's lines, exit status and message show what the connection made of it. How
single responses are framed is the response reader's table (http_response_reader_test.cc)."""

import itertools
import os

import pytest

from testing.programs import free_port, http_reply, program, status_reply

PAIRS = [("uptime", "1061116"), ("user-region", "emea")]
DOCUMENT = status_reply(PAIRS)
PONG = http_reply(200, "pong", "OK")
FAILED = "Status monitor failed: Status request to engine at %s failed: %s\n"


def vigilo(run, host, port, *options, env=None):
    return run([program("vigilo"), "-n", host, "-p", str(port), "-r", "-a", *options],
               env=dict(os.environ, **(env or {})))


def test_one_connection_serves_until_the_engine_ends_it(run, scripted_engine):
    """A response that says "Connection: close" (though the engine leaves the connection open),
    a body that runs to the close, an idle connection that the engine closed: the next poll opens
    a new one. A request that the engine drops as it arrives goes out once more on a new
    connection, and only once."""
    answers = [DOCUMENT, status_reply(PAIRS, "Connection: close\r\n"),
               (DOCUMENT.replace(b"Content-Length", b"X-Length"), "close"), DOCUMENT,
               (DOCUMENT, "close"), DOCUMENT, (b"", "close"), DOCUMENT, (b"", "close")]
    engine = scripted_engine(lambda path, n: PONG if path == "/ping"
                             else answers[n - 1] if n <= len(answers) else (b"", "close"))
    status, out, err = vigilo(run, "127.0.0.1", engine.port, "-i", "150")
    where = "127.0.0.1:%d" % engine.port
    assert (status, err) == (2, "Control-C to exit...\n" + FAILED % (
        where, "GET /status: connection closed by the engine before any response"))
    assert [(line[:8], line[-5:]) for line in out.splitlines()] == [("1061116,", ",emea")] * 7
    assert (engine.connections, engine.requests) == (6, 11)


@pytest.mark.parametrize("answer, cause", [
    # The engine's words are shown, its control bytes escaped.
    (http_reply(500, "", "\x1b[2JOops\x7f"), "GET /status answered 500 \\x1b[2JOops\\x7f"),
    (http_reply(200, '{"status": [["a", 1]]}'),
     "malformed status document: found a number where a string belongs at status[0][1]"),
    (None, "GET /status timed out after 300 ms"),
    # The limit holds while bytes keep coming.
    (itertools.chain([b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n"],
                     itertools.repeat(b"X-Trailer: more\r\n")), "GET /status timed out after 300 ms"),
])
def test_a_failed_fetch_says_why(run, scripted_engine, answer, cause):
    engine = scripted_engine(lambda path, _: PONG if path == "/ping" else answer)
    assert vigilo(run, "127.0.0.1", engine.port, "-o",
                  env={"OVCLIENT_RESPONSE_TIMEOUT_MS": "300"}) == (
        2, "", FAILED % ("127.0.0.1:%d" % engine.port, cause))


def test_a_failed_connection_names_host_port_and_cause(run, scripted_engine):
    # A label of 64 bytes is refused by the resolver before any name server is asked, so the
    # cause is the same on every machine, with or without a network.
    unresolvable, closed = "a" * 64 + ".invalid", free_port()
    not_an_engine = scripted_engine(lambda *_: http_reply(404, "", "Not Found")).port
    rows = [("127.0.0.1", closed, "Connection refused"),
            ("127.0.0.1", not_an_engine, "GET /ping answered 404 Not Found"),
            (unresolvable, 15903, "Name or service not known")]
    assert [vigilo(run, host, port, "-o") for host, port, _ in rows] == [
        (1, "", "Failed to connect to engine: Could not connect to engine at %s:%d: %s\n"
         % (host, port, cause)) for host, port, cause in rows]


@pytest.mark.parametrize("host, listen", [("localhost", "127.0.0.1"), ("::1", "::1")])
def test_reaches_an_engine_by_name_or_on_either_loopback(run, scripted_engine, host, listen):
    if listen == "::1" and not os.path.exists("/proc/net/if_inet6"):
        pytest.skip("this machine has no IPv6 loopback")
    engine = scripted_engine(lambda path, _: PONG if path == "/ping" else DOCUMENT, listen)
    status, out, err = vigilo(run, host, engine.port, "-o")
    assert (status, out[:8], out[-6:], err) == (0, "1061116,", ",emea\n", "")
