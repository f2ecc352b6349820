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

// promtool's verdict on an exposition: its output, empty when the text is clean.
std::string promtoolCheck(const std::string& exposition) {
  char path[] = "/tmp/exporter_test_XXXXXX";
  const int fd = mkstemp(path);
  EXPECT_GE(fd, 0);
  close(fd);
  std::ofstream(path) << exposition;
  const auto result =
      runProcess({"/bin/sh", "-c", PROMTOOL_BINARY " check metrics < " + std::string(path)});
  std::remove(path);
  return result.status == 0 ? result.out + result.err
                            : "exit " + std::to_string(result.status) + ": " + result.err;
}

std::string withoutDuration(const std::string& text) {
  return text.substr(0, text.rfind("orvex_probe_duration_seconds "));
}

TEST(ExporterTest, AnswersProbesAndRefusesWithAReason) {
  engine_process engine(OVENGINE_BINARY);
  httplib::Client("127.0.0.1", engine.port())
      .Put("/status/user/quote", "say \"hi\" \\ there", "text/plain");
  running_exporter exporter;
  const std::string target = "127.0.0.1:" + std::to_string(engine.port());
  const std::string closed =
      "127.0.0.1:" + std::to_string(vigilo::test_support::closedLoopbackPort());

  struct request_case {
    std::string method, path;
    int status;
    std::string body;
  };
  const request_case cases[] = {
      {"GET", "/probe", 400, "no target: ask /probe?target=HOST:PORT\n"},
      {"GET", "/probe?target=engine", 400, "bad target engine: expected HOST:PORT\n"},
      {"GET", "/probe?target=10.0.0.1:15903", 403, "target 10.0.0.1:15903 is not allowed\n"},
      {"POST", "/probe?target=" + target, 405, "method POST not allowed on /probe\n"},
      {"GET", "/nope", 404, "no such resource /nope\n"},
      {"GET", "/" + std::string(9000, 'p'), 414, "request line exceeds 8192 bytes\n"},
      // An engine that does not answer is a probe's answer too, not an error of the exporter.
      {"GET", "/probe?target=" + closed, 200,
       "# HELP orvex_up Whether the engine answered the probe.\n"
       "# TYPE orvex_up gauge\n"
       "orvex_up 0\n"
       "# HELP orvex_probe_duration_seconds How long the probe took.\n"
       "# TYPE orvex_probe_duration_seconds gauge\n"},
  };
  for (const request_case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.path.substr(0, 60));
    const auto res = c.method == "GET" ? exporter.client.Get(c.path)
                                       : exporter.client.Post(c.path, "", "text/plain");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    EXPECT_EQ(c.status == 200 ? withoutDuration(res->body) : res->body, c.body);
  }

  const auto probe = exporter.client.Get("/probe?target=" + target);
  ASSERT_TRUE(probe);
  EXPECT_EQ(probe->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_NE(probe->body.find("\norvex_user_status_info{key=\"user-quote\",value=\"say \\\"hi\\\" "
                             "\\\\ there\"} 1\n"),
            std::string::npos)
      << probe->body;
  EXPECT_NE(probe->body.find("\norvex_up 1\n"), std::string::npos);
  EXPECT_EQ(promtoolCheck(probe->body), "");

  const auto metrics = exporter.client.Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_NE(metrics->body.find("\nvigilo_exporter_probes_total{result=\"success\"} 1\n"
                               "vigilo_exporter_probes_total{result=\"failure\"} 1\n"),
            std::string::npos)
      << metrics->body;
  EXPECT_EQ(promtoolCheck(metrics->body), "");

  const auto started = std::chrono::steady_clock::now();
  exporter.signal(SIGTERM);
  const auto stopped = exporter.finish(10s);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
  EXPECT_EQ(stopped.status, 0);
  EXPECT_EQ(stopped.out, "vigilo-exporter listening on 127.0.0.1:" +
                             std::to_string(exporter.port()) + "\nvigilo-exporter stopped\n");
}

TEST(ExporterTest, RefusesABadCommandLine) {
  const auto result = runProcess({EXPORTER_BINARY, "--probe.timeout", "0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, std::string("vigilo-exporter: bad value for --probe.timeout: 0\n\n") +
                            exporter::exporterUsage);
}

#ifdef VIGILO_VALGRIND
// Probes that succeed and fail, the exporter's own figures and a stop, without a memory error or
// a definite leak (valgrind's -q prints nothing when clean).
TEST(ExporterTest, CleanUnderValgrind) {
  engine_process engine(OVENGINE_BINARY, {"--user-status", "k=v"});
  running_exporter exporter({VIGILO_VALGRIND, "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite"});
  exporter.client.set_read_timeout(60);
  const std::string closed = std::to_string(vigilo::test_support::closedLoopbackPort());
  for (const std::string& path : {"/probe?target=127.0.0.1:" + std::to_string(engine.port()),
                                  "/probe?target=127.0.0.1:" + std::to_string(engine.port()),
                                  "/probe?target=127.0.0.1:" + closed, std::string("/metrics")}) {
    const auto res = exporter.client.Get(path);
    ASSERT_TRUE(res) << path;
    EXPECT_EQ(res->status, 200) << path;
  }
  exporter.signal(SIGTERM);
  const auto result = exporter.finish(120s);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}
#endif

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
TEST(ExporterTest, PrometheusScrapesAFleetThroughTheExporter) {
  engine_process slow(OVENGINE_BINARY, {"--load", "200"});
  engine_process fast(OVENGINE_BINARY, {"--load", "2000"});
  running_exporter exporter;
  const std::string slowTarget = "127.0.0.1:" + std::to_string(slow.port());
  const std::string fastTarget = "127.0.0.1:" + std::to_string(fast.port());
  const std::string refused = "192.0.2.1:15903";

  char directory[] = "/tmp/exporter_prometheus_XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string config = std::string(directory) + "/prometheus.yml";
  std::ofstream(config) << "global:\n"
                           "  scrape_interval: 1s\n"
                           "  scrape_timeout: 1s\n"
                           "scrape_configs:\n"
                           "  - job_name: orvex\n"
                           "    metrics_path: /probe\n"
                           "    static_configs:\n"
                           "      - targets: ['"
                        << slowTarget << "', '" << fastTarget << "', '" << refused
                        << "']\n"
                           "    relabel_configs:\n"
                           "      - source_labels: [__address__]\n"
                           "        target_label: __param_target\n"
                           "      - source_labels: [__param_target]\n"
                           "        target_label: instance\n"
                           "      - target_label: __address__\n"
                           "        replacement: 127.0.0.1:"
                        << exporter.port() << "\n";
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

  const auto targets = httplib::Client("127.0.0.1", prometheusPort).Get("/api/v1/targets");
  ASSERT_TRUE(targets);
  std::string lastError = "<no such target>";
  const auto answer = nlohmann::json::parse(targets->body);
  for (const auto& t : answer.at("data").at("activeTargets")) {
    if (t.at("labels").value("instance", "") == refused) lastError = t.value("lastError", "");
  }
  EXPECT_EQ(lastError, "server returned HTTP status 403 Forbidden");

  prometheus.signal(SIGTERM);
  prometheus.finish(20s);
  runProcess({"/bin/rm", "-rf", directory});
}

}  // namespace
