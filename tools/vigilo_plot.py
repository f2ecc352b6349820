#!/usr/bin/python3
"""vigilo-plot: turns raw logs of `vigilo -r` into a picture of an engine's event rate and queues.

Rates come from successive lines: the processed events between them over the uptime between them.
When the uptime goes backwards the engine has restarted, and a new segment starts. Heading lines
may stand anywhere (they tell how many user columns follow); a line with another number of fields
is skipped and counted. Fields are taken by position, never by the heading, which names only 21
of the 26 standard fields.
"""

import argparse
import os
import subprocess
import sys

# The raw line's fields that the picture reads, by the engine's key: their positions (from 0), the
# number of standard fields and the number of headings are the status catalogue's, which a test of
# the documents holds them to.
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
HEADINGS = 21
UPTIME, PROCESSED = FIELD["uptime"], FIELD["numProcessed"]
QUEUES = [  # (field index, name)
    (FIELD["numQueuedInput"], "input queue"),
    (FIELD["numQueuedFastTrack"], "route queue"),
    (FIELD["numOutEventsQueued"], "output queue"),
    (FIELD["mostBackedUpICQueueSize"], "slowest context queue"),
    (FIELD["slowestReceiverQueueSize"], "slowest receiver queue"),
]


class Series:
    """The points read from the logs, split into segments at every restart of the engine."""

    def __init__(self):
        self.segments = []  # each a list of (time in s, uptime ms, processed, queue sizes)
        self.lines = 0
        self.skipped = 0
        self.offset = 0.0  # the seconds of the segments before the current one

    def read(self, stream):
        expected = None
        for line in stream:
            line = line.rstrip("\r\n")
            if not line:
                continue
            fields = line.split(",")
            if line.startswith("Uptime (ms),"):
                expected = STANDARD_FIELDS + len(fields) - HEADINGS
                continue
            self.lines += 1
            if expected is None and len(fields) >= STANDARD_FIELDS:
                expected = len(fields)
            try:
                if len(fields) != expected:
                    raise ValueError
                uptime, processed = int(fields[UPTIME]), int(fields[PROCESSED])
                queues = [int(fields[index]) for index, _ in QUEUES]
            except ValueError:
                self.skipped += 1
                continue
            self.add(uptime, processed, queues)

    def add(self, uptime, processed, queues):
        if not self.segments or uptime < self.segments[-1][-1][1]:
            if self.segments:
                self.offset = self.segments[-1][-1][0]
            self.segments.append([])
        self.segments[-1].append((self.offset + uptime / 1000.0, uptime, processed, queues))

    def rates(self):
        """(time, events per second) between successive points of every segment."""
        for segment in self.segments:
            yield [
                (b[0], (b[2] - a[2]) * 1000.0 / (b[1] - a[1]))
                for a, b in zip(segment, segment[1:])
                if b[1] > a[1]
            ]


def data_block(name, segments):
    """A gnuplot data block; an empty line between segments breaks the plotted line."""
    rows = []
    for segment in segments:
        rows += [" ".join(str(value) for value in point) for point in segment]
        rows.append("")
    return "$%s << EOD\n%s\nEOD\n" % (name, "\n".join(rows))


def gnuplot_script(series, output, width, height, title):
    terminal = "svg" if output.endswith(".svg") else "pngcairo"
    queue_points = [[(p[0], *p[3]) for p in segment] for segment in series.segments]
    queue_plots = ", ".join(
        "$queues using 1:%d with lines title '%s'" % (column + 2, name)
        for column, (_, name) in enumerate(QUEUES)
    )
    return (
        data_block("rates", series.rates())
        + data_block("queues", queue_points)
        + "set terminal %s size %d,%d\n" % (terminal, width, height)
        + "set output '%s'\n" % output.replace("'", "''")
        + "set multiplot layout 2,1 title '%s'\n" % title.replace("'", "''")
        + "set xlabel 'engine uptime (s)'\nset grid\nset key outside right\n"
        + "set ylabel 'events/s'\nplot $rates using 1:2 with lines title 'processed'\n"
        + "set ylabel 'events queued'\nplot %s\n" % queue_plots
        + "unset multiplot\n"
    )


def size(text):
    width, _, height = text.partition("x")
    if not width.isdigit() or not height.isdigit() or int(width) < 100 or int(height) < 100:
        raise argparse.ArgumentTypeError("a size is WIDTHxHEIGHT in pixels, each 100 or more")
    return int(width), int(height)


def main(argv):
    parser = argparse.ArgumentParser(
        prog="vigilo-plot", description="Draws the event rate and queues of raw vigilo logs.")
    parser.add_argument("logs", nargs="+", help="raw logs of vigilo -r, in the order recorded")
    parser.add_argument("-o", "--output", default="vigilo.png",
                        help="the picture: .png or .svg (default vigilo.png)")
    parser.add_argument("-s", "--size", type=size, default=(1200, 800),
                        help="WIDTHxHEIGHT in pixels (default 1200x800)")
    parser.add_argument("-t", "--title", default="", help="a title above both plots")
    parser.add_argument("--rates", action="store_true",
                        help="also print every rate as 'seconds events/s' on standard output")
    args = parser.parse_args(argv)
    if not args.output.endswith((".png", ".svg")):
        parser.error("the output must be named .png or .svg")

    series = Series()
    for log in args.logs:
        try:
            with open(log, encoding="utf-8", errors="replace") as stream:
                series.read(stream)
        except OSError as error:
            parser.error("cannot read %s: %s" % (log, error.strerror))
    print("vigilo-plot: %d lines, %d skipped for a wrong number of fields, %d segments"
          % (series.lines, series.skipped, len(series.segments)), file=sys.stderr)
    if args.rates:
        for segment in series.rates():
            for time, rate in segment:
                print("%.3f %.2f" % (time, rate))
    if not any(len(segment) > 1 for segment in series.segments):
        print("vigilo-plot: fewer than two lines to draw from", file=sys.stderr)
        return 1
    script = gnuplot_script(series, args.output, *args.size, args.title)
    result = subprocess.run(["gnuplot"], input=script, text=True, stderr=subprocess.PIPE,
                            check=False)
    if result.returncode != 0 or not os.path.exists(args.output):
        print("vigilo-plot: gnuplot failed: " + result.stderr.strip(), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
