"""The fixtures of the program-level suite (a pytest plugin: `-p testing.programs`).

The programs are one build's, named by the environment (VIGILO_BINARY, OVENGINE_BINARY,
EXPORTER_BINARY); VIGILO_SANITIZE names the sanitizers of the build, VIGILO_TIME_SCALE widens every time bound for
the slower sanitizer builds, and
VIGILO_VALGRIND, where set, names the valgrind that runs the programs that tests ask it for.
Every wait has a bound, nothing sleeps on a guess, and no process outlives its test."""

import json
import os
import re
import selectors
import signal
import socket
import subprocess
import threading
import time

import pytest

SCALE = int(os.environ.get("VIGILO_TIME_SCALE", "1"))
BOUND = 20 * SCALE  # seconds: what a test waits at most for anything that should come at once
VALGRIND = os.environ.get("VIGILO_VALGRIND")
SANITIZED = os.environ.get("VIGILO_SANITIZE", "") != ""


def program(name):
    """The path of a program of the build under test: "vigilo", "ovengine", "exporter"."""
    return os.environ[name.upper() + "_BINARY"]


def under_valgrind(argv):
    """`argv` under valgrind, which fails the run with status 99 on a memory error or a definite
    leak and, being quiet, writes nothing else."""
    return [VALGRIND, "-q", "--error-exitcode=99", "--leak-check=full",
            "--errors-for-leak-kinds=definite"] + argv


class Process:
    """A started program, its standard output and error on pipes, read as they come. A program
    that talks a lot and is not listened to is given stderr=subprocess.DEVNULL."""

    def __init__(self, argv, stdin=subprocess.DEVNULL, **options):
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        self.process = subprocess.Popen(argv, stdin=stdin, **options)
        self.pid = self.process.pid
        self.out, self.err = b"", b""
        self.selector = selectors.DefaultSelector()
        for pipe in (self.process.stdout, self.process.stderr):
            if pipe is not None:
                os.set_blocking(pipe.fileno(), False)
                self.selector.register(pipe, selectors.EVENT_READ)

    def _read(self, timeout):
        """Takes what the pipes hold after at most `timeout` seconds; False once both ended."""
        if not self.selector.get_map():
            return False
        for key, _ in self.selector.select(timeout):
            data = os.read(key.fileobj.fileno(), 65536)
            if not data:
                self.selector.unregister(key.fileobj)
                key.fileobj.close()
            elif key.fileobj is self.process.stdout:
                self.out += data
            else:
                self.err += data
        return True

    def wait_for(self, done, timeout=BOUND):
        """Reads until done(out, err) holds, as texts; False when `timeout` passes first."""
        deadline = time.monotonic() + timeout
        while not done(self.out.decode(errors="replace"), self.err.decode(errors="replace")):
            left = deadline - time.monotonic()
            if left <= 0 or not self._read(min(left, 0.1)) and self.process.poll() is not None:
                return False
        return True

    def signal(self, sig):
        self.process.send_signal(sig)

    def close_stdout(self):
        """Our end of its standard output goes, as a reader that leaves does."""
        self.selector.unregister(self.process.stdout)
        self.process.stdout.close()

    def finish(self, timeout=BOUND):
        """(status, out, err) once it has ended, killed after `timeout`; a signal that ended it
        is 128 + its number."""
        deadline = time.monotonic() + timeout
        while self._read(max(0, min(deadline - time.monotonic(), 0.1))):
            if time.monotonic() >= deadline:
                self.process.kill()
        status = self.process.wait(timeout=BOUND)
        return (128 - status if status < 0 else status, self.out.decode(errors="replace"),
                self.err.decode(errors="replace"))

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
        self.finish()


class Server(Process):
    """A server that names its port as "NAME listening on HOST:PORT" on its first line."""

    def __init__(self, argv, name, timeout=BOUND, **options):
        super().__init__(argv, **options)
        listening = re.compile(r"^%s listening on (.*):(\d+)\n" % re.escape(name))
        if not self.wait_for(lambda out, _: listening.match(out), timeout):
            self.stop()
            raise AssertionError("%s did not start: %r" % (name, self.err))
        self.port = int(listening.match(self.out.decode()).group(2))


