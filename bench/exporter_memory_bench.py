"""vigilo-exporter's memory around large answers: eight engines answer 8 MiB each at once. Printed
beside the answers in flight: the exporter's peak growth, and what it still holds afterwards, when
its kept connections should hold little each.

    python3 bench/exporter_memory_bench.py build/bin/vigilo-exporter
"""

import os
import sys
import urllib.request
from concurrent.futures import ThreadPoolExecutor

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from testing.programs import ScriptedEngine, Server, status_reply  # noqa: E402

ENGINES, ANSWER_MIB = 8, 8


def memory_kib(pid, field):
    with open("/proc/%d/status" % pid) as status:
        return next(int(line.split()[1]) for line in status if line.startswith(field + ":"))


def main():
    large = status_reply([("numProcessed", "1"), ("user-big", "x" * (ANSWER_MIB << 20))])
    engines = [ScriptedEngine(lambda *_: large) for _ in range(ENGINES)]
    exporter = Server([sys.argv[1], "--web.listen-address=127.0.0.1:0"], "vigilo-exporter")
    try:
        start = memory_kib(exporter.pid, "VmRSS")
        probe = "http://127.0.0.1:%d/probe?target=127.0.0.1:%%d" % exporter.port
        with ThreadPoolExecutor(ENGINES) as scrapers:
            answers = list(scrapers.map(
                lambda e: urllib.request.urlopen(probe % e.port, timeout=60).read(), engines))
        assert all(b"\norvex_up 1\n" in a for a in answers)
        peak, after = (memory_kib(exporter.pid, f) - start for f in ("VmHWM", "VmRSS"))
    finally:
        exporter.stop()
    in_flight = ENGINES * ANSWER_MIB * 1024
    print("%-44s %10s %8s" % ("vigilo-exporter, %d answers of %d MiB" % (ENGINES, ANSWER_MIB),
                              "KiB", "ratio"))
    print("%-44s %10d %8s" % ("answers in flight", in_flight, "1.00"))
    print("%-44s %10d %8.2f" % ("peak growth", peak, peak / in_flight))
    print("%-44s %10d %8.2f" % ("held afterwards by %d kept connections" % ENGINES, after,
                                after / in_flight))


if __name__ == "__main__":
    main()
