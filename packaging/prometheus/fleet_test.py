"""A fleet as docs/fleet.md sets it up, every part real: two ovengines under different loads and a
target the exporter must refuse, scraped through vigilo-exporter by Prometheus, which loads the
shipped rules (their durations shortened in a copy) and sends to Alertmanager, whose webhook
receiver is this test. What the rules decide is promtool's test (vigilo-rules_test.yml); here,
that the pieces work together."""

import http.server
import json
import os
import re
import shutil
import subprocess
import threading
import urllib.parse
import urllib.request

import pytest

from testing.programs import Process, eventually, free_port

RULES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo-rules.yml")
PROMETHEUS = shutil.which("prometheus")
ALERTMANAGER = shutil.which("prometheus-alertmanager")
ALERTMANAGER_YML = """
route: {receiver: test, group_by: [alertname, instance], group_wait: 1s, group_interval: 1s}
receivers: [{name: test, webhook_configs: [{url: 'http://127.0.0.1:%d/'}]}]
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


class Webhook(http.server.BaseHTTPRequestHandler):
    """Alertmanager's receiver: every alert it sends, as (status, alertname, instance)."""
    received = []

    def do_POST(self):
        for alert in json.loads(self.rfile.read(int(self.headers["Content-Length"])))["alerts"]:
            labels = alert["labels"]
            self.received.append((alert["status"], labels["alertname"], labels.get("instance")))
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


@pytest.mark.skipif(PROMETHEUS is None or ALERTMANAGER is None,
                    reason="prometheus or prometheus-alertmanager is not installed")
def test_rates_refusals_and_an_alert(engine, exporter, launch, tmp_path):
    webhook = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Webhook)
    threading.Thread(target=webhook.serve_forever, daemon=True).start()
    slow, fast = engine("--load", "200"), engine("--load", "2000")
    down, up = "127.0.0.1:%d" % slow.port, "127.0.0.1:%d" % fast.port
    refused = "192.0.2.1:15903"
    alertmanager, prometheus = free_port(), free_port()
    (tmp_path / "am.yml").write_text(ALERTMANAGER_YML % webhook.server_address[1])
    launch(Process, [ALERTMANAGER, "--cluster.listen-address=",
                     "--web.listen-address=127.0.0.1:%d" % alertmanager,
                     "--storage.path=%s" % (tmp_path / "am"),
                     "--config.file=%s" % (tmp_path / "am.yml")], stderr=subprocess.DEVNULL)
    with open(RULES) as shipped:
        (tmp_path / "rules.yml").write_text(re.sub(r"for: \d+m", "for: 2s", shipped.read()))
    (tmp_path / "prometheus.yml").write_text(PROMETHEUS_YML % (
        tmp_path / "rules.yml", alertmanager, [down, up, refused], exporter().port))
    launch(Process, [PROMETHEUS, "--web.listen-address=127.0.0.1:%d" % prometheus,
                     "--storage.tsdb.path=%s" % (tmp_path / "tsdb"),
                     "--config.file=%s" % (tmp_path / "prometheus.yml")],
           stderr=subprocess.DEVNULL)
    api = "http://127.0.0.1:%d/api/v1/" % prometheus

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
        eventually(lambda: (value("count_over_time(orvex_up[1m])", target) or 0) >= 6,
                   "too few scrapes of " + target, timeout=90, every=0.2)
    for target, load in ((down, 200), (up, 2000)):
        assert abs(value("rate(orvex_events_processed_total[5s])", target) - load) < load * 0.15
    targets = urllib.request.urlopen(api + "targets", timeout=5).read().decode()
    assert '"lastError":"server returned HTTP status 403 Forbidden"' in targets

    # One engine stops: EngineDown reaches the receiver, for it alone.
    slow.stop()
    eventually(lambda: ("firing", "EngineDown", down) in Webhook.received,
               "EngineDown was not delivered: %s" % Webhook.received, timeout=90, every=0.2)
    assert [n for n in Webhook.received if n[1] == "EngineDown"] == [("firing", "EngineDown", down)]
    webhook.shutdown()
