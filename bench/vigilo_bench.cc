// vigilo against a real ovengine, each figure beside its baseline in one run:
//   - polls per second at -i 0 in raw mode, beside bare HTTP requests over one connection, and
//     beside the same bare requests writing a line each, the floor of any poller with output;
//   - time from SIGINT to exit while vigilo waits between polls;
//   - wall time and peak memory of `vigilo -p PORT -r -o`, beside `curl -s` of the same URL;
//   - instructions per raw poll (callgrind), and the allocation entry points' own table.
//
//   build/bin/vigilo_bench [seconds]
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"

namespace {

using namespace std::chrono_literals;
using vigilo::bench::child_process;
using vigilo::bench::run_result;
using vigilo::bench::runProcess;
using clock_type = std::chrono::steady_clock;

double secondsSince(clock_type::time_point start) {
  return std::chrono::duration<double>(clock_type::now() - start).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Requests per second of GET /status on one kept-alive raw socket, reading each response whole;
// with `lines`, also writing one line per response to a file, as any poller's output costs.
double bareRequestsPerSecond(int port, double seconds, bool lines = false) {
  const std::string path = "/tmp/vigilo_bench_bare." + std::to_string(getpid());
  const int out = lines ? open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
  const std::string line(200, 'x');
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<unsigned short>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const std::string request = "GET /status HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  long requests = 0;
  const auto start = clock_type::now();
  std::string response;
  char buffer[65536];
  while (secondsSince(start) < seconds) {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    response.clear();
    std::size_t headerEnd = std::string::npos, total = 0;
    for (;;) {
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return 0;
      response.append(buffer, static_cast<std::size_t>(n));
      if (headerEnd == std::string::npos &&
          (headerEnd = response.find("\r\n\r\n")) != std::string::npos) {
        const auto at = response.find("Content-Length: ");
        total = headerEnd + 4 + std::stoul(response.substr(at + 16));
      }
      if (headerEnd != std::string::npos && response.size() >= total) break;
    }
    if (lines) (void)!write(out, line.data(), line.size());
    ++requests;
  }
  close(fd);
  if (lines) {
    close(out);
    std::remove(path.c_str());
  }
  return requests / secondsSince(start);
}

// Lines per second that `argv` writes, counted over `seconds` after its first line. The lines go
// to a file, as with -f, so that no reader of a pipe shares the two cores with the poller.
double linesPerSecond(const std::vector<std::string>& argv, double seconds) {
  const std::string path = "/tmp/vigilo_bench_lines." + std::to_string(getpid());
  const auto lines = [&path] {
    std::ifstream file(path);
    return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
  };
  child_process polling(vigilo::bench::redirected(">" + path, argv));
  while (lines() == 0) std::this_thread::sleep_for(1ms);
  const auto before = lines();
  const auto start = clock_type::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double rate = static_cast<double>(lines() - before) / secondsSince(start);
  polling.signal(SIGINT);
  polling.finish(10s);
  std::remove(path.c_str());
  return rate;
}

#ifdef VIGILO_VALGRIND
// User-space instructions of the poll loop per poll, as callgrind counts them over 3,000 polls:
// the same figure on every run of the same build, whatever else the machine does.
double instructionsPerPoll(const std::vector<std::string>& argv) {
  const std::string profile = "/tmp/vigilo_bench_callgrind." + std::to_string(getpid());
  std::vector<std::string> counted = {VIGILO_VALGRIND, "--tool=callgrind",
                                      "--toggle-collect=vigil_core::pollForStatus()",
                                      "--callgrind-out-file=" + profile};
  counted.insert(counted.end(), argv.begin(), argv.end());
  child_process polling(counted);
  polling.waitFor(
      [](const std::string& out, const std::string&) {
        return std::count(out.begin(), out.end(), '\n') >= 3000;
      },
      120s);
  polling.signal(SIGINT);
  const auto result = polling.finish(60s);
  std::ifstream file(profile);
  double instructions = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("summary: ", 0) == 0) instructions = std::stod(line.substr(9));
  }
  std::remove(profile.c_str());
  return instructions / static_cast<double>(std::count(result.out.begin(), result.out.end(), '\n'));
}
#endif

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
  vigilo::bench::engine_process engine(OVENGINE_BINARY,
                                       {"--load", "10000", "--user-status", "region=emea"});
  const int port = engine.port();
  const std::string portText = std::to_string(port);
  const std::vector<std::string> vigilo = {VIGILO_BINARY, "-n", "127.0.0.1", "-p", portText};

  // Polls per second at -i 0 beside the bare loop: the best of three alternating rounds.
  std::vector<std::string> fast = vigilo;
  fast.insert(fast.end(), {"-r", "-i", "0"});
  double polls = 0, bare = 0, bareLines = 0;
  for (int round = 0; round < 3; ++round) {
    polls = std::max(polls, linesPerSecond(fast, seconds));
    bare = std::max(bare, bareRequestsPerSecond(port, seconds));
    bareLines = std::max(bareLines, bareRequestsPerSecond(port, seconds, true));
  }
  std::printf("%-44s %12.0f\n", "vigilo -r -i 0, polls/s", polls);
  std::printf("%-44s %12.0f\n", "bare GET /status on one connection, req/s", bare);
  std::printf("%-44s %12.2f\n", "ratio vigilo / bare", polls / bare);
  std::printf("%-44s %12.0f\n", "bare, writing a line per response, req/s", bareLines);
  std::printf("%-44s %12.2f\n", "ratio vigilo / bare writing lines", polls / bareLines);
