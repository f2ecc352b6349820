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

#include "ovclient/engine_client.h"
#include "status/EngineStatus.h"
#include "status/status_catalogue.h"
#include "testing/fake_engine.h"

namespace {

using namespace com::orvex::engine;
using vigilo::test_support::fake_engine;
using vigilo::test_support::fake_reply;
using vigilo::test_support::httpReply;
using vigilo::test_support::statusReply;

// A document with every catalogue key and a few user keys, as an engine would send.
const fake_reply& document() {
  static const fake_reply reply = [] {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const status_key& k : statusCatalogue) pairs.emplace_back(k.key, "1234567");
    for (int i = 0; i < 5; ++i) pairs.emplace_back("user-k" + std::to_string(i), "v");
    return statusReply(pairs);
  }();
  return reply;
}

fake_engine& engine() {
  static fake_engine e([](const std::string& path, int) {
    return path == "/ping" ? httpReply(200, "OK", "") : document();
  });
  return e;
}

void BM_ClientFetch(benchmark::State& state) {
  engineInit("bench");
  EngineManagement* m = connectToEngineMonitorOnly("127.0.0.1", engine().port(), nullptr);
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
  address.sin_port = htons(engine().port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const std::string request =
      "GET /status HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: application/json\r\n\r\n";
  const std::size_t expected = document().bytes.size();
  char buffer[65536];
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
