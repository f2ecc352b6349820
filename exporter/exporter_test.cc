// The real vigilo-exporter process against real ovengine processes and scripted engines on
// loopback, its expositions checked by promtool. (packaging/prometheus/fleet_test.py runs it
// under a real Prometheus.)
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "exporter_options.h"
#include "testing/fake_engine.h"
#include "testing/process.h"
#include "testing/raw_http.h"

namespace {

using namespace std::chrono_literals;
using namespace vigilo::test_support;

// The exporter on a free loopback port, started by `wrapper` (such as valgrind) when one is given.
struct running_exporter : server_process {
  explicit running_exporter(std::vector<std::string> wrapper = {},
                            const std::vector<std::string>& options = {})
      : server_process(
            [&] {
              wrapper.insert(wrapper.end(), {EXPORTER_BINARY, "--web.listen-address=127.0.0.1:0"});
              wrapper.insert(wrapper.end(), options.begin(), options.end());
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

// Started with a soft open-file limit below its hard one, the exporter raises it, and shares the
// descriptors out: 2048, less 64 of its own, a quarter of the rest for its clients and 256 for
// the probes in flight. (Valgrind keeps the limit as it finds it.)
// A stop ends it within a second, with probes in flight that would take five.
TEST_P(ExporterTest, AnswersProbesAndRefusesWithAReason) {
  engine_process engine(OVENGINE_BINARY);
  std::vector<std::string> wrapper = GetParam();
  if (wrapper.empty()) wrapper = {"/usr/bin/prlimit", "--nofile=256:2048", "--"};
  running_exporter exporter(wrapper, {"--probe.timeout=5s"});
  exporter.client.set_read_timeout(60);
  const std::string target = "127.0.0.1:" + std::to_string(engine.port());
  const std::pair<std::string, std::string> refusals[] = {
      {"/probe", "400 no target: ask /probe?target=HOST:PORT\n"},
      {"/probe?target=engine", "400 bad target engine: expected HOST:PORT\n"},
      {"/probe?target=127.0.0.1%00junk%1b:1",
       "400 bad target 127.0.0.1\\x00junk\\x1b:1: expected HOST:PORT\n"},
      {"/probe?target=" + target + "&debug=yes", "400 bad debug yes: expected true or false\n"},
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

  fake_engine silent([](const std::string& path, int) {
    return path == "/ping" ? httpReply(200, "OK", "pong") : fake_reply{"", false, true};
  });
  std::vector<int> waiting;
  for (int i = 0; i < 5; ++i) {
    waiting.push_back(connectTo(exporter.port()));
    const std::string ask =
        request("GET", "/probe?target=127.0.0.1:" + std::to_string(silent.port()), "");
    (void)!send(waiting.back(), ask.data(), ask.size(), MSG_NOSIGNAL);
  }
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (silent.requestsSeen() < 10 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);  // five of /ping and /status each
  }
  ASSERT_EQ(silent.requestsSeen(), 10);
  const auto started = std::chrono::steady_clock::now();
  exporter.signal(SIGTERM);
  const auto stopped = exporter.finish(120s);
  if (GetParam().empty()) {
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
  }
  for (const int fd : waiting) close(fd);
  EXPECT_EQ(stopped.status, 0);
  const std::string listening =
      "vigilo-exporter listening on 127.0.0.1:" + std::to_string(exporter.port()) + "\n";
  EXPECT_EQ(stopped.out, listening +
                             (GetParam().empty()
                                  ? "vigilo-exporter keeps up to 1232 idle connections to engines "
                                    "(open file limit 2048)\n"
                                  : stopped.out.substr(listening.size(),
                                                       stopped.out.find('\n', listening.size()) +
                                                           1 - listening.size())) +
                             "vigilo-exporter stopped\n");
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

#ifndef VIGILO_SANITIZED
// A figure of /proc/PID/status, in kB.
long statusField(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(field + ":")) return std::stol(line.substr(field.size() + 1));
  }
  return -1;
}

// Eight engines answer 8 MiB at once, then little: the exporter's peak stays within four times
// the answers in flight, and afterwards its kept connections hold 100 KiB each at most.
TEST(ExporterMemoryTest, LargeAnswersAreNotKept) {
  const int n = 8;
  const std::string large =
      statusReply({{"numProcessed", "1"}, {"user-big", std::string(8 << 20, 'x')}}).bytes;
  std::vector<std::unique_ptr<fake_engine>> engines;
  for (int i = 0; i < n; ++i) {
    engines.push_back(std::make_unique<fake_engine>([&](const std::string& path, int request) {
      return path == "/ping" ? httpReply(200, "OK", "pong")
             : request == 1  ? fake_reply{large}
                             : statusReply({});
    }));
  }
  running_exporter exporter;
  const long start = statusField(exporter.pid(), "VmRSS");
  std::vector<std::thread> scrapers;
  std::atomic<int> up{0};
  for (int i = 0; i < n; ++i) {
    scrapers.emplace_back([&, i] {
      httplib::Client client("127.0.0.1", exporter.port());
      client.set_read_timeout(60);
      const auto res = client.Get("/probe?target=127.0.0.1:" + std::to_string(engines[i]->port()));
      up += res && res->body.find("\norvex_up 1\n") != std::string::npos;
    });
  }
  for (std::thread& scraper : scrapers) scraper.join();
  EXPECT_EQ(up, n);
  EXPECT_LE(statusField(exporter.pid(), "VmHWM") - start, n * 4 * 8 * 1024);
  EXPECT_LE(statusField(exporter.pid(), "VmRSS") - start, n * 100 + 4 * 1024);
}
#endif

}  // namespace
