// The real ovengine process on an ephemeral port, driven over HTTP as its users drive it.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "status/status_catalogue.h"
#include "testing/process.h"

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

struct running_engine : vigilo::test_support::engine_process {
  explicit running_engine(const std::vector<std::string>& extra = {})
      : engine_process(OVENGINE_BINARY, extra), client("127.0.0.1", port()) {}

  pairs status() {
    const auto res = client.Get("/status");
    if (!res || res->status != 200) {
      ADD_FAILURE() << "GET /status failed";
      return {};
    }
    const auto document = nlohmann::json::parse(res->body);
    pairs result;
    for (const auto& pair : document.at("status")) result.emplace_back(pair.at(0), pair.at(1));
    return result;
  }

  httplib::Client client;
};

std::string value(const pairs& p, const std::string& key) {
  for (const auto& [k, v] : p) {
    if (k == key) return v;
  }
  return "<missing>";
}

std::uint64_t number(const pairs& p, const std::string& key) { return std::stoull(value(p, key)); }

TEST(OvengineTest, StatusHasEveryCatalogueKeyAndNothingElse) {
  running_engine engine({"--contexts", "3"});
  const pairs status = engine.status();
  ASSERT_EQ(status.size(), std::size(com::orvex::engine::statusCatalogue));
  for (const auto& row : com::orvex::engine::statusCatalogue) {
    EXPECT_NE(value(status, row.key), "<missing>") << row.key;
  }
  EXPECT_EQ(value(status, "numContexts"), "3");
  const auto info = nlohmann::json::parse(engine.client.Get("/info")->body);
  EXPECT_EQ(info.at("pid"), engine.pid());
}

// Every snapshot is consistent whenever it is taken, and in the end every event has gone all the
// way through.
TEST(OvengineTest, CountersFollowPostedEvents) {
  running_engine engine({"--contexts", "3"});
  std::string body;
  for (int i = 0; i < 3000; ++i) body += "Trade(id=" + std::to_string(i) + ")\nQuote()\nOrder()\n";
  const auto res = engine.client.Post("/events", body, "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, "accepted 9000 events\n");
  pairs status;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  do {
    status = engine.status();
    const auto n = [&](const char* key) { return number(status, key); };
    EXPECT_LE(n("numProcessed"), n("numReceived"));
    EXPECT_EQ(n("numReceived"),
              n("numQueuedInput") + n("numQueuedFastTrack") + n("numFastTracked"));
    EXPECT_GE(n("numFastTracked"), n("numProcessed") + n("numInputQueuedInput"));
    EXPECT_EQ(n("numEmits"), n("numProcessed"));
    EXPECT_LE(n("numOutEventsSent") + n("numOutEventsQueued"), n("numEmits"));
    EXPECT_LE(n("mostBackedUpICQueueSize"), n("numInputQueuedInput"));
  } while (value(status, "numOutEventsSent") != "9000" &&
           std::chrono::steady_clock::now() < deadline);
  for (const char* key : {"numReceived", "numFastTracked", "numProcessed", "numOutEventsSent"}) {
    EXPECT_EQ(value(status, key), "9000") << key;
  }
  EXPECT_EQ(value(status, "numEventTypes"), "3");
  EXPECT_EQ(value(status, "numInputQueuedInput"), "0");
}

TEST(OvengineTest, UserStatusKeepsTheOrderItWasSetIn) {
  running_engine engine({"--user-status", "region=emea", "--user-status", "tier=gold"});
  EXPECT_EQ(engine.client.Put("/status/user/zone", "a,b", "text/plain")->status, 200);
  EXPECT_EQ(engine.client.Put("/status/user/region", "apac", "text/plain")->status, 200);
  EXPECT_EQ(engine.client.Delete("/status/user/tier")->status, 200);
  const pairs status = engine.status();
  EXPECT_EQ(pairs(status.end() - 2, status.end()),
            (pairs{{"user-region", "apac"}, {"user-zone", "a,b"}}));
}

struct refusal {
  std::string method, path, body;
  int status;
  std::string reason;
};

TEST(OvengineTest, RefusesBadRequestsWithAOneLineReason) {
  running_engine engine;
  const refusal cases[] = {
      {"GET", "/nope", "", 404, "no such resource /nope\n"},
      {"POST", "/status", "", 405, "method POST not allowed on /status\n"},
      {"POST", "/events", "Trade(1)\nnot an event\n", 400, "line 2: expected Type(fields)\n"},
      {"POST", "/events", std::string(2 * 1024 * 1024, 'x'), 413,
       "request body exceeds 1048576 bytes\n"},
      {"PUT", "/status/user/bad key", "v", 400,
       "user status key must be 1 to 128 of A-Z a-z 0-9 _ - .\n"},
      {"PUT", "/status/user/big", std::string(5000, 'v'), 413,
       "user status value exceeds 4096 bytes\n"},
      {"DELETE", "/status/user/absent", "", 404, "no user status absent\n"},
  };
  for (const refusal& c : cases) {
    SCOPED_TRACE(c.method + " " + c.path);
    httplib::Request request;
    request.method = c.method;
    request.path = c.path;
    request.body = c.body;
    const auto res = engine.client.send(request);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    EXPECT_EQ(res->body, c.reason);
  }
  EXPECT_EQ(value(engine.status(), "numReceived"), "0");  // nothing refused was counted
}

TEST(OvengineTest, StopsCleanlyOnSigtermAndSigint) {
  for (const int sig : {SIGTERM, SIGINT}) {
    running_engine engine({"--load", "20000"});
    engine.signal(sig);
    const auto result = engine.finish(std::chrono::seconds(10));
    EXPECT_EQ(result.status, 0) << strsignal(sig) << result.err;
    EXPECT_EQ(result.out, "ovengine listening on 127.0.0.1:" + std::to_string(engine.port()) +
                              "\novengine stopped\n");
  }
}

// The generator is paced by the clock: a busy machine can slow it down, never speed it up. So
// events flow, and no snapshot counts more than the rate allows for the engine's uptime (plus one
// 10 ms batch, which may land between the reading of the uptime and of the counters).
TEST(OvengineTest, LoadNeverRunsAheadOfItsRate) {
  running_engine engine({"--load", "5000"});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  double received = 0;
  while (received < 1000 && std::chrono::steady_clock::now() < deadline) {
    const pairs status = engine.status();
    received = static_cast<double>(number(status, "numReceived"));
    const double uptimeMs = static_cast<double>(number(status, "uptime"));
    EXPECT_LE(received, 5000 * (uptimeMs + 1) / 1000 + 50) << "at " << uptimeMs << " ms";
  }
  EXPECT_GE(received, 1000);
}

TEST(OvengineTest, RefusesABadCommandLine) {
  const auto result = vigilo::test_support::runProcess({OVENGINE_BINARY, "--contexts", "0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.substr(0, 36), "ovengine: bad value for --contexts: ");
}

}  // namespace
