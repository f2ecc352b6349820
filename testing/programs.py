"""The fixtures of the program-level suite, a pytest plugin (`-p testing.programs`).

The programs are one build's: VIGILO_BINARY, OVENGINE_BINARY and EXPORTER_BINARY name them,
VIGILO_SANITIZE its sanitizers, VIGILO_TIME_SCALE how much slower they run, and VIGILO_VALGRIND,
where set, the valgrind that tests may run them under. Every wait has a bound, nothing sleeps on
a guess, and no process outlives its test."""

import contextlib
import http.client
import json
import os
import re
import selectors
import socket
import subprocess
import threading
import time

import pytest

SCALE = int(os.environ.get("VIGILO_TIME_SCALE", "1"))
BOUND = 20 * SCALE  # seconds: the longest a test waits for what should come at once
VALGRIND = os.environ.get("VIGILO_VALGRIND")
SANITIZED = os.environ.get("VIGILO_SANITIZE", "") != ""


def program(name):
    """A program of the build under test: "vigilo", "ovengine" or "exporter"."""
    return os.environ[name.upper() + "_BINARY"]


# Ends a run with status 99 on a memory error or a definite leak, and otherwise writes nothing.
UNDER_VALGRIND = [VALGRIND, "-q", "--error-exitcode=99", "--leak-check=full",
                  "--errors-for-leak-kinds=definite"]


class Process(subprocess.Popen):
    """A started program whose standard output and error (unless sent elsewhere, as
    stderr=subprocess.DEVNULL for one that talks a lot) are read as they come."""

    def __init__(self, argv, **options):
        super().__init__(argv, **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                                  "stderr": subprocess.PIPE, **options})
        self.out, self.err = b"", b""
        self.selector = selectors.DefaultSelector()
        for pipe in (self.stdout, self.stderr):
            if pipe is not None:
                os.set_blocking(pipe.fileno(), False)
                self.selector.register(pipe, selectors.EVENT_READ)

    def _read(self, timeout):
        """Takes what the pipes give within `timeout` seconds; False once both have ended."""
        for key, _ in self.selector.select(timeout) if self.selector.get_map() else ():
            data = os.read(key.fileobj.fileno(), 65536)
            if not data:
                self.selector.unregister(key.fileobj)
                key.fileobj.close()
            elif key.fileobj is self.stdout:
                self.out += data
            else:
                self.err += data
        return bool(self.selector.get_map())

    def wait_for(self, done, timeout=BOUND):
        """Reads until done(out, err) holds, as texts; False when `timeout` passes first."""
        deadline = time.monotonic() + timeout
        while not done(self.out.decode(errors="replace"), self.err.decode(errors="replace")):
            left = deadline - time.monotonic()
            if left <= 0 or not self._read(min(left, 0.1)) and self.poll() is not None:
                return False
        return True

    def close_stdout(self):  # as a reader that goes away does
        self.selector.unregister(self.stdout)
        self.stdout.close()

    def finish(self, timeout=BOUND):
        """(status, out, err) once it has ended, killed after `timeout`; a signal that ended it
        counts as 128 + its number."""
        deadline = time.monotonic() + timeout
        while self._read(max(0, min(deadline - time.monotonic(), 0.1))):
            if time.monotonic() >= deadline:
                self.kill()
        status = self.wait(timeout=BOUND)
        return (128 - status if status < 0 else status, self.out.decode(errors="replace"),
                self.err.decode(errors="replace"))

    def stop(self):
        if self.poll() is None:
            self.kill()
        self.finish()


class Server(Process):
    """A server that names its port on its first line: "NAME listening on HOST:PORT"."""

    def __init__(self, argv, name, timeout=BOUND, **options):
        super().__init__(argv, **options)
        listening = re.compile(r"^%s listening on (.*):(\d+)\n" % re.escape(name))
        if not self.wait_for(lambda out, _: listening.match(out), timeout):
            self.stop()
            raise AssertionError("%s did not start: %r" % (name, self.err))
        self.port = int(listening.match(self.out.decode()).group(2))


