#!/usr/bin/python3
"""A fleet as docs/fleet.md sets it up, every part real: two ovengines under different loads and a
target the exporter must refuse, scraped through vigilo-exporter by Prometheus, which loads the
shipped rules (their durations shortened in a copy) and sends to Alertmanager, whose webhook
receiver is this test."""

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
ALERTMANAGER_YML = """
route: {receiver: test, group_by: [alertname, instance], group_wait: 1s, group_interval: 1s}
receivers: [{name: test, webhook_configs: [{url: 'http://127.0.0.1:%d/', send_resolved: true}]}]
"""
PROMETHEUS_YML = """
global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}
rule_files: [%s]
alerting: {alertmanagers: [{static_configs: [{targets: ['127.0.0.1:%d']}]}]}
scrape_configs:
  - job_name: orvex
    metrics_path: /probe
    static_configs: [{targets: %s}]
    relabel_configs:
      - {source_labels: [__address__], target_label: __param_target}
      - {source_labels: [__param_target], target_label: instance}
      - {target_label: __address__, replacement: '127.0.0.1:%s'}
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Notifications(http.server.BaseHTTPRequestHandler):
    """Alertmanager's webhook: every alert it sends, as (status, alertname, instance)."""
    received = []

    def do_POST(self):
        for alert in json.loads(self.rfile.read(int(self.headers["Content-Length"])))["alerts"]:
            labels = alert["labels"]
            self.received.append((alert["status"], labels["alertname"], labels.get("instance")))
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


class FleetTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def start(self, argv, name=None):
        """A server; with `name`, the port it names in its "NAME listening on HOST:PORT"."""
        process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        if name is None:
            return process, None
        line = process.stdout.readline()
        self.assertTrue(line.startswith(name + " listening on "), line)
        return process, line.rsplit(":", 1)[1].strip()

    def file(self, name, text):
        path = os.path.join(self.directory, name)
        with open(path, "w") as out:
            out.write(text)
        return path

    def until(self, done, what):
        deadline = time.monotonic() + 90
        while not done():
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.2)

    def test_rates_refusals_and_an_alert_that_resolves(self):
        webhook = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Notifications)
        threading.Thread(target=webhook.serve_forever, daemon=True).start()
        self.addCleanup(webhook.server_close)
        self.addCleanup(webhook.shutdown)
        slow, slowPort = self.start([OVENGINE, "--port", "0", "--load", "200"], "ovengine")
        _, fastPort = self.start([OVENGINE, "--port", "0", "--load", "2000"], "ovengine")
        _, exporterPort = self.start([EXPORTER, "--web.listen-address=127.0.0.1:0"],
                                     "vigilo-exporter")
        down, up, refused = "127.0.0.1:" + slowPort, "127.0.0.1:" + fastPort, "192.0.2.1:15903"
        alertmanagerPort, prometheusPort = free_port(), free_port()
        self.start([ALERTMANAGER, "--cluster.listen-address=",
                    "--web.listen-address=127.0.0.1:%d" % alertmanagerPort,
                    "--storage.path=" + os.path.join(self.directory, "am"),
                    "--config.file=" + self.file("am.yml",
                                                 ALERTMANAGER_YML % webhook.server_address[1])])
        with open(RULES) as shipped:
            rules = self.file("rules.yml", re.sub(r"for: \d+m", "for: 2s", shipped.read()))
        self.start([PROMETHEUS, "--web.listen-address=127.0.0.1:%d" % prometheusPort,
                    "--storage.tsdb.path=" + os.path.join(self.directory, "tsdb"),
                    "--config.file=" + self.file("prometheus.yml", PROMETHEUS_YML % (
                        rules, alertmanagerPort, [down, up, refused], exporterPort))])
        api = "http://127.0.0.1:%d/api/v1/" % prometheusPort

        def value(query, instance):
            try:
                answer = json.loads(urllib.request.urlopen(
                    api + "query?query=" + urllib.parse.quote(query), timeout=5).read())
            except OSError:
                return None
            found = [s["value"][1] for s in answer["data"]["result"]
                     if s["metric"].get("instance") == instance]
            return float(found[0]) if found else None

        # Six scrapes of each engine, then their rates; the refused target in Prometheus's words.
        for target in (down, up):
            self.until(lambda: (value("count_over_time(orvex_up[1m])", target) or 0) >= 6,
                       "too few scrapes of " + target)
        for target, load in ((down, 200), (up, 2000)):
            rate = value("rate(orvex_events_processed_total[5s])", target)
            self.assertLess(abs(rate - load), load * 0.15, target)
        targets = urllib.request.urlopen(api + "targets", timeout=5).read().decode()
        self.assertIn('"lastError":"server returned HTTP status 403 Forbidden"', targets)

        # One engine stops: EngineDown for it alone, until it is back.
        slow.terminate()
        self.until(lambda: ("firing", "EngineDown", down) in Notifications.received,
                   "EngineDown was not delivered: %s" % Notifications.received)
        self.start([OVENGINE, "--port", slowPort], "ovengine")
        self.until(lambda: ("resolved", "EngineDown", down) in Notifications.received,
                   "EngineDown was not resolved: %s" % Notifications.received)
        self.assertEqual([n for n in Notifications.received if n[1] == "EngineDown"],
                         [("firing", "EngineDown", down), ("resolved", "EngineDown", down)])


if __name__ == "__main__":
    unittest.main()