#ifdef VIGILO_VALGRIND
  std::printf("%-44s %12.0f\n", "instructions per raw poll (callgrind)", instructionsPerPoll(fast));
#endif
  std::printf("\n");

  // SIGINT to exit, while waiting.
  std::vector<double> exitMs;
  std::vector<std::string> waiting = vigilo;
  waiting.insert(waiting.end(), {"-r", "-i", "60000"});
  for (int i = 0; i < 11; ++i) {
    child_process watch(waiting);
    watch.waitForOut("\n", 10s);
    watch.waitUntilSleeping(10s);
    const auto sent = clock_type::now();
    watch.signal(SIGINT);
    watch.finish(10s);
    exitMs.push_back(secondsSince(sent) * 1000);
  }
  std::printf("%-44s %12.2f\n", "SIGINT to exit during a wait, median ms", median(exitMs));
  std::printf("%-44s %12.2f\n\n", "SIGINT to exit during a wait, worst ms",
              *std::max_element(exitMs.begin(), exitMs.end()));

  // One poll, beside curl fetching the same URL, both by the name of the engine's host as users
  // write it, in 101 turns: the median of a few dozen moves by several hundredths of the ratio
  // with whatever else the machine does.
  const std::vector<std::string> once = {VIGILO_BINARY, "-p", portText, "-r", "-o"};
  const std::vector<std::string> curl = {"/usr/bin/curl", "-s", "-o", "/dev/null",
                                         "http://localhost:" + portText + "/status"};
  std::vector<double> vigiloMs, curlMs;
  long vigiloRss = 0, curlRss = 0;
  for (int i = 0; i < 101; ++i) {
    auto t = clock_type::now();
    const run_result v = runProcess(once, 10s);
    vigiloMs.push_back(secondsSince(t) * 1000);
    vigiloRss = std::max(vigiloRss, v.maxRssKb);
    t = clock_type::now();
    const run_result c = runProcess(curl, 10s);
    curlMs.push_back(secondsSince(t) * 1000);
    curlRss = std::max(curlRss, c.maxRssKb);
  }
  std::printf("%-44s %12.2f\n", "vigilo -o wall time, median ms", median(vigiloMs));
  std::printf("%-44s %12.2f\n", "curl of the same document, median ms", median(curlMs));
  std::printf("%-44s %12.2f\n", "ratio vigilo / curl", median(vigiloMs) / median(curlMs));
  std::printf("%-44s %12ld\n", "vigilo -o peak memory, KiB", vigiloRss);
  std::printf("%-44s %12ld\n", "curl peak memory, KiB", curlRss);
  std::printf("%-44s %12.2f\n", "ratio vigilo / curl", static_cast<double>(vigiloRss) / curlRss);
  engine.signal(SIGTERM);
  engine.finish(10s);

  // The allocation entry points beside the next allocator, on both routes.
  std::printf("\n%s", runProcess({ALLOCATION_BENCH}, 300s).out.c_str());
  return 0;
}
