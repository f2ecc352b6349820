#!/usr/bin/python3
"""vigilo-plot: turns raw logs of `vigilo -r` into a picture of an engine's event rate and queues.

Logs are read as streams, a line at a time and no line longer than MAX_LINE, and what they hold
is gathered into at most twice as many buckets of time as the picture is wide: each bucket sums
the processed events and the uptime between its points (its rate is their average) and keeps the
largest size of each queue. However long the logs and their lines, the memory stays the same.

Time runs on across every file and restart. When the file names carry the time recording started
(NAME-YYYYmmdd-HHMMSS.csv, as vigilo@.service names them) the picture shows that clock time,
otherwise the seconds recorded. When the uptime goes backwards the engine has restarted: the
lines break there, under a marked vertical line. Fields are taken by position, never by the
heading, which names only 21 of the 26 standard fields; the user columns that follow them (-a)
may come and go from one line to the next, and are not read. Heading lines may stand anywhere.

Nothing vigilo-plot is given reaches gnuplot as a command: the picture's texts and its file name
are handed over as gnuplot's script arguments, which it reads only as strings, and the script
itself holds only numbers besides vigilo-plot's own words.
"""

import argparse
import calendar
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

# The raw line's fields that the picture reads, by the engine's key: their positions (from 0) and
# the number of standard fields are the status catalogue's, which a test of the documents holds
# them to.
FIELD = {
    "uptime": 0,
    "numQueuedInput": 8,
    "numQueuedFastTrack": 10,
    "numOutEventsQueued": 13,
    "numProcessed": 21,
    "mostBackedUpICQueueSize": 23,
    "slowestReceiverQueueSize": 25,
}
STANDARD_FIELDS = 26
UPTIME, PROCESSED = FIELD["uptime"], FIELD["numProcessed"]
QUEUES = [  # (field index, name)
    (FIELD["numQueuedInput"], "input queue"),
    (FIELD["numQueuedFastTrack"], "route queue"),
    (FIELD["numOutEventsQueued"], "output queue"),
    (FIELD["mostBackedUpICQueueSize"], "slowest context queue"),
    (FIELD["slowestReceiverQueueSize"], "slowest receiver queue"),
]
HEADING = b"Uptime (ms),"
# Longer than the longest raw line an engine gives, even with a hundred user values of 4 KiB.
MAX_LINE = 1 << 20
UNIT_FILE = re.compile(r"^(.+)-(\d{8}-\d{6})\.csv$")
CONTROL = re.compile(r"[\x00-\x1f\x7f]")
PICTURES = (".png", ".svg")
# Steps between the ticks of a time axis, in seconds: each a whole number of the unit its labels
# show, so that no two labels read alike.
TIME_STEPS = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200,
              86400, 172800, 604800]


class Picture:
    """The points of the logs in buckets of time: at most `limit` buckets, restarts and files."""

    def __init__(self, width):
        self.limit = 2 * width
        self.span = 0.0  # the seconds that one bucket may cover; 0 until buckets first merge
        self.buckets = []  # [first x, last x, events, ms, queue maxima, starts a segment]
        self.restarts = []  # x of each restart, as many as there are buckets at most
        self.last = None  # (x, uptime, processed) of the last point
        self.lines = self.broken = self.long = self.segments = 0

    def add(self, x, uptime, processed, queues):
        restart = self.last is not None and uptime < self.last[1]
        if restart and len(self.restarts) < self.limit:
            self.restarts.append(x)
        starts = self.last is None or restart
        self.segments += starts
        events = ms = 0
        if not starts and uptime > self.last[1]:
            events, ms = processed - self.last[2], uptime - self.last[1]
        self.last = (x, uptime, processed)
        bucket = self.buckets[-1] if self.buckets else None
        if starts or bucket is None or x >= bucket[0] + self.span:
            self.buckets.append([x, x, events, ms, list(queues), starts])
            if len(self.buckets) > self.limit:
                self.merge()
        else:
            bucket[1] = x
            bucket[2] += events
            bucket[3] += ms
            bucket[4] = [max(a, b) for a, b in zip(bucket[4], queues)]

    def merge(self):
        """Halves the buckets: each pair becomes one, which may span a restart."""
        merged = []
        for first, second in zip(self.buckets[0::2], self.buckets[1::2]):
            merged.append([first[0], second[1], first[2] + second[2], first[3] + second[3],
                           [max(a, b) for a, b in zip(first[4], second[4])], first[5]])
        if len(self.buckets) % 2:
            merged.append(self.buckets[-1])
        self.span = max(2 * self.span, max(b[1] - b[0] for b in merged))
        self.buckets = merged

    @staticmethod
    def rate(bucket):
        """Its events per second, or None when it spans no uptime."""
        return bucket[2] * 1000.0 / bucket[3] if bucket[3] > 0 else None

    def rates(self):
        """(x, events per second) of every bucket that spans some uptime."""
        return [(b[1], self.rate(b)) for b in self.buckets if b[3] > 0]


