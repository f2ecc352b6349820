// The real vigilo-exporter process against real ovengine processes on loopback, checked by
// Prometheus's own tools: promtool for the exposition, the Prometheus server for a whole scrape.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "exporter_options.h"
#include "testing/process.h"

namespace {

using namespace std::chrono_literals;
using vigilo::test_support::engine_process;
using vigilo::test_support::runProcess;
using vigilo::test_support::server_process;

// The exporter on a free loopback port, started by `wrapper` (such as valgrind) when one is given.
struct running_exporter : server_process {
  explicit running_exporter(std::vector<std::string> wrapper = {})
      : server_process(
            [&] {
              wrapper.insert(wrapper.end(), {EXPORTER_BINARY, "--web.listen-address=127.0.0.1:0"});
              return wrapper;
            }(),
            "vigilo-exporter", 120s),
        client("127.0.0.1", port()) {}
  httplib::Client client;
};

// promtool's verdict on an exposition: "0" and nothing else when the text is clean.
std::string promtoolCheck(const std::string& exposition) {
  const auto r = runProcess(
      {"/bin/sh", "-c", "printf %s \"$1\" | " PROMTOOL_BINARY " check metrics", "sh", exposition});
  return std::to_string(r.status) + r.out + r.err;
}

// Runs the exporter as it is, and under valgrind where the build has it.
std::vector<std::vector<std::string>> wrappers() {
  return {{},
#ifdef VIGILO_VALGRIND
          vigilo::test_support::underValgrind(VIGILO_VALGRIND, {})
#endif
  };
}

class ExporterTest : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(ExporterTest, AnswersProbesAndRefusesWithAReason) {
  engine_process engine(OVENGINE_BINARY);
  running_exporter exporter(GetParam());
  exporter.client.set_read_timeout(60);
  const std::string target = "127.0.0.1:" + std::to_string(engine.port());
  const std::pair<std::string, std::string> refusals[] = {
      {"/probe", "400 no target: ask /probe?target=HOST:PORT\n"},
      {"/probe?target=engine", "400 bad target engine: expected HOST:PORT\n"},
      {"/probe?target=10.0.0.1:15903", "403 target 10.0.0.1:15903 is not allowed\n"},
      {"/nope", "404 no such resource /nope\n"},
  };
  for (const auto& [path, answer] : refusals) {
    const auto res = exporter.client.Get(path);
    ASSERT_TRUE(res) << path;
    EXPECT_EQ(std::to_string(res->status) + " " + res->body, answer);
  }
  EXPECT_EQ(exporter.client.Post("/probe?target=" + target, "", "text/plain")->status, 405);

