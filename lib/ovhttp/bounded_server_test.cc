// The server's limits, each at its edge, over a route that answers "pong".
#include "bounded_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testing/raw_http.h"

namespace ovhttp {
namespace {

using namespace std::chrono_literals;
using namespace vigilo::test_support;

// The request and idle limits differ tenfold, so that one taken for the other shows.
struct BoundedServerTest : ::testing::Test {
  BoundedServerTest() {
    server.Get("/ping",
               [](const httplib::Request&, httplib::Response& res) { reply(res, 200, "pong"); });
    port = static_cast<unsigned short>(server.bindTo("127.0.0.1", 0, why));
    serving = std::thread([this] { server.serve(); });
  }
  ~BoundedServerTest() override {
    server.shutdown();
    serving.join();
  }
  bool openConnectionsReach(std::size_t n) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (server.openConnections() != n && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(1ms);
    }
    return server.openConnections() == n;
  }

  bounded_server server{{.maxConnections = 4, .requestTimeout = 300ms, .idleTimeout = 3s}};
  std::string why;
  unsigned short port = 0;
  std::thread serving;
};

TEST_F(BoundedServerTest, RefusesHeadsBeyondTheLimitsAtTheirEdges) {
  // Lines count their line ends; request() adds two header fields of its own.
  const std::pair<std::string, std::string> cases[] = {
      {request("GET", "/ping?" + std::string(8171, 'q'), ""), "200 pong\n"},
      {request("GET", "/ping?" + std::string(8172, 'q'), ""),
       "414 request line exceeds 8192 bytes\n"},
      {request("GET", "/ping", "", many("X-A: b\r\n", 62)), "200 pong\n"},
      {request("GET", "/ping", "", many("X-A: b\r\n", 63)), "431 more than 64 header fields\n"},
      {request("GET", "/ping", "", "X-A: " + std::string(8185, 'b') + "\r\n"), "200 pong\n"},
      {request("GET", "/ping", "", "X-A: " + std::string(8186, 'b') + "\r\n"),
       "431 header field exceeds 8192 bytes\n"},
      {request("GET", "/ping", "", many("X-A: " + std::string(8160, 'b') + "\r\n", 2)),
       "200 pong\n"},
      {request("GET", "/ping", "",
               "X-A: " + std::string(8160, 'b') + "\r\nX-B: " + std::string(8161, 'b') + "\r\n"),
       "431 request head exceeds 16384 bytes\n"},
      // A request the HTTP library cannot read: where it ends is unknown, so the connection ends.
      {"BAD\r\nHost: x\r\n\r\n", "400 bad request\n"},
  };
  for (const auto& [bytes, expected] : cases) {
    EXPECT_EQ(rawExchange(port, bytes), expected) << bytes.substr(0, 60);
  }
}

TEST_F(BoundedServerTest, ServesConnectionsUpToTheCapAndRefusesTheNext) {
  std::vector<int> idle;
  for (int i = 0; i < 3; ++i) idle.push_back(connectTo(port));
  ASSERT_TRUE(openConnectionsReach(3));
  EXPECT_EQ(rawExchange(port, request("GET", "/ping", "")), "200 pong\n");  // the fourth
  ASSERT_TRUE(openConnectionsReach(3));
  idle.push_back(connectTo(port));
  ASSERT_TRUE(openConnectionsReach(4));
  EXPECT_EQ(rawExchange(port, request("GET", "/ping", "")), "503 too many connections\n");
  for (const int fd : idle) close(fd);
}

// A request begun and not finished is refused after the request limit, while a connection idle
// for longer still serves the next request.
TEST_F(BoundedServerTest, ARequestHasLessTimeThanAnIdleConnection) {
  const int partial = connectTo(port);
  const int idle = connectTo(port);
  const auto start = std::chrono::steady_clock::now();
  (void)!send(partial, "GET /ping HTTP/1.1\r\nHo", 22, 0);
  EXPECT_EQ(answerOn(partial), "408 request not complete within 300 ms\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
  std::this_thread::sleep_for(500ms);  // past the request limit, well short of the idle one
  const std::string ping = request("GET", "/ping", "");
  (void)!send(idle, ping.data(), ping.size(), 0);
  EXPECT_EQ(answerOn(idle), "200 pong\n");
}

TEST(BoundedServerBindTest, APortInUseIsRefusedNotShared) {
  bounded_server first, second;
  std::string why;
  const int port = first.bindTo("127.0.0.1", 0, why);
  ASSERT_GT(port, 0);
  EXPECT_EQ(second.bindTo("127.0.0.1", static_cast<unsigned short>(port), why), 0);
  EXPECT_EQ(why, "address in use");
}

}  // namespace
}  // namespace ovhttp
