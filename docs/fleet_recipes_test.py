#!/usr/bin/python3
"""The recipes of docs/fleet.md, taken from the document and run: Telegraf's command line, and the
backfill of a recorded file into a real VictoriaMetrics."""

import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

FLEET = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fleet.md")
VIGILO, OVENGINE = os.environ["VIGILO_BINARY"], os.environ["OVENGINE_BINARY"]
LOAD = 4000


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def get(url):
    with urllib.request.urlopen(url, timeout=10) as answer:
        return answer.read().decode()


class FleetRecipesTest(unittest.TestCase):
    def setUp(self):
        with open(FLEET) as document:
            self.fleet = document.read()
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        self.engine = self.start([OVENGINE, "--port", "0", "--load", str(LOAD)])
        self.port = self.engine.stdout.readline().rsplit(":", 1)[1].strip()
        # vigilo runs as `vigilo`, from PATH, as the recipes call it.
        self.env = dict(os.environ, PATH=os.path.dirname(VIGILO) + ":" + os.environ["PATH"])

    def start(self, argv, **options):
        process = subprocess.Popen(argv, stdout=subprocess.PIPE, text=True, **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        return process

    def test_telegraf_command_keeps_the_start_up_line_out_of_the_errors(self):
        command = json.loads(re.search(r"^  command = (\[.*\])$", self.fleet, re.M).group(1))
        command[-1] = (command[-1].replace("10.20.1.5", "127.0.0.1")
                       .replace("15903", self.port).replace("15000", "100"))
        telegraf = self.start(command, stderr=subprocess.PIPE, env=self.env)
        lines = [telegraf.stdout.readline() for _ in range(3)]
        telegraf.send_signal(signal.SIGTERM)  # vigilo itself, through exec
        self.assertEqual(telegraf.wait(timeout=10), 0)
        self.assertEqual([line.count(",") for line in lines], [25] * 3)
        self.assertEqual(telegraf.stderr.read(), "D! Control-C to exit...\n")
        telegraf.stderr.close()

    def test_victoria_metrics_stores_a_recorded_file(self):
        # A file as vigilo@.service names and writes it, four seconds of polls.
        started = time.time()
        log = os.path.join(self.directory, "engine-1-%s.csv"
                           % time.strftime("%Y%m%d-%H%M%S", time.localtime(started)))
        recorder = subprocess.Popen([VIGILO, "-n", "127.0.0.1", "-p", self.port, "-i", "500",
                                     "-r", "-t", "-a", "-f", log], stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while not os.path.exists(log) or open(log).read().count("\n") < 10:  # heading, 9 polls
            self.assertLess(time.monotonic(), deadline, "vigilo recorded too little")
            time.sleep(0.05)
        recorder.send_signal(signal.SIGINT)
        self.assertEqual(recorder.wait(timeout=10), 0)
        recorded = time.time()

        port = free_port()
        victoria = self.start(["victoria-metrics", "-httpListenAddr=127.0.0.1:%d" % port,
                               "-storageDataPath=" + os.path.join(self.directory, "vm"),
                               "-search.latencyOffset=0s"], stderr=subprocess.DEVNULL)
        address = "http://127.0.0.1:%d" % port
        deadline = time.monotonic() + 30
        while True:
            try:
                get(address + "/health")
                break
            except OSError:
                self.assertLess(time.monotonic(), deadline, "VictoriaMetrics did not start")
                time.sleep(0.1)

        recipe = re.search(r"```sh\n(f=.*?)```", self.fleet, re.S).group(1)
        recipe = re.sub(r"^f=.*$", "f=" + log, recipe, flags=re.M).replace("http://victoria:8428",
                                                                          address)
        imported = subprocess.run(["sh", "-c", recipe], capture_output=True, text=True)
        self.assertEqual(imported.returncode, 0, imported.stderr)
        get(address + "/internal/force_flush")

        match = urllib.parse.quote('{engine="engine-1"}')
        names = sorted(series["__name__"] for series in json.loads(
            get(address + "/api/v1/series?match[]=" + match))["data"])
        self.assertEqual(len(names), 19, names)
        query = urllib.parse.quote('rate(numProcessed{engine="engine-1"}[10s])')
        result = json.loads(get("%s/api/v1/query?query=%s&time=%.3f" % (address, query, recorded)))
        rate = float(result["data"]["result"][0]["value"][1])
        self.assertLess(abs(rate - LOAD), LOAD * 0.15, result)


if __name__ == "__main__":
    unittest.main()
