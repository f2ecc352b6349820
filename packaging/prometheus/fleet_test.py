"""A fleet as docs/fleet.md sets it up, every part real: two ovengines under different loads and a
target the exporter must refuse, scraped through vigilo-exporter by Prometheus, which loads the
shipped rules (their durations shortened in a copy). What the rules decide is promtool's test
(vigilo-rules_test.yml); here, that the pieces work together. (Delivering alerts is Alertmanager's
business, none of this project's.)"""

import json
import os
import re
import shutil
import subprocess
import urllib.parse

import pytest

from testing.programs import Process, eventually, free_port, http_get

RULES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vigilo-rules.yml")
PROMETHEUS = shutil.which("prometheus")
PROMETHEUS_YML = """
global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}
rule_files: [%s]
scrape_configs:
  - job_name: orvex
    metrics_path: /probe
    static_configs: [{targets: %s}]
    relabel_configs:
      - {source_labels: [__address__], target_label: __param_target}
      - {source_labels: [__param_target], target_label: instance}
      - {target_label: __address__, replacement: '127.0.0.1:%s'}
"""


@pytest.mark.skipif(PROMETHEUS is None, reason="prometheus is not installed")
def test_rates_refusals_and_an_alert(engine, exporter, launch, tmp_path):
    slow, fast = engine("--load", "200"), engine("--load", "2000")
    down, up = "127.0.0.1:%d" % slow.port, "127.0.0.1:%d" % fast.port
    refused = "192.0.2.1:15903"
    prometheus = free_port()
    with open(RULES) as shipped:
        (tmp_path / "rules.yml").write_text(re.sub(r"for: \d+m", "for: 2s", shipped.read()))
    (tmp_path / "prometheus.yml").write_text(PROMETHEUS_YML % (
        tmp_path / "rules.yml", [down, up, refused], exporter().port))
    launch(Process, [PROMETHEUS, "--web.listen-address=127.0.0.1:%d" % prometheus,
                     "--storage.tsdb.path=%s" % (tmp_path / "tsdb"),
                     "--config.file=%s" % (tmp_path / "prometheus.yml")],
           stderr=subprocess.DEVNULL)

    def value(query, instance):
        try:
            answer = json.loads(http_get(prometheus, "/api/v1/query?query="
                                         + urllib.parse.quote(query))[2])
        except (OSError, ValueError):
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
    targets = http_get(prometheus, "/api/v1/targets")[2]
    assert '"lastError":"server returned HTTP status 403 Forbidden"' in targets

    # One engine stops: EngineDown fires, for it alone.
    slow.stop()
    firing = 'ALERTS{alertname="EngineDown", alertstate="firing"}'
    eventually(lambda: value(firing, down) == 1, "EngineDown did not fire", timeout=90, every=0.2)
    assert value(firing, up) is None
