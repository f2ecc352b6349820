// The client library against a scripted engine on loopback: real sockets, real HTTP.
#include "ovclient/engine_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ovcommon/EngineException.h"
#include "testing/engine_process.h"
#include "testing/fake_engine.h"
#include "testing/fake_status.h"

namespace com::orvex::engine {
namespace {

using vigilo::test_support::fake_engine;
using vigilo::test_support::fake_reply;
using vigilo::test_support::httpReply;
using vigilo::test_support::statusReply;

const std::vector<std::pair<std::string, std::string>> somePairs = {
    {"uptime", "1061116"}, {"numContexts", "3"}, {"user-region", "emea"}};

struct connection_closer {
  void operator()(EngineManagement* m) const { disconnectFromEngine(m); }
};
using connection = std::unique_ptr<EngineManagement, connection_closer>;

class EngineClientTest : public ::testing::Test {
 protected:
  void SetUp() override { engineInit("vigilo-test"); }
  void TearDown() override {
    unsetenv("OVCLIENT_RESPONSE_TIMEOUT_MS");
    engineShutdown();
  }

  static connection connectTo(const char* host, unsigned short port) {
    return connection(connectToEngineMonitorOnly(host, port, nullptr));
  }

  // The pairs of one fetch, or its error text.
  static std::string fetch(EngineManagement* m) {
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

  static std::string connectError(const char* host, unsigned short port) {
    try {
      connectTo(host, port);
      return "connected";
    } catch (const EngineException& e) {
      return e.what();
    }
  }
};

// Answers /ping with 200 and everything else with `status`.
fake_engine::script pingThen(std::function<fake_reply(int)> status) {
  return [status](const std::string& path, int request) {
    return path == "/ping" ? httpReply(200, "OK", "pong") : status(request);
  };
}

const std::string somePairsSeen = "uptime=1061116;numContexts=3;user-region=emea;";

TEST_F(EngineClientTest, FetchesOverOneKeptAliveConnection) {
  fake_engine engine(pingThen([](int) { return statusReply(somePairs); }));
  connection m = connectTo("127.0.0.1", engine.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch(m.get()), somePairsSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 1);
  EXPECT_EQ(engine.requestsSeen(), 4);
}

TEST_F(EngineClientTest, ReadsChunkedAndReadToCloseBodies) {
  const std::string document =
      statusReply(somePairs).bytes.substr(statusReply(somePairs).bytes.find("\r\n\r\n") + 4);
  fake_engine engine(pingThen([&](int request) {
    if (request % 2 == 1) {
      return fake_reply{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" +
                        [&] {
                          char h[16];
                          std::snprintf(h, sizeof h, "%zx", document.size() - 10);
                          return std::string(h);
                        }() +
                        "\r\n" + document.substr(0, document.size() - 10) + "\r\na\r\n" +
                        document.substr(document.size() - 10) + "\r\n0\r\n\r\n"};
    }
    return fake_reply{"HTTP/1.1 200 OK\r\n\r\n" + document, true};
  }));
  connection m = connectTo("127.0.0.1", engine.port());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(fetch(m.get()), somePairsSeen);
}

TEST_F(EngineClientTest, ReconnectsWhenTheEngineClosesAfterEveryAnswer) {
  fake_engine engine([](const std::string& path, int) {
    fake_reply reply = path == "/ping" ? httpReply(200, "OK", "") : statusReply(somePairs);
    reply.bytes.insert(reply.bytes.find("\r\n") + 2, "Connection: close\r\n");
    reply.closeAfter = true;
    return reply;
  });
  connection m = connectTo("127.0.0.1", engine.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch(m.get()), somePairsSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 4);
}

TEST_F(EngineClientTest, ReopensAnIdleConnectionTheEngineClosed) {
  fake_engine engine(pingThen([](int) { return statusReply(somePairs); }));
  connection m = connectTo("127.0.0.1", engine.port());
  EXPECT_EQ(fetch(m.get()), somePairsSeen);
  engine.closeConnections();
  EXPECT_EQ(fetch(m.get()), somePairsSeen);
  EXPECT_EQ(engine.connectionsAccepted(), 2);
}

// The engine drops the connection just as the request arrives: the request is sent once more on
// a new connection, and only once.
TEST_F(EngineClientTest, RetriesARequestThatGotNoAnswerOnce) {
  fake_engine once(pingThen([](int request) {
    return request == 1 ? fake_reply{"", true} : statusReply(somePairs);
  }));
  connection m = connectTo("127.0.0.1", once.port());
  EXPECT_EQ(fetch(m.get()), somePairsSeen);
  EXPECT_EQ(once.connectionsAccepted(), 2);

  fake_engine always(pingThen([](int) { return fake_reply{"", true}; }));
  connection n = connectTo("127.0.0.1", always.port());
  EXPECT_EQ(fetch(n.get()),
            "error: Status request to engine at 127.0.0.1:" + std::to_string(always.port()) +
                " failed: GET /status: connection closed by the engine before "
                "any response");
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
  const failure_case& c = GetParam();
  setenv("OVCLIENT_RESPONSE_TIMEOUT_MS", "300", 1);
  fake_engine engine(pingThen([&](int) { return c.reply; }));
  connection m = connectTo("127.0.0.1", engine.port());
  EXPECT_EQ(fetch(m.get()), "error: Status request to engine at 127.0.0.1:" +
                                std::to_string(engine.port()) + " failed: " + c.cause);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, EngineClientFailureTest,
    ::testing::Values(
        failure_case{"not_found", httpReply(404, "Not Found", "no such thing"),
                     "GET /status answered 404 Not Found"},
        failure_case{"server_error", httpReply(500, "Internal Server Error", ""),
                     "GET /status answered 500 Internal Server Error"},
        failure_case{"malformed", httpReply(200, "OK", "{\"status\": [[\"a\", 1]]}"),
                     "malformed status document: found a number where a string belongs at "
                     "status[0][1]"},
        failure_case{"invalid_utf8", httpReply(200, "OK", "{\"status\": [[\"a\", \"\xc0\xaf\"]]}"),
                     "malformed status document: parse error at line 1, column 20: syntax error "
                     "while parsing value - invalid string: ill-formed UTF-8 byte; last read: "
                     "'\"\xc0'"},
        failure_case{"deep", httpReply(200, "OK", "{\"x\": " + std::string(100000, '[')),
                     "malformed status document: nesting deeper than 64 levels at the top level"},
        failure_case{"truncated",
                     {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"status\"", true},
                     "GET /status: connection closed by the engine in the middle of the "
                     "response"},
        failure_case{"body_over_limit",
                     {"HTTP/1.1 200 OK\r\nContent-Length: 16777217\r\n\r\n", false},
                     "GET /status: response body of 16777217 bytes exceeds 16777216 bytes"},
        failure_case{"headers_over_limit",
                     {"HTTP/1.1 200 OK\r\nX-Filler: " + std::string(70000, 'x') + "\r\n\r\n"},
                     "GET /status: response headers exceed 65536 bytes"},
        failure_case{"never_answers", {"", false, true}, "GET /status timed out after 300 ms"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(EngineClientTest, ConnectFailuresNameHostPortAndCause) {
  const unsigned short closedPort = vigilo::test_support::closedLoopbackPort();
  EXPECT_EQ(connectError("127.0.0.1", closedPort),
            "Could not connect to engine at 127.0.0.1:" + std::to_string(closedPort) +
                ": Connection refused");

  fake_engine notAnEngine([](const std::string&, int) { return httpReply(404, "Not Found", ""); });
  EXPECT_EQ(connectError("127.0.0.1", notAnEngine.port()),
            "Could not connect to engine at 127.0.0.1:" + std::to_string(notAnEngine.port()) +
                ": GET /ping answered 404 Not Found");

  // The resolver's own words, which depend on whether a name server answered.
  const std::string unknown = connectError("nohost.invalid", 15903);
  EXPECT_TRUE(unknown ==
                  "Could not connect to engine at nohost.invalid:15903: Name or service "
                  "not known" ||
              unknown ==
                  "Could not connect to engine at nohost.invalid:15903: Temporary "
                  "failure in name resolution")
      << unknown;
}

bool resolvesTo(const char* host, const char* address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, "1", &hints, &found) != 0) return false;
  bool seen = false;
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    char text[INET6_ADDRSTRLEN] = "";
    const void* raw =
        a->ai_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(a->ai_addr)->sin6_addr)
            : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr);
    inet_ntop(a->ai_family, raw, text, sizeof text);
    seen = seen || std::string(text) == address;
  }
  freeaddrinfo(found);
  return seen;
}

TEST_F(EngineClientTest, LocalhostReachesAnEngineOnIpv4Only) {
  fake_engine engine(pingThen([](int) { return statusReply(somePairs); }), "127.0.0.1");
  connection m = connectTo("localhost", engine.port());
  EXPECT_EQ(fetch(m.get()), somePairsSeen);
}

TEST_F(EngineClientTest, ReachesAnEngineOnIpv6Only) {
  std::unique_ptr<fake_engine> listening;
  try {
    listening =
        std::make_unique<fake_engine>(pingThen([](int) { return statusReply(somePairs); }), "::1");
  } catch (const std::runtime_error& e) {
    GTEST_SKIP() << "no IPv6 loopback on this machine: " << e.what();
  }
  fake_engine& engine = *listening;
  connection m = connectTo("::1", engine.port());
  EXPECT_EQ(fetch(m.get()), somePairsSeen);
  // "localhost" reaches it exactly when this machine's resolver gives ::1 for it (Debian's
  // /etc/hosts usually does; some containers do not).
  if (resolvesTo("localhost", "::1")) {
    connection n = connectTo("localhost", engine.port());
    EXPECT_EQ(fetch(n.get()), somePairsSeen);
  } else {
    EXPECT_EQ(connectError("localhost", engine.port()),
              "Could not connect to engine at localhost:" + std::to_string(engine.port()) +
                  ": Connection refused");
  }
}

}  // namespace
}  // namespace com::orvex::engine