@pytest.fixture
def launch():
    """Starts programs, Process(argv) or Server(argv, name), and ends them with the test."""
    started = []

    def start(kind, *args, **options):
        process = kind(*args, **options)
        started.append(process)
        return process

    yield start
    for process in started:
        process.stop()


@pytest.fixture
def run(launch):
    """Runs a program to its end: (status, out, err), killed after `timeout` seconds."""
    def complete(argv, timeout=BOUND, **options):
        return launch(Process, argv, **options).finish(timeout)
    return complete


@pytest.fixture
def engine(launch):
    """Starts an ovengine on a free loopback port with the given options."""
    return lambda *options: launch(Server, [program("ovengine"), "--port=0", *options], "ovengine")


@pytest.fixture
def exporter(launch):
    """Starts a vigilo-exporter on a free loopback port, with `wrapper` (prlimit, valgrind)."""
    def start(*options, wrapper=()):
        argv = [*wrapper, program("exporter"), "--web.listen-address=127.0.0.1:0", *options]
        return launch(Server, argv, "vigilo-exporter", timeout=BOUND * (6 if wrapper else 1))
    return start


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def http_reply(status, reason, body, headers=""):
    return ("HTTP/1.1 %d %s\r\nContent-Type: application/json\r\nContent-Length: %d\r\n%s\r\n"
            % (status, reason, len(body.encode()), headers) + body).encode()


def status_reply(pairs):
    """A 200 answer whose body is the status document of `pairs`."""
    return http_reply(200, "OK", json.dumps({"status": [list(p) for p in pairs]}))


class ScriptedEngine:
    """An engine on a loopback port that answers each request with what script(path, number)
    returns: the bytes of an answer, or None for no answer at all (the connection stays open).
    Requests are numbered from 0 over all connections; each connection has a thread."""

    def __init__(self, script, address="127.0.0.1"):
        self.script = script
        self.listener = socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET)
        self.listener.bind((address, 0))
        self.listener.listen(64)
        self.port = self.listener.getsockname()[1]
        self.requests, self.connections = 0, 0
        self.clients, self.lock = [], threading.Lock()
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return  # closed
            with self.lock:
                self.connections += 1
                self.clients.append(client)
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        pending = b""
        with client:
            while True:
                try:
                    data = client.recv(65536)
                except OSError:
                    return
                if not data:
                    return
                pending += data
                while b"\r\n\r\n" in pending:
                    head, pending = pending.split(b"\r\n\r\n", 1)
                    path = head.split(b" ")[1].decode()
                    with self.lock:
                        number = self.requests
                        self.requests += 1
                    answer = self.script(path, number)
                    if answer is not None:
                        try:
                            client.sendall(answer)
                        except OSError:
                            return

    def close(self):
        self.listener.close()
        with self.lock:
            for client in self.clients:
                try:
                    client.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass


@pytest.fixture
def scripted_engine():
    """Starts ScriptedEngine(script) engines, closed with the test."""
    engines = []

    def start(script, address="127.0.0.1"):
        engines.append(ScriptedEngine(script, address))
        return engines[-1]

    yield start
    for e in engines:
        e.close()


def exchange(port, data, timeout=BOUND):
    """Sends `data` on a connection of its own and reads the answer to the close: "status body"."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
        s.sendall(data if isinstance(data, bytes) else data.encode())
        answer = b""
        while chunk := s.recv(65536):
            answer += chunk
    head, _, body = answer.partition(b"\r\n\r\n")
    return head[9:13].decode() + body.decode(errors="replace")


def request(method, path, body="", headers=""):
    """A request that asks the server to close the connection after its answer."""
    data = body.encode() if isinstance(body, str) else body
    return ("%s %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n%s%s\r\n"
            % (method, path, headers,
               "Content-Length: %d\r\n" % len(data) if data else "")).encode() + data


def eventually(done, what, timeout=BOUND, every=0.01):
    """Waits until done() holds; fails the test with `what` after `timeout`."""
    deadline = time.monotonic() + timeout
    while not done():
        assert time.monotonic() < deadline, what
        time.sleep(every)


def threads_of(pid):
    return len(os.listdir("/proc/%d/task" % pid))
