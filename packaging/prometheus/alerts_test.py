#!/usr/bin/python3
"""The shipped rules at work: a real Prometheus loads them (their durations shortened in a copy),
scrapes two real ovengines through the real vigilo-exporter and sends to a real Alertmanager,
whose webhook receiver is this test. Stopping one engine delivers EngineDown for that engine
alone; starting it again resolves it."""

import http.server
import json
import os
import re
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse
import urllib.request

RULES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo-rules.yml")
EXPORTER, OVENGINE = os.environ["EXPORTER_BINARY"], os.environ["OVENGINE_BINARY"]
PROMETHEUS, ALERTMANAGER = os.environ["PROMETHEUS_BINARY"], os.environ["ALERTMANAGER_BINARY"]


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Notifications(http.server.BaseHTTPRequestHandler):
    """Alertmanager's webhook: every alert it sends, as (status, alertname, instance)."""
    received = []

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        for alert in body["alerts"]:
            labels = alert["labels"]
            self.received.append((alert["status"], labels["alertname"], labels.get("instance")))
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


class AlertsTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def start(self, argv, name=None):
        process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        if name is None:
            return process, None
        line = process.stdout.readline()  # "NAME listening on 127.0.0.1:PORT"
        self.assertTrue(line.startswith(name + " listening on "), line)
        return process, line.rsplit(":", 1)[1].strip()

    def write(self, name, text):
        path = os.path.join(self.directory, name)
        with open(path, "w") as out:
            out.write(text)
        return path

    def until(self, done, what, limit=90):
        deadline = time.monotonic() + limit
        while not done():
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.2)

    def test_engine_down_is_delivered_for_that_engine_and_resolved(self):
        webhook = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Notifications)
        threading.Thread(target=webhook.serve_forever, daemon=True).start()
        self.addCleanup(webhook.server_close)
        self.addCleanup(webhook.shutdown)
        stopped, stoppedPort = self.start([OVENGINE, "--port", "0"], "ovengine")
        _, runningPort = self.start([OVENGINE, "--port", "0"], "ovengine")
        _, exporterPort = self.start([EXPORTER, "--web.listen-address=127.0.0.1:0"],
                                     "vigilo-exporter")
        down, up = "127.0.0.1:" + stoppedPort, "127.0.0.1:" + runningPort

        alertmanagerPort, prometheusPort = free_port(), free_port()
        self.start([ALERTMANAGER, "--cluster.listen-address=",
                    "--web.listen-address=127.0.0.1:%d" % alertmanagerPort,
                    "--storage.path=" + os.path.join(self.directory, "am"),
                    "--config.file=" + self.write("alertmanager.yml", """
route: {receiver: test, group_by: [alertname, instance], group_wait: 1s, group_interval: 1s,
        repeat_interval: 1h}
receivers:
  - name: test
    webhook_configs: [{url: 'http://127.0.0.1:%d/', send_resolved: true}]
""" % webhook.server_address[1])])
        with open(RULES) as shipped:
            rules = re.sub(r"for: \d+m", "for: 2s", shipped.read())
        self.start([PROMETHEUS, "--web.listen-address=127.0.0.1:%d" % prometheusPort,
                    "--storage.tsdb.path=" + os.path.join(self.directory, "tsdb"),
                    "--config.file=" + self.write("prometheus.yml", """
global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}
rule_files: [%s]
alerting: {alertmanagers: [{static_configs: [{targets: ['127.0.0.1:%d']}]}]}
scrape_configs:
  - job_name: orvex
    metrics_path: /probe
    static_configs: [{targets: ['%s', '%s']}]
    relabel_configs:
      - {source_labels: [__address__], target_label: __param_target}
      - {source_labels: [__param_target], target_label: instance}
      - {target_label: __address__, replacement: '127.0.0.1:%s'}
""" % (self.write("rules.yml", rules), alertmanagerPort, down, up, exporterPort))])

        def value(query, instance):
            try:
                answer = json.loads(urllib.request.urlopen(
                    "http://127.0.0.1:%d/api/v1/query?query=%s"
                    % (prometheusPort, urllib.parse.quote(query)), timeout=5).read())
            except OSError:
                return None
            return {s["metric"].get("instance"): s["value"][1]
                    for s in answer["data"]["result"]}.get(instance)

        self.until(lambda: value("orvex_up", down) == "1" and value("orvex_up", up) == "1",
                   "Prometheus never saw both engines up")
        stopped.terminate()
        self.until(lambda: ("firing", "EngineDown", down) in Notifications.received,
                   "EngineDown was not delivered: %s" % Notifications.received)
        self.start([OVENGINE, "--port", stoppedPort], "ovengine")
        self.until(lambda: ("resolved", "EngineDown", down) in Notifications.received,
                   "EngineDown was not resolved: %s" % Notifications.received)
        self.assertEqual([n for n in Notifications.received if n[1] == "EngineDown"],
                         [("firing", "EngineDown", down), ("resolved", "EngineDown", down)])


if __name__ == "__main__":
    unittest.main()
