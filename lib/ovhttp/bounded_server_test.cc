// The server's bounds, each at its edge and one step past it, over small routes: what a client
// gets, and that a stop or a new client is never held up by the others.
#include "bounded_server.h"

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "testing/eventually.h"

namespace ovhttp {
namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;
using tcp = asio::ip::tcp;

using vigilo::test_support::eventually;
using vigilo::test_support::slower;

// A request that asks the server to close the connection after its answer; two header fields.
std::string req(const std::string& method, const std::string& path, const std::string& body = "",
                const std::string& headers = "") {
  return method + " " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers +
         (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" +
         body;
}

// `count` header fields whose values are `size` bytes.
std::string fields(int count, std::size_t size = 1) {
  std::string all;
  while (count-- > 0) all += "X-A: " + std::string(size, 'b') + "\r\n";
  return all;
}

// A connection of the test's own, every wait bounded.
struct client {
  explicit client(unsigned short port) {
    socket.connect({asio::ip::make_address("127.0.0.1"), port});
  }
  void send(const std::string& bytes) {
    boost::system::error_code ignored;  // a refused request may be cut short
    asio::write(socket, asio::buffer(bytes), ignored);
  }
  // What the server sends until it closes, or until `bound`.
  std::string received(std::chrono::milliseconds bound = 5000ms * slower) {
    std::string in;
    asio::async_read(socket, asio::dynamic_buffer(in), [](auto, auto) {});
    io.restart();
    io.run_for(bound);
    return in;
  }
  // "status body" of the answer.
  std::string answer() {
    const std::string in = received();
    const auto head = in.find("\r\n\r\n");
    return head == std::string::npos ? in : in.substr(9, 4) + in.substr(head + 4);
  }
  std::string ask(const std::string& bytes) {
    send(bytes);
    return answer();
  }
  asio::io_context io;
  tcp::socket socket{io};
};

// The request and idle limits differ tenfold, so that one taken for the other shows.
struct BoundedServerTest : ::testing::Test {
  BoundedServerTest() {
    server.route("GET", "/ping", [](const request&, response& res) { reply(res, 200, "pong"); },
                 {.quick = true});
    server.route("GET", "/busy", [](const request&, response& res) {
      std::this_thread::sleep_for(300ms);
      reply(res, 200, "done");
    });
    server.route("PUT", "/small/*",
                 [](const request& req, response& res) {
                   reply(res, 200, req.wildcard + " took " + std::to_string(req.body.size()));
                 },
                 {.maxBody = 16});
    std::string why;
    port = static_cast<unsigned short>(server.bindTo("127.0.0.1", 0, why));
    serving = std::thread([this] { server.serve(); });
  }
  ~BoundedServerTest() override {
    server.shutdown();
    if (serving.joinable()) serving.join();
  }
  bool openConnectionsReach(std::size_t n) {
    return eventually([this, n] { return server.openConnections() == n; });
  }

  bounded_server server{
      {.maxConnections = 4, .requestTimeout = 300ms * slower, .idleTimeout = 3000ms * slower}};
  unsigned short port = 0;
  std::thread serving;
};

TEST_F(BoundedServerTest, RefusesWhatPassesABoundAtItsEdge) {
  const std::string chunked = "Transfer-Encoding: chunked\r\n";
  // Lines count their line ends; req() adds two header fields of its own.
  const std::pair<std::string, std::string> cases[] = {
      {req("GET", "/ping?" + std::string(8171, 'q')), "200 pong\n"},
      {req("GET", "/ping?" + std::string(8172, 'q')), "414 request line exceeds 8192 bytes\n"},
      {req("GET", "/ping?" + std::string(20000, 'q')), "414 request line exceeds 8192 bytes\n"},
      {req("GET", "/ping", "", fields(62)), "200 pong\n"},
      {req("GET", "/ping", "", fields(63)), "431 more than 64 header fields\n"},
      {req("GET", "/ping", "", fields(1, 8185)), "200 pong\n"},
      {req("GET", "/ping", "", fields(1, 8186)), "431 header field exceeds 8192 bytes\n"},
      {req("GET", "/ping", "", fields(2, 8160)), "200 pong\n"},
      {req("GET", "/ping", "", fields(1, 8160) + fields(1, 8161)),
       "431 request head exceeds 16384 bytes\n"},
      {req("PUT", "/small/a", std::string(16, 'x')), "200 a took 16\n"},
      {req("PUT", "/small/b", std::string(17, 'x')), "413 request body exceeds 16 bytes\n"},
      {req("PUT", "/small/c", "", chunked) + "a\r\n0123456789\r\n6\r\n012345\r\n0\r\n\r\n",
       "200 c took 16\n"},
      {req("PUT", "/small/d", "", chunked) + "a\r\n0123456789\r\n7\r\n0123456\r\n0\r\n\r\n",
       "413 request body exceeds 16 bytes\n"},
      {req("PUT", "/small/e", "x", "Content-Encoding: gzip\r\n"),
       "415 request bodies are taken without a content encoding\n"},
      {req("PUT", "/small/f", "x", "Transfer-Encoding: gzip\r\n"),
       "400 unsupported Transfer-Encoding\n"},
      // Not HTTP: where such a request ends is unknown, so the connection ends with it.
      {"BAD\r\nHost: x\r\n\r\n", "400 bad request\n"},
      {req("GET", "/nope%0a"), "404 no such resource /nope\\x0a\n"},
      {req("PUT", "/small/a/b", "x"), "404 no such resource /small/a/b\n"},
      {req("POST", "/ping", "x"), "405 method POST not allowed on /ping\n"},
      {req("HEAD", "/ping"), "200 "},
  };
  for (const auto& [bytes, expected] : cases) {
    EXPECT_EQ(client(port).ask(bytes), expected) << bytes.substr(0, 60);
  }
  client refused(port);
  refused.send(req("DELETE", "/ping"));
  EXPECT_NE(refused.received().find("\r\nAllow: GET, HEAD\r\n"), std::string::npos);
}

// A body announced with Expect: 100-continue is asked for before it is sent.
TEST_F(BoundedServerTest, AsksForAnAnnouncedBody) {
  client c(port);
  c.send("PUT /small/x HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n");
  std::string in;
  asio::read_until(c.socket, asio::dynamic_buffer(in), "\r\n\r\n");
  EXPECT_EQ(in, "HTTP/1.1 100 Continue\r\n\r\n");
}

std::size_t threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Up to the cap, a new client is served at once however many others are idle or sending slowly,
// and none of those holds a thread; past the cap, refused with a time to come back.
TEST_F(BoundedServerTest, ServesUpToTheCapAndRefusesTheNext) {
  const std::size_t before = threads();
  client idle(port), slow(port), dawdling(port);
  slow.send("GET /ping HTTP/1.1\r\nHo");
  dawdling.send("PUT /small/x HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc");
  ASSERT_TRUE(openConnectionsReach(3));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client(port).ask(req("GET", "/ping")), "200 pong\n");  // the fourth
  EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms * slower);
  EXPECT_EQ(threads(), before);
  ASSERT_TRUE(openConnectionsReach(3));
  client fourth(port);
  ASSERT_TRUE(openConnectionsReach(4));
  client fifth(port);
  fifth.send(req("GET", "/ping"));
  const std::string refusal = fifth.received();
  EXPECT_EQ(refusal.substr(0, 12), "HTTP/1.1 503");
  EXPECT_NE(refusal.find("\r\nRetry-After: 1\r\n"), std::string::npos) << refusal;
  EXPECT_EQ(refusal.substr(refusal.find("\r\n\r\n")), "\r\n\r\ntoo many connections\n");
}

