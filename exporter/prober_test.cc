// Probes, their name lookups and descriptors, against scripted engines on loopback.
#include "prober.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <map>
#include <regex>

#include "bounded_server.h"
#include "name_lookup.h"
#include "testing/eventually.h"

namespace exporter {
namespace {

using namespace std::chrono_literals;

using vigilo::test_support::eventually;
using vigilo::test_support::slower;

// An engine on loopback that answers every status request.
struct engine {
  engine() {
    server.route("GET", "/status", [this](const ovhttp::request&, ovhttp::response& res) {
      ++requests;
      res.body = R"({"status": [["numProcessed", "42"]]})";
    });
    std::string why;
    port = static_cast<unsigned short>(server.bindTo("127.0.0.1", 0, why));
    serving = std::thread([this] { server.serve(); });
  }
  ~engine() {
    server.shutdown();
    serving.join();
  }
  ovhttp::bounded_server server;
  std::atomic<int> requests{0};
  unsigned short port = 0;
  std::thread serving;
};

// A socket of `type` on a free port of 127.0.0.1. A datagram socket's port refuses connections;
// a stream socket listens, an engine that takes connections (the kernel completes them) and never
// answers.
struct loopback_socket {
  explicit loopback_socket(int type) : fd(socket(AF_INET, type, 0)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    if (type == SOCK_STREAM) listen(fd, 8);
  }
  ~loopback_socket() { close(fd); }
  // Whether a probe's connection has arrived, within a few seconds.
  bool connected() const {
    pollfd arrival{fd, POLLIN, 0};
    return poll(&arrival, 1, 5000 * slower) == 1;
  }
  int fd;
  unsigned short port = 0;
};

// A probe's text of an engine that did not answer, up to its duration, which varies.
const std::string downText =
    "# HELP orvex_up Whether the engine answered the probe.\n# TYPE orvex_up gauge\norvex_up 0\n"
    "# HELP orvex_probe_duration_seconds How long the probe took.\n"
    "# TYPE orvex_probe_duration_seconds gauge\n";

std::string withoutDuration(const prober::answer& a) {
  return a.status != 200 ? std::to_string(a.status) + " " + a.body
                         : a.body.substr(0, a.body.rfind("orvex_probe_duration_seconds "));
}

std::size_t entries(const char* directory) {
  const std::filesystem::directory_iterator it(directory);
  return static_cast<std::size_t>(std::distance(begin(it), end(it)));
}

target at(const std::string& host, unsigned short port) { return {host, port}; }

struct ProberTest : ::testing::Test {
  connection_pool pool{64, 8, 60s};
  name_lookup names;
  target_rules loopback;
  prober probes{pool, names, loopback, 1};
};

// One connection serves the probes of a target found by name; where "::1" refuses (the engine
// listens on 127.0.0.1 only) the next address is tried. The debug answer lists the steps. A name
// whose addresses the rules refuse is refused.
TEST_F(ProberTest, KeepsOneConnectionAcrossProbes) {
  engine answering;
  const target localhost = at("localhost", answering.port);
  for (int i = 0; i < 2; ++i) {
    const prober::answer a = probes.probe(localhost, 2s * slower, false);
    EXPECT_NE(a.body.find("\norvex_events_processed_total 42\n"), std::string::npos) << a.body;
    EXPECT_NE(a.body.find("\norvex_up 1\n"), std::string::npos);
  }
  const std::string debug = probes.probe(localhost, 2s * slower, true).body;
  EXPECT_EQ(
      std::regex_replace(debug.substr(0, debug.find("# HELP")), std::regex("\\d+\\.\\d{3}"), "T"),
      "probe of localhost:" + std::to_string(answering.port) +
          " within T s\n"
          "connect  at T s, took T s: kept connection\n"
          "request  at T s, took T s: answered\n"
          "read     at T s, took T s: 0 texts that should hold numbers do not\n"
          "up\n\nmetrics of the probe:\n");
  EXPECT_EQ(answering.server.openConnections(), 1u);
  EXPECT_EQ(answering.requests, 3);
  EXPECT_EQ(probes.figures().successes, 3u);
  EXPECT_EQ(probes.figures().engineConnections, 1u);

  target_rules elsewhere;
  elsewhere.add("10.0.0.0/8");
  prober refusing(pool, names, elsewhere, 1);
  EXPECT_EQ(withoutDuration(refusing.probe(at("localhost", 9), 2s, false)),
            "403 target localhost:9 is not allowed");
}

// A name server that never answers: lookups count among the probes at once, every one ends at its
// probe's deadline with the engine down, the cause is logged once a minute, and no thread or
// socket is left behind.
TEST_F(ProberTest, ALookupThatIsNotAnsweredEndsAtTheDeadline) {
  const loopback_socket server(SOCK_DGRAM);
  const name_lookup silent("127.0.0.1:" + std::to_string(server.port));
  prober many(pool, silent, loopback, 16);
  const std::size_t threads = entries("/proc/self/task");
  const std::size_t files = entries("/proc/self/fd");
  testing::internal::CaptureStderr();
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::future<prober::answer>> answers;
  for (int i = 0; i < 17; ++i) {
    answers.push_back(std::async(std::launch::async, [&] {
      return many.probe(at("engine.example", 15903), 1s * slower, true);
    }));
  }
  std::map<std::string, int> outcomes;
  for (auto& a : answers) {
    const prober::answer answer = a.get();
    const bool down =
        answer.body.find("failed: no address: no answer in time\ndown:") != std::string::npos &&
        answer.body.find("\norvex_up 0\n") != std::string::npos;
    ++outcomes[down ? "down" : withoutDuration(answer)];
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s * slower);
  EXPECT_EQ(outcomes,
            (std::map<std::string, int>{{"down", 16}, {"503 too many probes at once", 1}}));
  EXPECT_EQ(many.figures().refusedBusy, 1u);
  EXPECT_EQ(entries("/proc/self/task"), threads);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(entries("/proc/self/fd"), files);
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
  EXPECT_NE(
      log.find(" WARN  probe of engine.example:15903 failed: no address: no answer in time\n"),
      std::string::npos)
      << log;
}

// Probes in flight take descriptors from idle connections, longest idle first; a probe that finds
// none left is refused, and never reads as an engine that is down. A probe of an engine that does
// not answer ends within its time, the engine down, and its connection is not kept.
TEST_F(ProberTest, ProbesTakeDescriptorsFromIdleConnections) {
  engine a, b;
  loopback_socket silent(SOCK_STREAM);
  connection_pool three(3, 8, 60s);
  prober probes(three, names, loopback, 4);
  const auto up = [&](const engine& e) {
    const std::string text = probes.probe(at("127.0.0.1", e.port), 2s * slower, false).body;
    return text.find("\norvex_up 1\n") != std::string::npos;
  };
  EXPECT_TRUE(up(a));
  EXPECT_TRUE(up(b));  // two descriptors for the probe and one for a's idle connection
  EXPECT_EQ(three.idleConnections(), 2u);
  const auto start = std::chrono::steady_clock::now();
  auto waiting = std::async(std::launch::async, [&] {
    return probes.probe(at("127.0.0.1", silent.port), 1s * slower, false);
  });
  ASSERT_TRUE(silent.connected());
  EXPECT_EQ(three.idleConnections(), 1u);  // a's connection closed
  EXPECT_EQ(withoutDuration(probes.probe(at("127.0.0.1", a.port), 2s, false)),
            "503 no file descriptor left for a probe");
  EXPECT_EQ(three.idleConnections(), 0u);
  EXPECT_EQ(withoutDuration(waiting.get()), downText);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s * slower);
  EXPECT_EQ(three.idleConnections(), 0u);
  EXPECT_TRUE(up(a));
  EXPECT_EQ(probes.figures().refusedDescriptors, 1u);
  EXPECT_EQ(probes.figures().failures, 1u);
}

// Beyond the idle connections it keeps, the pool closes the longest idle; a second one to the same
// target is closed; an idle connection expires.
TEST_F(ProberTest, PoolBoundsAndExpiresIdleConnections) {
  connection_pool pool(64, 2, 200ms);
  const auto kept = [] {
    return std::make_unique<com::orvex::client::engine_connection>(
        "a:1", std::vector<ovnet::address>{}, com::orvex::client::connection_limits{}, "test");
  };
  for (const char* target : {"a", "a", "b", "c"}) {
    ASSERT_TRUE(pool.startProbe());
    pool.endProbe(target, kept());
  }
  EXPECT_EQ(pool.idleConnections(), 2u);
  EXPECT_EQ(pool.take("a"), nullptr);
  EXPECT_NE(pool.take("c"), nullptr);
  EXPECT_TRUE(eventually([&] { return pool.idleConnections() == 0; }));
}

}  // namespace
}  // namespace exporter
