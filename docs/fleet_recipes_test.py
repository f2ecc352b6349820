"""The recipes of docs/fleet.md, taken from the document and run: Telegraf's command line, and the
backfill of a recorded file into a real VictoriaMetrics."""

import json
import os
import re
import shutil
import signal
import subprocess
import time
import urllib.parse

import pytest

from testing.programs import Process, eventually, free_port, http_get, program

with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "fleet.md")) as document:
    FLEET = document.read()
LOAD = 4000


@pytest.fixture
def loaded(engine):
    return engine("--load", str(LOAD))


@pytest.fixture
def env():
    """vigilo runs as `vigilo`, from PATH, as the recipes call it."""
    return dict(os.environ, PATH=os.path.dirname(program("vigilo")) + ":" + os.environ["PATH"])


def test_telegraf_command_keeps_the_start_up_line_out_of_the_errors(launch, loaded, env):
    command = json.loads(re.search(r"^  command = (\[.*\])$", FLEET, re.M).group(1))
    command[-1] = (command[-1].replace("10.20.1.5", "127.0.0.1")
                   .replace("15903", str(loaded.port)).replace("15000", "100"))
    telegraf = launch(Process, command, env=env)
    assert telegraf.wait_for(lambda out, _: out.count("\n") >= 3)
    telegraf.send_signal(signal.SIGTERM)  # vigilo itself, through exec
    status, out, err = telegraf.finish()
    assert (status, err) == (0, "D! Control-C to exit...\n")
    assert {line.count(",") for line in out.splitlines()} == {25}


@pytest.mark.skipif(shutil.which("victoria-metrics") is None,
                    reason="victoria-metrics is not installed")
def test_victoria_metrics_stores_a_recorded_file(launch, loaded, tmp_path):
    # A file as vigilo@.service names and writes it, nine polls after its heading.
    log = tmp_path / ("engine-1-%s.csv" % time.strftime("%Y%m%d-%H%M%S"))
    recorder = launch(Process, [program("vigilo"), "-n", "127.0.0.1", "-p", str(loaded.port),
                                "-i", "500", "-r", "-t", "-a", "-f", str(log)])
    eventually(lambda: log.exists() and log.read_text().count("\n") >= 10,
               "vigilo recorded too little")
    recorder.send_signal(signal.SIGINT)
    assert recorder.finish()[0] == 0
    recorded = time.time()

    port = free_port()
    launch(Process, ["victoria-metrics", "-httpListenAddr=127.0.0.1:%d" % port,
                     "-storageDataPath=%s" % (tmp_path / "vm"), "-search.latencyOffset=0s"],
           stderr=subprocess.DEVNULL)

    def healthy():
        try:
            return http_get(port, "/health")[0] == 200
        except OSError:
            return False
    eventually(healthy, "VictoriaMetrics did not start", every=0.1)

    recipe = re.search(r"```sh\n(f=.*?)```", FLEET, re.S).group(1)
    recipe = re.sub(r"^f=.*$", "f=%s" % log, recipe, flags=re.M).replace(
        "http://victoria:8428", "http://127.0.0.1:%d" % port)
    imported = launch(Process, ["sh", "-c", recipe]).finish()
    assert imported[0] == 0, imported[2]
    http_get(port, "/internal/force_flush")

    match = urllib.parse.quote('{engine="engine-1"}')
    names = sorted(series["__name__"] for series in json.loads(
        http_get(port, "/api/v1/series?match[]=" + match)[2])["data"])
    assert len(names) == 19, names
    query = urllib.parse.quote('rate(numProcessed{engine="engine-1"}[10s])')
    result = json.loads(http_get(port, "/api/v1/query?query=%s&time=%.3f" % (query, recorded))[2])
    assert abs(float(result["data"]["result"][0]["value"][1]) - LOAD) < LOAD * 0.15, result
