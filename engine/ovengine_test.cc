// The real ovengine process on an ephemeral port, driven over HTTP as its users drive it.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "status/status_catalogue.h"
#include "testing/process.h"
#include "testing/raw_http.h"

namespace {

using namespace std::chrono_literals;
using pairs = std::vector<std::pair<std::string, std::string>>;
using namespace vigilo::test_support;

struct running_engine : vigilo::test_support::engine_process {
  explicit running_engine(const std::vector<std::string>& extra = {})
      : engine_process(OVENGINE_BINARY, extra), client("127.0.0.1", port()) {}

  pairs status() {
    const auto res = client.Get("/status");
    if (!res || res->status != 200) {
      ADD_FAILURE() << "GET /status failed";
      return {};
    }
    return nlohmann::json::parse(res->body).at("status").get<pairs>();
  }

  httplib::Client client;
};

std::string value(const pairs& p, const std::string& key) {
  const auto it = std::find_if(p.begin(), p.end(), [&](const auto& kv) { return kv.first == key; });
  return it == p.end() ? "<missing>" : it->second;
}

// Every snapshot holds the catalogue's keys and is consistent whenever it is taken, and in the
// end every event has gone all the way through.
TEST(OvengineTest, CountersFollowPostedEvents) {
  running_engine engine({"--contexts", "3"});
  EXPECT_EQ(engine.status().size(), std::size(com::orvex::engine::statusCatalogue));
  // Blank lines and CRs before line ends are passed over; a type may hold '_', '.' and digits.
  const std::string body = many("Trade(id=1,qty=5)\r\nQuote()\n\nOrder()\n", 3000) + "_x.y2(a(b))";
  const auto res = engine.client.Post("/events", body, "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, "accepted 9001 events\n");
  pairs status;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  do {
    status = engine.status();
    const auto n = [&](const char* key) { return std::stoull(value(status, key)); };
    EXPECT_LE(n("numProcessed"), n("numReceived"));
    EXPECT_EQ(n("numReceived"),
              n("numQueuedInput") + n("numQueuedFastTrack") + n("numFastTracked"));
    EXPECT_GE(n("numFastTracked"), n("numProcessed") + n("numInputQueuedInput"));
    EXPECT_EQ(n("numEmits"), n("numProcessed"));
    EXPECT_LE(n("numOutEventsSent") + n("numOutEventsQueued"), n("numEmits"));
    EXPECT_LE(n("mostBackedUpICQueueSize"), n("numInputQueuedInput"));
  } while (value(status, "numOutEventsSent") != "9001" &&
           std::chrono::steady_clock::now() < deadline);
  for (const char* key : {"numReceived", "numFastTracked", "numProcessed", "numOutEventsSent"}) {
    EXPECT_EQ(value(status, key), "9001") << key;
  }
  EXPECT_EQ(value(status, "numEventTypes"), "4");
  EXPECT_EQ(value(status, "numContexts"), "3");
  EXPECT_EQ(value(status, "numInputQueuedInput"), "0");
}

TEST(OvengineTest, RefusesBadRequestsWithAOneLineReason) {
  running_engine engine({"--user-status", "region=emea", "--user-status", "tier=gold"});
  std::string typeBeyondTheLimit;
  for (int i = 0; i <= 1000; ++i) typeBeyondTheLimit += "T" + std::to_string(i) + "()\n";
  const std::string bad = "400 line 2: expected Type(fields)\n";
  const std::pair<std::string, std::string> cases[] = {
      {request("GET", "/nope", ""), "404 no such resource /nope\n"},
      {request("POST", "/status", "x"), "405 method POST not allowed on /status\n"},
      {request("POST", "/events", "Trade(1)\nnot an event\n"), bad},
      {request("POST", "/events", "Trade(1)\n9Trade(x)\n"), bad},
      {request("POST", "/events", "Trade(1)\nTrade(x\n"), bad},
      {request("POST", "/events", std::string(65, 'T') + "()"),
       "400 line 1: event type too long\n"},
      {request("POST", "/events", "T(" + std::string(257, 'f') + ")"),
       "400 line 1: fields too long\n"},
      {request("POST", "/events", typeBeyondTheLimit), "400 more than 1000 event types\n"},
      {request("POST", "/events", many("T()\n", 100001)),
       "503 engine busy: 100000 events in flight\n"},
      // Each bound at its edge: the most it takes, and one more.
      {request("POST", "/events", std::string(1048576, '\n')), "200 accepted 0 events\n"},
      {request("POST", "/events", std::string(1048577, '\n')),
       "413 request body exceeds 1048576 bytes\n"},
      {request("POST", "/events", "", "Transfer-Encoding: chunked\r\n") +
           many("100000\r\n" + std::string(0x100000, 'x') + "\r\n", 2),
       "413 request body exceeds 1048576 bytes\n"},
      {request("POST", "/events", "T()", "Content-Encoding: gzip\r\n"),
       "415 request bodies are taken without a content encoding\n"},
      {request("PUT", "/status/user/bad%20key", "v"),
       "400 user status key must be 1 to 128 of A-Z a-z 0-9 _ - .\n"},
      {request("PUT", "/status/user/k", "caf\xc3"),
       "400 user status value must be UTF-8 text of at most 4096 bytes\n"},
      {request("PUT", "/status/user/big", std::string(5000, 'v')),
       "413 request body exceeds 4096 bytes\n"},
      {request("DELETE", "/status/user/absent", ""), "404 no user status absent\n"},
  };
  for (const auto& [bytes, expected] : cases) {
    EXPECT_EQ(rawExchange(engine.port(), bytes), expected) << bytes.substr(0, 60);
  }
  // User values keep the order they were set in, up to the limit.
  engine.client.Put("/status/user/zone", "a,b", "text/plain");
  engine.client.Put("/status/user/region", "apac", "text/plain");
  EXPECT_EQ(engine.client.Delete("/status/user/tier")->status, 200);
  pairs status = engine.status();
  EXPECT_EQ(pairs(status.end() - 2, status.end()),
            (pairs{{"user-region", "apac"}, {"user-zone", "a,b"}}));
  for (int i = 0; i < 98; ++i) engine.client.Put("/status/user/k" + std::to_string(i), "v", "");
  EXPECT_EQ(engine.client.Put("/status/user/one-more", "v", "")->body,
            "at most 100 user status values\n");
  // Nothing refused was counted, and the status document is still served.
  status = engine.status();
  EXPECT_EQ(value(status, "numReceived"), "0");
  EXPECT_EQ(status.size(), std::size(com::orvex::engine::statusCatalogue) + 100);
}

// Idle and slow clients hold no worker: with hundreds of them connected, a new client is answered
// at once, and a stop ends them all at once, cleanly whichever signal it is.
TEST(OvengineTest, IdleAndSlowClientsHoldNothingUp) {
  for (const int sig : {SIGTERM, SIGINT}) {
    running_engine engine({"--load", "20000"});
    std::vector<int> waiting;
    for (int i = 0; i < 300; ++i) {
      waiting.push_back(connectTo(engine.port()));
      if (i % 10 == 0) (void)!send(waiting.back(), "GET /status HTTP/1.1\r\nHo", 24, 0);
    }
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(rawExchange(engine.port(), request("GET", "/ping", "")), "200 pong\n");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);

    started = std::chrono::steady_clock::now();
    engine.signal(sig);
    const auto result = engine.finish(20s);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
    EXPECT_EQ(result.status, 0) << strsignal(sig) << result.err;
    EXPECT_EQ(result.out, "ovengine listening on 127.0.0.1:" + std::to_string(engine.port()) +
                              "\novengine stopped\n");
    for (const int fd : waiting) close(fd);
  }
}

// More load than the engine can process: what it cannot take is dropped and counted, and no more
// events are ever in flight than the bound allows.
TEST(OvengineTest, AFloodIsBoundedAndCounted) {
  running_engine engine({"--load", "10000000", "--contexts", "1"});
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  std::uint64_t dropped = 0;
  while (dropped == 0 && std::chrono::steady_clock::now() < deadline) {
    const pairs status = engine.status();
    EXPECT_LE(
        std::stoull(value(status, "numReceived")) - std::stoull(value(status, "numOutEventsSent")),
        100'000u);
    dropped = nlohmann::json::parse(engine.client.Get("/info")->body).at("dropped");
  }
  EXPECT_GT(dropped, 0u);
}

TEST(OvengineTest, RefusesABadCommandLine) {
  const auto result = vigilo::test_support::runProcess({OVENGINE_BINARY, "--contexts", "0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.substr(0, 36), "ovengine: bad value for --contexts: ");
}

}  // namespace
