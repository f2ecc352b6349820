// Status fetches per second over one kept-alive connection to a local engine, beside a bare loop
// of the same HTTP request on a raw socket to the same engine in the same run. The ratio is the
// client library's own cost: framing, the JSON document, and the status object.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "bounded_server.h"
#include "ovclient/engine_client.h"
#include "status/EngineStatus.h"
#include "status/status_catalogue.h"

namespace {

using namespace com::orvex::engine;

// An engine in this process whose document has every catalogue key and a few user keys.
struct local_engine {
  local_engine() {
    std::string pairs;
    for (const status_key& k : statusCatalogue)
      pairs += ",[\"" + std::string(k.key) + "\",\"1234567\"]";
    for (int i = 0; i < 5; ++i) pairs += ",[\"user-k" + std::to_string(i) + "\",\"v\"]";
    document = "{\"status\":[" + pairs.substr(1) + "]}";
    const ovhttp::route_options quick{.quick = true};
    server.route(
        "GET", "/ping", [](const ovhttp::request&, ovhttp::response&) {}, quick);
    server.route(
        "GET", "/status",
        [this](const ovhttp::request&, ovhttp::response& res) { res.body = document; }, quick);
    std::string why;
    port = static_cast<unsigned short>(server.bindTo("127.0.0.1", 0, why));
    std::thread([this] { server.serve(); }).detach();
  }
  ovhttp::bounded_server server;
  std::string document;
  unsigned short port = 0;
};

local_engine& engine() {
  static local_engine* e = new local_engine;  // serves until the benchmark's process ends
  return *e;
}

void BM_ClientFetch(benchmark::State& state) {
  engineInit("bench");
  EngineManagement* m = connectToEngineMonitorOnly("127.0.0.1", engine().port, nullptr);
  for (auto _ : state) {
    EngineStatus record = getEngineStatus(m);
    benchmark::DoNotOptimize(record.getStatusInteger("uptime"));
  }
  disconnectFromEngine(m);
  state.SetItemsProcessed(state.iterations());
}

void BM_RawSocketRequest(benchmark::State& state) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(engine().port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const std::string request =
      "GET /status HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: application/json\r\n\r\n";
  char buffer[65536];
  // The first answer's size, head and body, is every answer's.
  send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string first;
  while (first.find("\r\n\r\n") == std::string::npos ||
         first.size() < first.find("\r\n\r\n") + 4 + engine().document.size()) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return state.SkipWithError("connection lost");
    first.append(buffer, static_cast<std::size_t>(n));
  }
  const std::size_t expected = first.size();
  for (auto _ : state) {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::size_t got = 0;
    while (got < expected) {
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) {
        state.SkipWithError("connection lost");
        break;
      }
      got += static_cast<std::size_t>(n);
    }
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_RawSocketRequest)->UseRealTime();
BENCHMARK(BM_ClientFetch)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
