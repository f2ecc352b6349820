// The client library against a scripted engine on loopback: real sockets, real HTTP. How single
// responses are framed is the response reader's table; this is what a connection does with them.
#include "ovclient/engine_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ovcommon/EngineException.h"
#include "testing/fake_engine.h"
#include "testing/fake_status.h"

namespace com::orvex::engine {
namespace {

using vigilo::test_support::fake_engine;
using vigilo::test_support::fake_reply;
using vigilo::test_support::httpReply;
using vigilo::test_support::statusReply;

const fake_reply document = statusReply({{"uptime", "1061116"}, {"user-region", "emea"}});
const std::string documentSeen = "uptime=1061116;user-region=emea;";

struct connection_closer {
  void operator()(EngineManagement* m) const { disconnectFromEngine(m); }
};
using connection = std::unique_ptr<EngineManagement, connection_closer>;

class EngineClientTest : public ::testing::Test {
 protected:
  void SetUp() override { engineInit("vigilo-test"); }
  void TearDown() override { engineShutdown(); }
};

connection connectTo(const char* host, unsigned short port) {
  return connection(connectToEngineMonitorOnly(host, port, nullptr));
}

std::string connectError(const char* host, unsigned short port) {
  try {
    connectTo(host, port);
    return "connected";
  } catch (const EngineException& e) {
    return e.what();
  }
}

// The pairs of one fetch, or its error text.
std::string fetch(EngineManagement* m) {
  char* error = nullptr;
  StatusOpaque* status = engineManagement_getStatusOpaque(m, &error);
  if (error != nullptr) {
    const std::string text = std::string("error: ") + error;
    std::free(error);
    return text;
  }
  std::string seen;
  for (const auto& [key, value] : vigilo::test_support::walkStatus(status)) {
    seen += key + "=" + value + ";";
  }
  reinterpret_cast<deleteStatus_fn>(status->functions->entries[deleteStatusEntry])(status);
  return seen;
}

// Answers /ping with 200 and the status requests, counted from 0, with `status`.
fake_engine::script pingThen(std::function<fake_reply(int)> status) {
  return [status, n = 0](const std::string& path, int) mutable {
    return path == "/ping" ? httpReply(200, "OK", "pong") : status(n++);
  };
}

// One connection carries the requests until the engine ends it: a response that says
// "Connection: close" (though the engine leaves it open), a body that runs to the close, an idle
// connection closed. A request that the engine drops as it arrives goes out once more on a new
// connection, and only once.
TEST_F(EngineClientTest, KeepsOneConnectionUntilTheEngineEndsIt) {
  const std::string body = document.bytes.substr(document.bytes.find("\r\n\r\n"));
  fake_engine engine(pingThen([&](int n) {
    if (n == 1)
      return fake_reply{"HTTP/1.1 200 OK\r\nConnection: close" + document.bytes.substr(15)};
    if (n == 2) return fake_reply{"HTTP/1.1 200 OK" + body, true};
    if (n == 5 || n >= 7) return fake_reply{"", true};
    return document;
  }));
  connection m = connectTo("127.0.0.1", engine.port());
  for (const int connections : {1, 1, 2, 3}) {
    EXPECT_EQ(fetch(m.get()), documentSeen);
    EXPECT_EQ(engine.connectionsAccepted(), connections);
  }
  engine.closeConnections();
  EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 5);
  EXPECT_EQ(fetch(m.get()),
            "error: Status request to engine at 127.0.0.1:" + std::to_string(engine.port()) +
                " failed: GET /status: connection closed by the engine before any "
                "response");
  EXPECT_EQ(engine.requestsSeen(), 10);
}

// What a fetch reports when the engine answers in a way it cannot use: whatever the engine sent,
// the cause after "Status request to engine at HOST:PORT failed: ".
TEST_F(EngineClientTest, FailedFetchesReportTheCause) {
  const std::pair<fake_reply, std::string> cases[] = {
      {httpReply(404, "Not Found", "no such thing"), "GET /status answered 404 Not Found"},
      // The engine's bytes are shown, its control bytes escaped.
      {httpReply(500, "\x1b[2JOops\x7f", ""), "GET /status answered 500 \\x1b[2JOops\\x7f"},
      {httpReply(200, "OK", "{\"status\": [[\"a\", 1]]}"),
       "malformed status document: found a number where a string belongs at status[0][1]"},
      {{"HTTP/1.1 200 OK\r\nX-Filler: " + std::string(70000, 'x') + "\r\n\r\n"},
       "GET /status: response headers exceed 65536 bytes"},
      {{"", false, true}, "GET /status timed out after 300 ms"},
      // The limit holds while bytes keep coming.
      {{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n", false, false,
        "X-Trailer: more\r\n"},
       "GET /status timed out after 300 ms"},
  };
  for (const auto& [reply, cause] : cases) {
    setenv("OVCLIENT_RESPONSE_TIMEOUT_MS", "300", 1);
    fake_engine engine(pingThen([answer = reply](int) { return answer; }));
    connection m = connectTo("127.0.0.1", engine.port());
    unsetenv("OVCLIENT_RESPONSE_TIMEOUT_MS");
    EXPECT_EQ(fetch(m.get()), "error: Status request to engine at 127.0.0.1:" +
                                  std::to_string(engine.port()) + " failed: " + cause);
  }
}

TEST_F(EngineClientTest, ConnectFailuresNameHostPortAndCause) {
  const unsigned short closedPort = vigilo::test_support::closedLoopbackPort();
  EXPECT_EQ(connectError("127.0.0.1", closedPort),
            "Could not connect to engine at 127.0.0.1:" + std::to_string(closedPort) +
                ": Connection refused");
  fake_engine notAnEngine([](const std::string&, int) { return httpReply(404, "Not Found", ""); });
  EXPECT_EQ(connectError("127.0.0.1", notAnEngine.port()),
            "Could not connect to engine at 127.0.0.1:" + std::to_string(notAnEngine.port()) +
                ": GET /ping answered 404 Not Found");
  // A label of 64 bytes is refused by the resolver before any name server is asked, so the
  // cause is the same on every machine, with or without a network.
  const std::string unresolvable = std::string(64, 'a') + ".invalid";
  EXPECT_EQ(connectError(unresolvable.c_str(), 15903),
            "Could not connect to engine at " + unresolvable + ":15903: Name or service not known");
}

// A name is looked up, and every address tried in order.
TEST_F(EngineClientTest, ReachesAnEngineByName) {
  fake_engine engine(pingThen([](int) { return document; }));
  EXPECT_EQ(fetch(connectTo("localhost", engine.port()).get()), documentSeen);
}

TEST_F(EngineClientTest, ReachesAnEngineOnTheIpv6Loopback) {
  std::unique_ptr<fake_engine> engine;
  try {
    engine = std::make_unique<fake_engine>(pingThen([](int) { return document; }), "::1");
  } catch (const std::runtime_error& e) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << e.what();
  }
  EXPECT_EQ(fetch(connectTo("::1", engine->port()).get()), documentSeen);
}

}  // namespace
}  // namespace com::orvex::engine
