// The client library against a scripted engine on loopback: real sockets, real HTTP. How single
// responses are framed is the response reader's table; this is what a connection does with them.
#include "ovclient/engine_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ovcommon/EngineException.h"
#include "testing/fake_engine.h"
#include "testing/fake_status.h"
#include "testing/param_name.h"
#include "testing/process.h"

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

TEST_F(EngineClientTest, FetchesOverOneKeptAliveConnection) {
  fake_engine engine(pingThen([](int) { return document; }));
  connection m = connectTo("127.0.0.1", engine.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 1);
  EXPECT_EQ(engine.requestsSeen(), 4);
}

// A response that says "Connection: close" (the engine leaves it open), then one that runs to
// the close: each time the next request goes out on a new connection.
TEST_F(EngineClientTest, OpensANewConnectionAfterAResponseThatEndsIt) {
  const std::string body = document.bytes.substr(document.bytes.find("\r\n\r\n"));
  fake_engine engine(pingThen([&](int n) {
    if (n == 0)
      return fake_reply{"HTTP/1.1 200 OK\r\nConnection: close" + document.bytes.substr(15)};
    if (n == 1) return fake_reply{"HTTP/1.1 200 OK" + body, true};
    return document;
  }));
  connection m = connectTo("127.0.0.1", engine.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 3);
}

TEST_F(EngineClientTest, ReopensAnIdleConnectionTheEngineClosed) {
  fake_engine engine(pingThen([](int) { return document; }));
  connection m = connectTo("127.0.0.1", engine.port());
  EXPECT_EQ(fetch(m.get()), documentSeen);
  engine.closeConnections();
  EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 2);
}

// The engine drops the connection just as the request arrives: the request goes out once more
// on a new connection, and only once.
TEST_F(EngineClientTest, RetriesARequestThatGotNoAnswerOnce) {
  fake_engine once(pingThen([](int n) { return n == 0 ? fake_reply{"", true} : document; }));
  connection m = connectTo("127.0.0.1", once.port());
  EXPECT_EQ(fetch(m.get()), documentSeen);
  EXPECT_EQ(once.connectionsAccepted(), 2);

  fake_engine always(pingThen([](int) { return fake_reply{"", true}; }));
  connection n = connectTo("127.0.0.1", always.port());
  EXPECT_EQ(fetch(n.get()),
            "error: Status request to engine at 127.0.0.1:" + std::to_string(always.port()) +
                " failed: GET /status: connection closed by the engine before any "
                "response");
  EXPECT_EQ(always.requestsSeen(), 3);
}

struct failure_case {
  const char* name;
  fake_reply reply;
  std::string cause;  // after "Status request to engine at HOST:PORT failed: "
};

class EngineClientFailureTest : public EngineClientTest,
                                public ::testing::WithParamInterface<failure_case> {};

TEST_P(EngineClientFailureTest, ReportsTheCause) {
  setenv("OVCLIENT_RESPONSE_TIMEOUT_MS", "300", 1);
  fake_engine engine(pingThen([](int) { return GetParam().reply; }));
  connection m = connectTo("127.0.0.1", engine.port());
  unsetenv("OVCLIENT_RESPONSE_TIMEOUT_MS");
  EXPECT_EQ(fetch(m.get()), "error: Status request to engine at 127.0.0.1:" +
                                std::to_string(engine.port()) + " failed: " + GetParam().cause);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, EngineClientFailureTest,
    ::testing::Values(
        failure_case{"not_found", httpReply(404, "Not Found", "no such thing"),
                     "GET /status answered 404 Not Found"},
        // The engine's bytes are shown, its control bytes escaped.
        failure_case{"reason_with_control_bytes", httpReply(500, "\x1b[2JOops\x7f", ""),
                     "GET /status answered 500 \\x1b[2JOops\\x7f"},
        failure_case{"malformed", httpReply(200, "OK", "{\"status\": [[\"a\", 1]]}"),
                     "malformed status document: found a number where a string belongs at "
                     "status[0][1]"},
        failure_case{"truncated",
                     {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"status\"", true},
                     "GET /status: connection closed by the engine in the middle of the "
                     "response"},
        failure_case{"headers_over_limit",
                     {"HTTP/1.1 200 OK\r\nX-Filler: " + std::string(70000, 'x') + "\r\n\r\n"},
                     "GET /status: response headers exceed 65536 bytes"},
        failure_case{"never_answers", {"", false, true}, "GET /status timed out after 300 ms"},
        // The limit holds while bytes keep coming.
        failure_case{"endless_trailers",
                     {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n", false, false,
                      "X-Trailer: more\r\n"},
                     "GET /status timed out after 300 ms"}),
    vigilo::test_support::paramName);

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

// "localhost" gives every address the resolver has for it, tried in order: an engine on either
// loopback is reached.
TEST_F(EngineClientTest, ReachesAnEngineOnEitherLoopback) {
  for (const char* address : {"127.0.0.1", "::1"}) {
    std::unique_ptr<fake_engine> engine;
    try {
      engine = std::make_unique<fake_engine>(pingThen([](int) { return document; }), address);
    } catch (const std::runtime_error& e) {
      GTEST_LOG_(INFO) << "no " << address << " on this machine: " << e.what();
      continue;
    }
    EXPECT_EQ(fetch(connectTo(address, engine->port()).get()), documentSeen);
    addrinfo* found = nullptr;
    addrinfo hints{};
    hints.ai_family = std::string(address) == "::1" ? AF_INET6 : AF_INET;
    const bool localhostHasIt = getaddrinfo("localhost", "1", &hints, &found) == 0;
    if (found != nullptr) freeaddrinfo(found);
    if (localhostHasIt) {
      EXPECT_EQ(fetch(connectTo("localhost", engine->port()).get()), documentSeen);
    }
  }
}

}  // namespace
}  // namespace com::orvex::engine