@pytest.fixture
def launch():
    """Starts Process(argv) or Server(argv, name), and ends it with the test."""
    started = []
    yield lambda kind, *args, **options: started.append(kind(*args, **options)) or started[-1]
    for process in started:
        process.stop()


@pytest.fixture
def run(launch):
    """Runs a program to its end: (status, out, err), killed after `timeout` seconds."""
    return lambda argv, timeout=BOUND, **options: launch(Process, argv, **options).finish(timeout)


@pytest.fixture
def engine(launch):
    """Starts an ovengine on a free loopback port with the given options."""
    return lambda *options: launch(Server, [program("ovengine"), "--port=0", *options], "ovengine")


@pytest.fixture
def exporter(launch):
    """Starts a vigilo-exporter on a free loopback port, under `wrapper` (prlimit, valgrind)."""
    def start(*options, wrapper=()):
        argv = [*wrapper, program("exporter"), "--web.listen-address=127.0.0.1:0", *options]
        return launch(Server, argv, "vigilo-exporter", timeout=BOUND * (6 if wrapper else 1))
    return start


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def http_get(port, path):
    """GET `path` of a server on loopback: (status, Content-Type, body)."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=BOUND)
    connection.request("GET", path)
    answer = connection.getresponse()
    return answer.status, answer.getheader("Content-Type"), answer.read().decode()


def http_reply(status, body, reason="X", headers=""):
    return ("HTTP/1.1 %d %s\r\nContent-Length: %d\r\n%s\r\n%s"
            % (status, reason, len(body), headers, body)).encode()


def status_reply(pairs, headers=""):
    """A 200 answer whose body is the status document of `pairs`."""
    return http_reply(200, json.dumps({"status": [list(p) for p in pairs]}), "OK", headers)


class ScriptedEngine:
    """An engine on a loopback port that answers each request with what script(path, number)
    gives: the bytes of an answer; None for none at all; (bytes, "close") for those bytes and the
    connection's end; or an iterable of bytes, sent 50 ms apart for as long as the client stays.
    Requests are numbered from 0 over all connections; each connection has a thread."""

    def __init__(self, script, address="127.0.0.1"):
        self.script, self.requests, self.connections = script, 0, 0
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self.listener = socket.create_server((address, 0), family=family)
        self.port = self.listener.getsockname()[1]
        self.lock = threading.Lock()
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return  # closed
            with self.lock:
                self.connections += 1
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        pending = b""
        with client, contextlib.suppress(ConnectionError):
            while data := client.recv(65536):
                pending += data
                while b"\r\n\r\n" in pending:
                    head, pending = pending.split(b"\r\n\r\n", 1)
                    with self.lock:
                        number, self.requests = self.requests, self.requests + 1
                    answer = self.script(head.split(b" ")[1].decode(), number)
                    if isinstance(answer, tuple):
                        return client.sendall(answer[0])
                    for piece in [answer] if isinstance(answer, bytes) else answer or ():
                        client.sendall(piece)
                        if not isinstance(answer, bytes):
                            time.sleep(0.05)


@pytest.fixture
def scripted_engine():
    """Starts ScriptedEngine(script, address) engines, closed with the test."""
    engines = []
    yield lambda *args: engines.append(ScriptedEngine(*args)) or engines[-1]
    for e in engines:
        e.listener.close()


def exchange(port, data):
    """Sends `data` on a connection of its own and reads the answer to the close: "status body"."""
    with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as s:
        s.sendall(data)
        answer = b"".join(iter(lambda: s.recv(65536), b""))
    head, _, body = answer.partition(b"\r\n\r\n")
    return head[9:13].decode() + body.decode(errors="replace")


def request(method, path, body=""):
    """A request that asks the server to close the connection after its answer."""
    data = body.encode() if isinstance(body, str) else body
    length = "Content-Length: %d\r\n" % len(data) if data else ""
    return ("%s %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n%s\r\n"
            % (method, path, length)).encode() + data


def eventually(done, what, timeout=BOUND, every=0.01):
    """Waits until done() holds; fails the test with `what` after `timeout`."""
    deadline = time.monotonic() + timeout
    while not done():
        assert time.monotonic() < deadline, what
        time.sleep(every)
