#!/usr/bin/python3
"""vigilo-plot over a log recorded from a real ovengine, and over a log written to be awkward."""

import os
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import unittest

PLOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo_plot.py")
VIGILO, OVENGINE = os.environ["VIGILO_BINARY"], os.environ["OVENGINE_BINARY"]


def plot(*args):
    return subprocess.run([sys.executable, PLOT, *args], capture_output=True, text=True, timeout=60)


def line(uptime, processed, users=()):
    """A raw values line: 7 in every other number, "t" in every text."""
    fields = [str(uptime)] + ["7"] * 15 + ["t"] * 5 + [str(processed), "t", "7", "t", "7"]
    return ",".join(fields + list(users)) + "\n"


class VigiloPlotTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = lambda name: os.path.join(directory.name, name)

    def test_rates_of_a_real_engine_follow_its_load(self):
        engine = subprocess.Popen([OVENGINE, "--port", "0", "--load", "5000"],
                                  stdout=subprocess.PIPE, text=True)
        self.addCleanup(engine.stdout.close)
        self.addCleanup(engine.wait)
        self.addCleanup(engine.terminate)
        port = engine.stdout.readline().rsplit(":", 1)[1].strip()
        log = self.path("engine.csv")
        watch = subprocess.Popen([VIGILO, "-n", "127.0.0.1", "-p", port, "-r", "-t", "-i", "200",
                                  "-f", log], stderr=subprocess.DEVNULL)
        try:
            watch.wait(timeout=3)
        except subprocess.TimeoutExpired:
            watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(timeout=10), 0)
        result = plot("--rates", "-s", "640x480", "-o", self.path("engine.png"), log)
        self.assertEqual(result.returncode, 0, result.stderr)
        rates = [float(row.split()[1]) for row in result.stdout.splitlines()]
        self.assertGreaterEqual(len(rates), 8)
        self.assertLess(abs(statistics.median(rates) - 5000), 500, rates)
        with open(self.path("engine.png"), "rb") as picture:
            header = picture.read(24)
        self.assertEqual(header[:8], b"\x89PNG\r\n\x1a\n")
        self.assertEqual(struct.unpack(">II", header[16:24]), (640, 480))

    def test_headings_user_columns_restarts_and_broken_lines(self):
        log = self.path("awkward.csv")
        with open(log, "w") as out:
            out.write("Uptime (ms)," + ",".join(["h"] * 20) + ",user-a\n")
            out.write(line(1000, 0, ["x"]) + line(2000, 500, ["y"]))
            out.write(line(3000, 900, ["a,b"]))  # a comma in a user value: one field too many
            out.write("Uptime (ms)," + ",".join(["h"] * 20) + "\n")  # the user column went
            out.write(line(3000, 1500) + "cut,short\n")
            out.write(line(500, 0) + line(1500, 2000))  # the engine restarted
        result = plot("--rates", "-o", self.path("awkward.svg"), "-s", "800x600", log)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, "2.000 500.00\n3.000 1000.00\n4.500 2000.00\n")
        self.assertEqual(result.stderr,
                         "vigilo-plot: 7 lines, 2 skipped for a wrong number of fields, "
                         "2 segments\n")
        with open(self.path("awkward.svg")) as picture:
            self.assertIn('width="800" height="600"', picture.read())
        # Nothing to draw from one line, and no picture in a format it does not know.
        with open(self.path("one.csv"), "w") as out:
            out.write(line(1000, 5))
        self.assertEqual(plot("-o", self.path("one.png"), self.path("one.csv")).returncode, 1)
        self.assertNotEqual(plot("-o", self.path("x.jpg"), log).returncode, 0)


if __name__ == "__main__":
    unittest.main()