def lines(stream):
    """The lines of a binary stream, each at most MAX_LINE bytes; a longer one is None."""
    while True:
        line = stream.readline(MAX_LINE + 1)
        if not line:
            return
        if len(line) > MAX_LINE and not line.endswith(b"\n"):
            while line and not line.endswith(b"\n"):  # the rest of it, passed over a piece at once
                line = stream.readline(MAX_LINE)
            yield None
        else:
            yield line.rstrip(b"\r\n")


def read(picture, stream, clock):
    """Adds the lines of one log; `clock` is when it was started, or None."""
    base = first = None  # x and uptime where the file's time starts, or restarted
    for line in lines(stream):
        if line is None:
            picture.long += 1
            continue
        if not line or line.startswith(HEADING):
            continue
        picture.lines += 1
        # The standard fields, and the user columns after them in one piece, unread.
        fields = line.split(b",", STANDARD_FIELDS)
        try:
            if len(fields) < STANDARD_FIELDS:
                raise ValueError
            uptime, processed = int(fields[UPTIME]), int(fields[PROCESSED])
            queues = [int(fields[index]) for index, _ in QUEUES]
        except ValueError:  # cut short, or shifted by a comma in a standard text
            picture.broken += 1
            continue
        last = picture.last
        if base is None or uptime < last[1]:
            # A file starts at its own clock time, or where the last one ended; after a restart
            # inside a file, the time runs on from the last point.
            fresh = base is None and clock is not None
            base, first = (clock if fresh else last[0] if last else 0.0), uptime
        picture.add(base + (uptime - first) / 1000.0, uptime, processed, queues)


def si(value):
    """A tick's number as people read it: 0, 500, 1.5k, 3.5M, never an exponent."""
    for factor, prefix in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if abs(value) >= factor:
            return "%g%s" % (round(value / factor, 3), prefix)
    return "%g" % round(value, 3)


def value_axis(top, whole):
    """yrange and ytics for values from 0 to `top`: headroom above the largest, the bottom just
    below 0 so that a series at 0 stands clear of the frame, and ticks from 0 in steps of 1, 2
    or 5 times a power of ten (whole numbers when `whole`)."""
    top = max(top * 1.12, 1.0)
    rough = top / 5
    power = 10 ** math.floor(math.log10(rough))
    step = next(m * power for m in (1, 2, 5, 10) if m * power >= rough)
    if whole:
        step = max(1, round(step))
    ticks = ", ".join('"%s" %r' % (si(i * step), i * step) for i in range(int(top / step) + 1))
    return "set yrange [%r:%r]\nset ytics (%s)\n" % (-top * 0.03, top, ticks)


# The picture's left and right margins, in characters, and the width of a character in pixels.
MARGINS = (11, 27)
CHARACTER = 9