// A request begun and not finished in time is refused, while a connection idle for longer still
// serves the next request, until it has been idle for the idle time.
TEST_F(BoundedServerTest, ARequestHasLessTimeThanAnIdleConnection) {
  client dripping(port), idle(port), quiet(port);
  const auto start = std::chrono::steady_clock::now();
  dripping.send("GET /ping HTTP/1.1\r\nHo");
  EXPECT_EQ(dripping.answer(),
            "408 request not complete within " + std::to_string(300 * slower) + " ms\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms * slower);
  std::this_thread::sleep_for(200ms * slower);  // past the request limit, well short of the idle
  idle.send(req("GET", "/ping"));
  EXPECT_EQ(idle.answer(), "200 pong\n");
  EXPECT_EQ(quiet.received(), "");
  const auto closed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(closed, 3000ms * slower);
  EXPECT_LT(closed, 4500ms * slower);  // closed by the server, not given up on by the test
}

// A stop ends idle, slow and busy connections alike, and serve() returns within a second.
TEST_F(BoundedServerTest, StopsWithinASecondWhateverTheClientsDo) {
  client idle(port), slow(port), busy(port);
  slow.send("PUT /small/x HTTP/1.1\r\nContent-Length: 9\r\n\r\nab");
  busy.send(req("GET", "/busy"));
  ASSERT_TRUE(openConnectionsReach(3));
  std::this_thread::sleep_for(50ms);  // the busy handler runs
  const auto start = std::chrono::steady_clock::now();
  server.shutdown();
  serving.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s * slower);
  EXPECT_EQ(server.openConnections(), 0u);
  for (client* c : {&idle, &slow, &busy}) EXPECT_EQ(c->received(), "");
}

}  // namespace
}  // namespace ovhttp
