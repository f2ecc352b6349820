"""vigilo-plot over logs written to be awkward or hostile, and the axes it gives the picture. That
it reads the fields where vigilo writes them is documentation_test.cc's to check."""

import importlib.util
import os
import re
import subprocess
import sys
import time

import pytest

from testing.programs import BOUND

PLOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo_plot.py")
LOADING = importlib.util.spec_from_file_location("vigilo_plot", PLOT)
vigilo_plot = importlib.util.module_from_spec(LOADING)
LOADING.loader.exec_module(vigilo_plot)


def line(uptime, processed, users=()):
    """A raw values line: 7 in every other number, "t" in every text."""
    fields = [str(uptime)] + ["7"] * 15 + ["t"] * 5 + [str(processed), "t", "7", "t", "7"]
    return ",".join(fields + list(users)) + "\n"


def summary(lines, broken, long, segments):
    plural = lambda n, what: "%d %s%s" % (n, what, "" if n == 1 else "s")
    return ("vigilo-plot: %s, %s skipped, %s longer than 1048576 bytes skipped, %s\n"
            % (plural(lines, "line"), plural(broken, "broken line"), plural(long, "line"),
               plural(segments, "segment")))


@pytest.fixture
def plot(run, tmp_path):
    """vigilo-plot run in `tmp_path`, with `env` for its environment."""
    return lambda *args, env=None: run([sys.executable, PLOT, *args], timeout=BOUND * 3,
                                       cwd=tmp_path, env=env)


def test_user_columns_restarts_and_broken_lines(plot, tmp_path):
    """User columns come and go, and a user value may hold a comma: every line with the standard
    fields is drawn. A line cut short, or longer than the bound, is skipped and counted; a restart
    starts a segment."""
    heading = "Uptime (ms)," + ",".join(["h"] * 20)
    (tmp_path / "awkward.csv").write_text(
        heading + ",user-a\n" + line(1000, 0, ["x"]) + line(2000, 500, ["y"])
        + line(3000, 900, ["a,b"]) + heading + "\n" + line(4000, 1500) + "cut,short\n"
        + line(500, 0) + "9" * (1 << 21) + "\n" + line(1500, 2000, ["new", "columns"]))
    status, out, err = plot("--rates", "-o", "awkward.SVG", "-s", "800x600", "awkward.csv")
    assert (status, err) == (0, summary(7, 1, 1, 2))
    # Recorded time from 0, running on across the restart.
    assert out == "1.000 500.00\n2.000 400.00\n3.000 600.00\n4.000 2000.00\n"
    assert 'width="800" height="600"' in (tmp_path / "awkward.SVG").read_text()


@pytest.mark.parametrize("args, status, err", [
    (["-o", "/nonexistent/x.png", "two.csv"], 1,
     "vigilo-plot: cannot write /nonexistent/x.png: No such file or directory"),
    (["-o", "x.png", "one.csv"], 1, "vigilo-plot: fewer than two lines to draw from"),
    (["-o", "x.png", "absent.csv"], 2, "vigilo-plot: cannot read absent.csv: No such file or "
     "directory"),
    (["-o", "x.jpg", "two.csv"], 2, "vigilo-plot: error: the output must be a file named .png or "
     ".svg: 'x.jpg'"),
])
def test_refusals_say_why_in_one_line(plot, tmp_path, args, status, err):
    (tmp_path / "one.csv").write_text(line(1000, 5))
    (tmp_path / "two.csv").write_text(line(1000, 5) + line(2000, 10))
    result = plot(*args)
    assert (result[0], result[2].splitlines()[-1]) == (status, err)
    assert "Traceback" not in result[2]


def test_a_reader_that_stops_early_and_a_missing_gnuplot(plot, tmp_path):
    log = tmp_path / "long.csv"
    log.write_text("".join(line(1000 * i, 100 * i) for i in range(1, 100)))
    piped = subprocess.run("%s %s --rates -o p.png long.csv | head -n 3" % (sys.executable, PLOT),
                           shell=True, cwd=tmp_path, capture_output=True, text=True, timeout=BOUND)
    assert (piped.stdout.count("\n"), piped.stderr) == (3, summary(99, 0, 0, 1))
    assert (tmp_path / "p.png").stat().st_size > 0
    status, _, err = plot("-o", "p.png", "long.csv", env=dict(os.environ, PATH="/nonexistent"))
    assert (status, err.splitlines()[-1]) == (1, "vigilo-plot: gnuplot not found; install "
                                                 "gnuplot-nox")


def test_nothing_it_is_given_runs_a_command(plot, tmp_path):
    run = "touch ran #"  # in the test's directory; "#" ends the command
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
        (tmp_path / name).write_text((line(1000, 0) + line(2000, 500)).replace(",t,",
                                                                            "," + text + ","))
        args = (["-t", title] if title is not None else []) + ["-o", output, name]
        assert plot(*args)[0] == status, args
        assert not (tmp_path / "ran").exists(), args


def test_logs_named_by_the_recorder_give_times_restarts_and_title(plot, tmp_path):
    """The recorder's file names give each log's start: times run on across the logs, a restart
    between them is marked and starts a segment, and the unit's name is the title."""
    logs = ["orders-20261123-140000.csv", "orders-20261123-140230.csv"]
    for log in logs:
        (tmp_path / log).write_text(line(1000, 0) + line(151000, 3000000))
    assert plot("--rates", "-o", "p.svg", *logs) == (
        0, "1795442550.000 20000.00\n1795442700.000 20000.00\n", summary(4, 0, 0, 2))
    picture = (tmp_path / "p.svg").read_text()
    assert ">orders<" in picture and "restart" in picture


@pytest.mark.parametrize("value, shown", [
    (0, "0"), (0.25, "0.25"), (500, "500"), (1500, "1.5k"), (3500000, "3.5M"), (2e9, "2G")])
def test_numbers_read_plainly(value, shown):
    assert vigilo_plot.si(value) == shown


@pytest.mark.parametrize("top", [0, 1, 6000, 3.5e6])
def test_no_series_lies_on_the_frame(top):
    """The top has headroom, the bottom stands below 0, and the ticks start at 0."""
    axis = vigilo_plot.value_axis(top, whole=True)
    low, high = map(float, re.search(r"yrange \[(\S+):(\S+)\]", axis).groups())
    ticks = [float(t) for t in re.findall(r'" (\S+?)[,)]', axis)]
    assert low < 0 < high and top < high and ticks[0] == 0 and ticks[-1] <= high


@pytest.mark.parametrize("span", [10, 300, 7200, 2 * 86400])
def test_clock_ticks_never_read_alike(span):
    axis = vigilo_plot.time_axis(1795341600, 1795341600 + span, 1200, clock=True)
    shown = re.search(r"set format x '(.*)'", axis).group(1)
    start, step = map(int, re.search(r"set xtics (\d+), (\d+)", axis).groups())
    labels = [time.strftime(shown, time.gmtime(t)) for t in range(start, 1795341600 + span + 1, step)]
    assert 2 <= len(labels) <= 12 and len(set(labels)) == len(labels), labels