def time_axis(first, last, width, clock):
    """xrange and xtics of the time axis, the same in both panels: as many ticks as their labels
    leave room for, none labelled like another."""
    span = max(last - first, 1)
    if clock:
        shown = lambda step: ("%H:%M:%S" if step < 60 else "%H:%M" if span < 86400
                              else "%m-%d %H:%M" if step < 86400 else "%m-%d")
    else:
        shown = lambda step: "%%.0f"
    room = width - sum(MARGINS) * CHARACTER
    step = next((s for s in TIME_STEPS
                 if span / s <= max(2, room // ((len(shown(s)) + 3) * CHARACTER))), TIME_STEPS[-1])
    axis = "set xrange [%r:%r]\nset xtics %d, %d\n" % (first, max(last, first + 1),
                                                        math.ceil(first / step) * step, step)
    if not clock:
        return axis + "set format x '%.0f'\nset xlabel 'recorded time (s)'\n"
    return ("set xdata time\nset timefmt '%%s'\nset format x '%s'\nset xlabel 'clock time'\n"
            % shown(step) + axis)


def data_block(name, rows):
    """A gnuplot data block of numbers; an empty row breaks the plotted line."""
    return "$%s << EOD\n%s\nEOD\n" % (name, "\n".join(" ".join(row) for row in rows))


def gnuplot_script(picture, width, height, svg, clock):
    """The script; its title is ARG1 and its output ARG2, which gnuplot reads only as strings."""
    rows = []
    for index, b in enumerate(picture.buckets):
        if b[5] and index > 0:
            rows.append([])
        rate = "NaN" if picture.rate(b) is None else "%.3f" % picture.rate(b)
        rows.append(["%.3f" % b[1], rate] + [str(q) for q in b[4]])
    queue_plots = ", ".join("$points using 1:%d with lines title '%s'" % (column + 3, name)
                            for column, (_, name) in enumerate(QUEUES))
    marks = "".join(
        "set arrow from %.3f, graph 0 to %.3f, graph 1 nohead dashtype 2 linecolor 'gray40'\n"
        "set label 'restart' at %.3f, graph 0.97 right rotate by 90 offset -0.5, 0 "
        "textcolor 'gray40'\n" % (x, x, x) for x in picture.restarts)
    top_rate = max((rate for _, rate in picture.rates()), default=0)
    top_queue = max((max(b[4]) for b in picture.buckets), default=0)
    return (
        data_block("points", rows)
        + "set terminal %s size %d,%d noenhanced\n" % ("svg" if svg else "pngcairo", width, height)
        + "set output ARG2\nset datafile missing 'NaN'\n"
        + "set multiplot layout 2,1 title ARG1 noenhanced\n"
        # Margins in characters, the same in both panels, so that their x axes line up and the
        # labels and the longest key stay inside the picture.
        + "set lmargin %d\nset rmargin %d\n" % MARGINS
        + time_axis(picture.buckets[0][0], picture.buckets[-1][1], width, clock)
        + marks + "set grid\nset key outside right top\n"
        + value_axis(top_rate, False)
        + "set ylabel 'events/s'\nplot $points using 1:2 with lines title 'processed'\n"
        + value_axis(top_queue, True)
        + "set ylabel 'events queued'\nplot %s\n" % queue_plots
        + "unset multiplot\n"
    )


def size(text):
    width, _, height = text.partition("x")
    if not width.isdigit() or not height.isdigit() or not 100 <= int(width) <= 10000 \
            or not 100 <= int(height) <= 10000:
        raise argparse.ArgumentTypeError("a size is WIDTHxHEIGHT in pixels, each 100 to 10000")
    return int(width), int(height)


def start_of(log):
    """The clock time a log's recording started, from a file name as vigilo@.service writes it,
    in seconds counted as gnuplot shows them."""
    found = UNIT_FILE.match(os.path.basename(log))
    try:
        return found and calendar.timegm(time.strptime(found.group(2), "%Y%m%d-%H%M%S"))
    except ValueError:
        return None


def default_title(logs):
    """The engines recorded, as their files name them."""
    names = []
    for log in logs:
        found = UNIT_FILE.match(os.path.basename(log))
        name = found.group(1) if found else os.path.splitext(os.path.basename(log))[0]
        if name not in names:
            names.append(name)
    return ", ".join(names[:3]) + (" and %d more" % (len(names) - 3) if len(names) > 3 else "")


def counted(n, what):
    return "%d %s%s" % (n, what, "" if n == 1 else "s")


def fail(text):
    print("vigilo-plot: " + text, file=sys.stderr)
    return 1


def print_rates(picture):
    """Every rate on standard output; a reader that stops early ends only the printing."""
    try:
        for x, rate in picture.rates():
            print("%.3f %.2f" % (x, rate))
        sys.stdout.flush()
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def main(argv):
    parser = argparse.ArgumentParser(
        prog="vigilo-plot", description="Draws the event rate and queues of raw vigilo logs.")
    parser.add_argument("logs", nargs="+", help="raw logs of vigilo -r, in the order recorded")
    parser.add_argument("-o", "--output", default="vigilo.png",
                        help="the picture: .png or .svg (default vigilo.png)")
    parser.add_argument("-s", "--size", type=size, default=(1200, 800),
                        help="WIDTHxHEIGHT in pixels (default 1200x800)")
    parser.add_argument("-t", "--title",
                        help="a title above both plots (default: the engines' file names)")
    parser.add_argument("--rates", action="store_true",
                        help="also print every rate as 'seconds events/s' on standard output")
    args = parser.parse_args(argv)
    for text, what in [(args.title or "", "the title")] + [(n, "a log's name") for n in args.logs]:
        if CONTROL.search(text):
            parser.error("%s holds a control character: %r" % (what, text))
    if CONTROL.search(args.output) or args.output.startswith("|") or \
            not args.output.lower().endswith(PICTURES):
        parser.error("the output must be a file named .png or .svg: %r" % args.output)

    picture = Picture(args.size[0])
    starts = [start_of(log) for log in args.logs]
    clock = all(starts)
    for log, start in zip(args.logs, starts):
        try:
            with open(log, "rb") as stream:
                read(picture, stream, start if clock else None)
        except OSError as error:
            print("vigilo-plot: cannot read %s: %s" % (log, error.strerror), file=sys.stderr)
            return 2
    print("vigilo-plot: %s, %s skipped, %s longer than %d bytes skipped, %s"
          % (counted(picture.lines, "line"), counted(picture.broken, "broken line"),
             counted(picture.long, "line"), MAX_LINE, counted(picture.segments, "segment")),
          file=sys.stderr)
    if args.rates:
        print_rates(picture)
    if not picture.rates():
        return fail("fewer than two lines to draw from")
    gnuplot = shutil.which("gnuplot")
    if gnuplot is None:
        return fail("gnuplot not found; install gnuplot-nox")
    try:
        open(args.output, "wb").close()
    except OSError as error:
        return fail("cannot write %s: %s" % (args.output, error.strerror))
    title = args.title if args.title is not None else default_title(args.logs)
    with tempfile.NamedTemporaryFile("w", suffix=".gp") as script:
        script.write(gnuplot_script(picture, *args.size, args.output.lower().endswith(".svg"),
                                    clock))
        script.flush()
        result = subprocess.run([gnuplot, "-c", script.name, title, args.output], text=True,
                                stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    if result.returncode != 0 or os.path.getsize(args.output) == 0:
        return fail("gnuplot could not draw %s: %s" % (args.output, result.stderr.strip()))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
