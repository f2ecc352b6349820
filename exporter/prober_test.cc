// Probes and kept connections against a scripted engine on loopback.
#include "prober.h"

#include <gtest/gtest.h>

#include <future>

#include "testing/fake_engine.h"
#include "testing/process.h"

namespace exporter {
namespace {

using namespace std::chrono_literals;
using namespace vigilo::test_support;

fake_reply engineAnswer(const std::string& path, int) {
  return path == "/ping" ? httpReply(200, "OK", "pong") : statusReply({{"numProcessed", "42"}});
}

// A probe's text of an engine that did not answer, up to its duration, which varies.
const std::string downText =
    "# HELP orvex_up Whether the engine answered the probe.\n# TYPE orvex_up gauge\norvex_up 0\n"
    "# HELP orvex_probe_duration_seconds How long the probe took.\n"
    "# TYPE orvex_probe_duration_seconds gauge\n";

std::string withoutDuration(const std::optional<std::string>& text) {
  return text ? text->substr(0, text->rfind("orvex_probe_duration_seconds ")) : "refused";
}

struct ProberTest : ::testing::Test {
  ProberTest() { com::orvex::engine::engineInit("prober_test"); }
  ~ProberTest() override { com::orvex::engine::engineShutdown(); }
  connection_pool pool{8, 60s};
  prober probes{pool, 1};
};

// One connection serves the probes of a target. Where "::1" refuses (the engine listens on
// 127.0.0.1 only, or the host has no ::1), the next address is tried.
TEST_F(ProberTest, KeepsOneConnectionAcrossProbes) {
  fake_engine engine(engineAnswer);
  for (int i = 0; i < 3; ++i) {
    const auto text = probes.probe({"localhost", engine.port()}, {"::1", "127.0.0.1"}, 2s);
    ASSERT_TRUE(text);
    EXPECT_NE(text->find("\norvex_events_processed_total 42\n"), std::string::npos);
    EXPECT_NE(text->find("\norvex_up 1\n"), std::string::npos);
  }
  // One /ping when the probe connects, one /status per probe.
  EXPECT_EQ(engine.connectionsAccepted(), 1);
  EXPECT_EQ(engine.requestsSeen(), 4);
  EXPECT_EQ(probes.figures().successes, 3u);
  EXPECT_EQ(probes.figures().engineConnections, 1u);
}

// A probe ends within its time and answers the engine down; meanwhile, beyond the number of
// probes at once, another is refused. A failed connection is not kept.
TEST_F(ProberTest, AnEngineThatDoesNotAnswerIsDownInTime) {
  const unsigned short closed = closedLoopbackPort();
  EXPECT_EQ(withoutDuration(probes.probe({"127.0.0.1", closed}, {"127.0.0.1"}, 2s)), downText);
  fake_engine engine([](const std::string& path, int) {
    return path == "/ping" ? httpReply(200, "OK", "pong") : fake_reply{"", false, true};
  });
  const auto start = std::chrono::steady_clock::now();
  auto slow = std::async(std::launch::async, [&] {
    return probes.probe({"127.0.0.1", engine.port()}, {"127.0.0.1"}, 500ms);
  });
  while (engine.requestsSeen() < 2) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(withoutDuration(probes.probe({"127.0.0.1", engine.port()}, {"127.0.0.1"}, 500ms)),
            "refused");
  EXPECT_EQ(withoutDuration(slow.get()), downText);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(probes.figures().failures, 2u);
  EXPECT_EQ(probes.figures().engineConnections, 0u);
}

TEST_F(ProberTest, PoolBoundsAndExpiresIdleConnections) {
  fake_engine engine(engineAnswer);
  const auto connect = [&] {
    return com::orvex::engine::connectToEngineWithin("127.0.0.1", engine.port(), {1000, 1000});
  };
  connection_pool pool(2, 200ms);
  pool.giveBack("a", connect());
  pool.giveBack("a", connect());  // a second one to the same target is closed
  pool.giveBack("b", connect());
  pool.giveBack("c", connect());  // beyond capacity: the longest idle, a's, is closed
  EXPECT_EQ(pool.idleConnections(), 2u);
  EXPECT_EQ(pool.take("a"), nullptr);
  EngineManagement* c = pool.take("c");
  ASSERT_NE(c, nullptr);
  connection_pool::close(c);
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (pool.idleConnections() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(pool.idleConnections(), 0u);
}

}  // namespace
}  // namespace exporter
