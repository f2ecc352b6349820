// The real ovengine process on an ephemeral port, driven over HTTP.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "status/status_catalogue.h"
#include "testing/engine_process.h"
#include "testing/process.h"

namespace {

using vigilo::test_support::child_process;
using pairs = std::vector<std::pair<std::string, std::string>>;

class running_engine {
 public:
  explicit running_engine(const std::vector<std::string>& extra = {})
      : started(OVENGINE_BINARY, extra),
        process(&started.process()),
        port(started.port()),
        client(std::make_unique<httplib::Client>("127.0.0.1", port)) {}

  pairs status() {
    const auto res = client->Get("/status");
    EXPECT_TRUE(res);
    if (!res) return {};
    EXPECT_EQ(res->status, 200);
    const nlohmann::json document = nlohmann::json::parse(res->body);
    pairs result;
    for (const auto& pair : document.at("status")) {
      result.emplace_back(pair.at(0).get<std::string>(), pair.at(1).get<std::string>());
    }
    return result;
  }

  static std::string value(const pairs& p, const std::string& key) {
    for (const auto& [k, v] : p) {
      if (k == key) return v;
    }
    return "<missing>";
  }

  vigilo::test_support::engine_process started;
  child_process* process;
  int port;
  std::unique_ptr<httplib::Client> client;
};

TEST(OvengineTest, StatusHasEveryCatalogueKeyAndNoUserKeyUnset) {
  running_engine engine;
  const pairs status = engine.status();
  for (const auto& key : com::orvex::engine::statusCatalogue) {
    EXPECT_NE(running_engine::value(status, key.key), "<missing>") << key.key;
  }
  EXPECT_EQ(status.size(), com::orvex::engine::statusKeyCount);
  EXPECT_EQ(running_engine::value(status, "numContexts"), "4");
}

TEST(OvengineTest, CountersFollowPostedEvents) {
  running_engine engine({"--contexts", "3"});
  std::string body;
  const char* const types[] = {"Trade", "Quote", "Order"};
  for (int i = 0; i < 3000; ++i) body += types[i % 3] + ("(id=" + std::to_string(i) + ")\n");
  const auto res = engine.client->Post("/events", body, "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, "accepted 3000 events\n");

  pairs status;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    status = engine.status();
    // Every snapshot is consistent, whenever it is taken.
    const auto n = [&](const char* key) { return std::stoull(running_engine::value(status, key)); };
    EXPECT_LE(n("numProcessed"), n("numReceived"));
    EXPECT_LE(n("numOutEventsSent"), n("numEmits"));
    EXPECT_EQ(n("numReceived"),
              n("numQueuedInput") + n("numQueuedFastTrack") + n("numFastTracked"));
    EXPECT_GE(n("numFastTracked"), n("numProcessed") + n("numInputQueuedInput"));
    EXPECT_EQ(n("numEmits"), n("numProcessed"));
    EXPECT_LE(n("numOutEventsSent") + n("numOutEventsQueued"), n("numEmits"));
    EXPECT_LE(n("mostBackedUpICQueueSize"), n("numInputQueuedInput"));
    if (n("numOutEventsSent") == 3000) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(running_engine::value(status, "numReceived"), "3000");
  EXPECT_EQ(running_engine::value(status, "numFastTracked"), "3000");
  EXPECT_EQ(running_engine::value(status, "numProcessed"), "3000");
  EXPECT_EQ(running_engine::value(status, "numEmits"), "3000");
  EXPECT_EQ(running_engine::value(status, "numOutEventsSent"), "3000");
  EXPECT_EQ(running_engine::value(status, "numEventTypes"), "3");
  EXPECT_EQ(running_engine::value(status, "numQueuedInput"), "0");
  EXPECT_EQ(running_engine::value(status, "numInputQueuedInput"), "0");
}

TEST(OvengineTest, UserStatusKeepsTheOrderItWasSetIn) {
  running_engine engine({"--user-status", "region=emea", "--user-status", "tier=gold"});
  auto put = engine.client->Put("/status/user/zone", "a,b", "text/plain");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 200);
  engine.client->Put("/status/user/region", "apac", "text/plain");  // keeps its place
  auto del = engine.client->Delete("/status/user/tier");
  ASSERT_TRUE(del);
  EXPECT_EQ(del->status, 200);
  const pairs status = engine.status();
  const pairs users(status.begin() + com::orvex::engine::statusKeyCount, status.end());
  EXPECT_EQ(users, (pairs{{"user-region", "apac"}, {"user-zone", "a,b"}}));
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
      {"DELETE", "/events", "", 405, "method DELETE not allowed on /events\n"},
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
    httplib::Result res = c.method == "GET"    ? engine.client->Get(c.path)
                          : c.method == "POST" ? engine.client->Post(c.path, c.body, "text/plain")
                          : c.method == "PUT"  ? engine.client->Put(c.path, c.body, "text/plain")
                                               : engine.client->Delete(c.path);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    EXPECT_EQ(res->body, c.reason);
  }
  // Nothing refused was counted.
  EXPECT_EQ(running_engine::value(engine.status(), "numReceived"), "0");
}

TEST(OvengineTest, InfoNamesTheProcess) {
  running_engine engine;
  const auto res = engine.client->Get("/info");
  ASSERT_TRUE(res);
  const auto info = nlohmann::json::parse(res->body);
  EXPECT_EQ(info.at("name"), "ovengine");
  EXPECT_EQ(info.at("port"), engine.port);
  EXPECT_EQ(info.at("pid"), engine.process->pid());
}

TEST(OvengineTest, StopsCleanlyOnSigtermAndSigint) {
  for (const int sig : {SIGTERM, SIGINT}) {
    running_engine engine({"--load", "20000"});
    engine.process->signal(sig);
    const auto result = engine.process->finish(std::chrono::seconds(10));
    EXPECT_EQ(result.status, 0) << strsignal(sig) << result.err;
    EXPECT_NE(result.out.find("ovengine stopped\n"), std::string::npos);
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
    received = std::stod(running_engine::value(status, "numReceived"));
    const double uptimeMs = std::stod(running_engine::value(status, "uptime"));
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
