"""vigilo-plot's peak memory (with gnuplot's) on a log of two lines, beside a log of 200,000 lines
that begins with a 50 MiB line: it reads a log as a stream, so the two should be alike.

    python3 bench/plot_bench.py
"""

import os
import subprocess
import sys
import tempfile

PLOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "vigilo_plot.py")


def line(uptime, processed):
    return ",".join([str(uptime)] + ["7"] * 15 + ["t"] * 5 + [str(processed), "t", "7", "t", "7"])


def peak_kib(log, picture):
    """Peak resident memory of vigilo-plot and gnuplot, each run in a process of its own."""
    measure = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], check=True, "
               "capture_output=True); print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    return int(subprocess.run([sys.executable, "-c", measure, sys.executable, PLOT, "-o", picture,
                               log], capture_output=True, text=True, check=True).stdout)


def main():
    with tempfile.TemporaryDirectory() as directory:
        short, long = os.path.join(directory, "short.csv"), os.path.join(directory, "long.csv")
        with open(short, "w") as out:
            out.write(line(1000, 0) + "\n" + line(2000, 500) + "\n")
        with open(long, "w") as out:
            out.write(line(1000, 0) + "\n" + "9" * (50 << 20) + "\n")
            for i in range(1, 200000):
                out.write(line(1000 + 100 * i, 50 * i) + "\n")
        picture = os.path.join(directory, "m.png")
        small, large = peak_kib(short, picture), peak_kib(long, picture)
    print("%-46s %10s" % ("vigilo-plot peak memory", "KiB"))
    print("%-46s %10d" % ("2 lines", small))
    print("%-46s %10d" % ("200,000 lines after a 50 MiB line", large))
    print("%-46s %10.2f" % ("ratio", large / small))


if __name__ == "__main__":
    main()