  const auto probe = exporter.client.Get("/probe?target=" + target);
  EXPECT_EQ(probe->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_NE(probe->body.find("\norvex_up 1\n"), std::string::npos) << probe->body;
  EXPECT_EQ(promtoolCheck(probe->body), "0");
  const auto metrics = exporter.client.Get("/metrics");
  EXPECT_NE(metrics->body.find("\nvigilo_exporter_probes_total{result=\"success\"} 1\n"
                               "vigilo_exporter_probes_total{result=\"failure\"} 0\n"),
            std::string::npos)
      << metrics->body;
  EXPECT_EQ(promtoolCheck(metrics->body), "0");

  const auto started = std::chrono::steady_clock::now();
  exporter.signal(SIGTERM);
  const auto stopped = exporter.finish(120s);
  if (GetParam().empty()) {
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
  }
  EXPECT_EQ(stopped.status, 0);
  EXPECT_EQ(stopped.out, "vigilo-exporter listening on 127.0.0.1:" +
                             std::to_string(exporter.port()) + "\nvigilo-exporter stopped\n");
  EXPECT_EQ(stopped.err, "");
}

INSTANTIATE_TEST_SUITE_P(Run, ExporterTest, ::testing::ValuesIn(wrappers()), [](const auto& info) {
  return info.param.empty() ? "as_is" : "valgrind";
});

TEST(ExporterCommandLineTest, RefusesABadOne) {
  const auto result = runProcess({EXPORTER_BINARY, "--probe.timeout", "0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out + result.err, std::string("vigilo-exporter: bad value for "
                                                 "--probe.timeout: 0\n\n") +
                                         exporter::exporterUsage);
}

// One answer of Prometheus's query API: the value of the series whose instance is `instance`,
// or -1 when there is none yet.
double queryValue(unsigned short prometheusPort, const std::string& query,
                  const std::string& instance) {
  httplib::Client prometheus("127.0.0.1", prometheusPort);
  prometheus.set_read_timeout(5);
  const auto res =
      prometheus.Get("/api/v1/query", httplib::Params{{"query", query}}, httplib::Headers{});
  if (!res || res->status != 200) return -1;
  const auto answer = nlohmann::json::parse(res->body);
  for (const auto& series : answer.at("data").at("result")) {
    if (series.at("metric").value("instance", "") == instance) {
      const std::string value = series.at("value").at(1);
      return std::stod(value);
    }
  }
  return -1;
}

// Waits, a bounded time, until `done` holds; polls Prometheus, which has no way to say "now".
template <typename Condition>
bool eventually(Condition done, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(200ms);
  }
  return true;
}

// A Prometheus server scrapes two engines under different loads through one exporter, as
// docs/fleet.md sets it up, plus a target that the exporter must refuse.
TEST(ExporterPrometheusTest, ScrapesAFleetThroughTheExporter) {
  engine_process slow(OVENGINE_BINARY, {"--load", "200"});
  engine_process fast(OVENGINE_BINARY, {"--load", "2000"});
  running_exporter exporter;
  const std::string slowTarget = "127.0.0.1:" + std::to_string(slow.port());
  const std::string fastTarget = "127.0.0.1:" + std::to_string(fast.port());
  const std::string refused = "192.0.2.1:15903";

  char directory[] = "/tmp/exporter_prometheus_XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string config = std::string(directory) + "/prometheus.yml";
  std::ofstream(config) << R"(global: {scrape_interval: 1s, scrape_timeout: 1s}
scrape_configs:
  - job_name: orvex
    metrics_path: /probe
    static_configs: [{targets: [')"
                        << slowTarget << "', '" << fastTarget << "', '" << refused << R"(']}]
    relabel_configs:
      - {source_labels: [__address__], target_label: __param_target}
      - {source_labels: [__param_target], target_label: instance}
      - {target_label: __address__, replacement: '127.0.0.1:)"
                        << exporter.port() << "'}\n";
  const unsigned short prometheusPort = vigilo::test_support::closedLoopbackPort();
  vigilo::test_support::child_process prometheus(
      {PROMETHEUS_BINARY, "--config.file=" + config,
       "--storage.tsdb.path=" + std::string(directory) + "/data",
       "--web.listen-address=127.0.0.1:" + std::to_string(prometheusPort)});

  // Six scrapes of each engine before the rates are read.
  for (const std::string& target : {slowTarget, fastTarget}) {
    ASSERT_TRUE(eventually(
        [&] { return queryValue(prometheusPort, "count_over_time(orvex_up[1m])", target) >= 6; },
        60s))
        << target << "\n"
        << prometheus.finish(5s).err;
  }
  const std::pair<std::string, double> loads[] = {{slowTarget, 200}, {fastTarget, 2000}};
  for (const auto& [target, load] : loads) {
    const double rate =
        queryValue(prometheusPort, "rate(orvex_events_processed_total[5s])", target);
    EXPECT_NEAR(rate, load, load * 0.15) << target;
  }

  slow.signal(SIGTERM);
  EXPECT_TRUE(
      eventually([&] { return queryValue(prometheusPort, "orvex_up", slowTarget) == 0; }, 20s));
  EXPECT_EQ(queryValue(prometheusPort, "orvex_up", fastTarget), 1);

  // Prometheus's own words for a refused scrape.
  const auto targets = httplib::Client("127.0.0.1", prometheusPort).Get("/api/v1/targets");
  EXPECT_NE(targets->body.find("\"" + refused + "\",\"job\":\"orvex\"},\"scrapePool\""),
            std::string::npos);
  EXPECT_NE(targets->body.find("\"lastError\":\"server returned HTTP status 403 Forbidden\""),
            std::string::npos);

  prometheus.signal(SIGTERM);
  prometheus.finish(20s);
  runProcess({"/bin/rm", "-rf", directory});
}

}  // namespace
