#!/usr/bin/python3
"""vigilo-plot over a log recorded from a real ovengine, over logs written to be awkward or hostile,
and the gnuplot script it writes."""

import importlib.util
import os
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import unittest

PLOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo_plot.py")
LOADING = importlib.util.spec_from_file_location("vigilo_plot", PLOT)
vigilo_plot = importlib.util.module_from_spec(LOADING)
LOADING.loader.exec_module(vigilo_plot)
VIGILO, OVENGINE = os.environ["VIGILO_BINARY"], os.environ["OVENGINE_BINARY"]


def plot(*args, env=None, cwd=None):
    return subprocess.run([sys.executable, PLOT, *args], capture_output=True, text=True, timeout=60,
                          env=env, cwd=cwd)


def line(uptime, processed, users=()):
    """A raw values line: 7 in every other number, "t" in every text."""
    fields = [str(uptime)] + ["7"] * 15 + ["t"] * 5 + [str(processed), "t", "7", "t", "7"]
    return ",".join(fields + list(users)) + "\n"


class VigiloPlotTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = lambda name: os.path.join(directory.name, name)

    def summary(self, lines, wrong, long, segments):
        return ("vigilo-plot: %d lines, %d skipped for a wrong number of fields, %d skipped for "
                "being longer than 1048576 bytes, %d segments\n" % (lines, wrong, long, segments))

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
        # Recorded time from 0, running on across the restart.
        self.assertEqual(result.stdout, "1.000 500.00\n2.000 1000.00\n3.000 2000.00\n")
        self.assertEqual(result.stderr, self.summary(7, 2, 0, 2))
        with open(self.path("awkward.svg")) as picture:
            self.assertIn('width="800" height="600"', picture.read())
        # Nothing to draw from one line, and no picture in a format it does not know.
        with open(self.path("one.csv"), "w") as out:
            out.write(line(1000, 5))
        self.assertEqual(plot("-o", self.path("one.png"), self.path("one.csv")).returncode, 1)
        self.assertNotEqual(plot("-o", self.path("x.jpg"), log).returncode, 0)

    def test_nothing_it_is_given_runs_a_command(self):
        marker, run = self.path("ran"), "touch ran #"  # in the marker's directory; "#" ends it
        cases = [  # title, output, a text field of the log, the log's name; its exit status
            ("x\n!" + run, "a.png", "t", "a.csv", 2),
            ("x`%s`" % run, "b.png", "t", "b.csv", 0),
            ("x'; system('%s'); '" % run, "c.svg", "t", "c.csv", 0),
            (None, "d\n!%s.png" % run, "t", "d.csv", 2),
            (None, "|%s; echo .png" % run, "t", "e.csv", 2),
            (None, "f`%s`.png" % run, "t", "f.csv", 0),
            (None, "g.png", 'system("%s") `%s`' % (run, run), "g.csv", 0),
            (None, "h.png", "t", "h'`%s`\".csv" % run, 0),
            (None, "i.png", "t", "i\n!%s.csv" % run, 2),
        ]
        for title, output, text, name, status in cases:
            log = self.path(name)
            with open(log, "w") as out:
                out.write((line(1000, 0) + line(2000, 500)).replace(",t,", "," + text + ","))
            args = (["-t", title] if title is not None else []) + ["-o", output, log]
            result = plot(*args, cwd=os.path.dirname(marker))
            self.assertFalse(os.path.exists(marker), args)
            self.assertEqual(result.returncode, status, (args, result.stderr))

    def test_memory_holds_whatever_the_lines_and_the_logs(self):
        short = self.path("short.csv")
        with open(short, "w") as out:
            out.write(line(1000, 0) + line(2000, 500))
        long = self.path("long.csv")
        with open(long, "w") as out:
            out.write(line(1000, 0) + "9" * (50 << 20) + "\n")
            for i in range(1, 200000):
                out.write(line(1000 + 100 * i, 50 * i))

        def peak(log):  # of vigilo-plot and gnuplot, in a process of their own
            measure = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], "
                       "capture_output=True); print(resource.getrusage("
                       "resource.RUSAGE_CHILDREN).ru_maxrss)")
            return int(subprocess.run([sys.executable, "-c", measure, sys.executable, PLOT, "-o",
                                       self.path("m.png"), log], capture_output=True,
                                      text=True).stdout)

        self.assertEqual(plot("-o", self.path("m.png"), long).stderr,
                         self.summary(200000, 0, 1, 1))
        self.assertLess(peak(long), peak(short) * 1.25)

    def test_the_picture_it_draws(self):
        logs = [self.path("orders-20261123-140000.csv"), self.path("orders-20261123-140230.csv")]
        for log, uptimes in zip(logs, [(1000, 151000), (1000, 151000)]):
            with open(log, "w") as out:
                out.write(line(uptimes[0], 0) + line(uptimes[1], 3000000))
        picture = vigilo_plot.Picture(600)
        start = vigilo_plot.start_of(logs[0])
        for log in logs:
            with open(log, "rb") as stream:
                vigilo_plot.read(picture, stream, vigilo_plot.start_of(log))
        self.assertEqual(picture.restarts, [start + 150])
        script = vigilo_plot.gnuplot_script(picture, 1200, 800, False, True)
        self.assertIn("set output ARG2\n", script)
        self.assertIn("set multiplot layout 2,1 title ARG1 noenhanced\n", script)
        self.assertIn("set lmargin at screen 0.09\nset rmargin at screen 0.78\n", script)
        self.assertIn("set xdata time\nset timefmt '%s'\nset format x '%H:%M:%S'\n", script)
        self.assertIn("set arrow from %.3f, graph 0 to %.3f, graph 1 nohead" % (start + 150,
                                                                               start + 150), script)
        self.assertIn("$points << EOD\n%.3f NaN" % start, script)
        self.assertEqual(vigilo_plot.default_title(logs), "orders")
        # Without gnuplot, a reason and status 1.
        result = plot("-o", self.path("p.png"), *logs, env=dict(os.environ, PATH="/nonexistent"))
        self.assertEqual((result.returncode, result.stderr.splitlines()[-1]),
                         (1, "vigilo-plot: gnuplot not found; install gnuplot-nox"))


if __name__ == "__main__":
    unittest.main()
