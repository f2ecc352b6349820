// How far one vigilo-exporter goes: a fleet of N engines (scripted, all in this process, served by
// one epoll thread so that the fleet costs little) is probed through a real vigilo-exporter, and
// its probes per second and CPU per probe are printed beside the cost of running `vigilo -o` once
// per engine, the way a fleet would be watched without the exporter.
//
//   build/bin/exporter_bench [N ...] [--baseline=OTHER_EXPORTER]      (default N: 10 100 1000)
//
// With --baseline, another vigilo-exporter (an earlier build, say) is probed in the same rounds,
// its rows printed under this build's.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "http_connection.h"
#include "status/status_catalogue.h"

namespace {

using clock_type = std::chrono::steady_clock;

std::string answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// N engines on loopback that answer /ping and /status on kept-alive connections, from one thread.
class fleet {
 public:
  explicit fleet(int engines) {
    std::string pairs = "[\"user-region\",\"emea\"]";
    for (const auto& key : com::orvex::engine::statusCatalogue) {
      pairs += ",[\"" + std::string(key.key) + "\",\"12345\"]";
    }
    status = answer("{\"status\":[" + pairs + "]}");
    pong = answer("pong");
    poller = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < engines; ++i) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t length = sizeof address;
      if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 64) != 0) {
        std::perror("fleet");
        std::exit(1);
      }
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
      ports.push_back(ntohs(address.sin_port));
      listeners[fd] = true;
      watch(fd);
    }
    server = std::thread([this] { serve(); });
  }
  ~fleet() {
    stopping = true;
    server.join();
    for (const auto& [fd, listening] : listeners) close(fd);
    for (const auto& [fd, unread] : pending) close(fd);
    close(poller);
  }
  std::vector<unsigned short> ports;

 private:
  void watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
  }

  void serve() {
    epoll_event events[256];
    char buffer[4096];
    while (!stopping) {
      const int ready = epoll_wait(poller, events, 256, 100);
      for (int i = 0; i < ready; ++i) {
        const int fd = events[i].data.fd;
        if (listeners.count(fd) != 0) {
          const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
          if (client >= 0) {
            watch(client);
            pending[client];
          }
          continue;
        }
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) {
          close(fd);
          pending.erase(fd);
          continue;
        }
        std::string& in = pending[fd];
        in.append(buffer, static_cast<std::size_t>(got));
        for (std::size_t end; (end = in.find("\r\n\r\n")) != std::string::npos;
             in.erase(0, end + 4)) {
          const std::string& answer = in.compare(0, 10, "GET /ping ") == 0 ? pong : status;
          if (write(fd, answer.data(), answer.size()) < 0) break;
        }
      }
    }
  }

  std::string status;
  std::string pong;
  int poller = -1;
  std::map<int, bool> listeners;
  std::map<int, std::string> pending;
  std::atomic<bool> stopping{false};
  std::thread server;
};

// CPU seconds (user + system) that process `pid` has used.
double cpuSeconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::size_t at = text.rfind(')') + 2;
  for (int field = 3; field < 14; ++field) at = text.find(' ', at) + 1;
  const double ticks = std::strtod(text.c_str() + at, nullptr) +
                       std::strtod(text.c_str() + text.find(' ', at) + 1, nullptr);
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double childrenCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct round_figures {
  double probes = 0;
  double seconds = 0;
  double cpu = 0;
  int failed = 0;

  void add(const round_figures& r) {
    probes += r.probes;
    seconds += r.seconds;
    cpu += r.cpu;
    failed += r.failed;
  }
};

// Every engine of the fleet probed once, by all the scrapers at once. Scrapers keep their
// connections to the exporter from round to round, as Prometheus does.
using scraper = com::orvex::client::http_connection;
using scrapers = std::vector<std::unique_ptr<scraper>>;
round_figures probeAll(const fleet& engines, scrapers& clients, pid_t exporter) {
  std::atomic<std::size_t> next{0};
  std::atomic<int> failed{0};
  const double cpuBefore = cpuSeconds(exporter);
  const auto start = clock_type::now();
  std::vector<std::thread> threads;
  for (const auto& client : clients) {
    threads.emplace_back([&] {
      for (std::size_t i; (i = next++) < engines.ports.size();) {
        try {
          const auto& res =
              client->get("/probe?target=127.0.0.1:" + std::to_string(engines.ports[i]));
          failed += res.status != 200 || res.body.find("\norvex_up 1\n") == std::string::npos;
        } catch (const std::exception&) {
          ++failed;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  return {static_cast<double>(engines.ports.size()),
          std::chrono::duration<double>(clock_type::now() - start).count(),
          cpuSeconds(exporter) - cpuBefore, failed.load()};
}

// The exporter's CPU is counted in clock ticks of 10 ms, so a figure of kept connections gathers
// two seconds of probes, and one of new connections is shown only when it spans 20 ticks.
constexpr double secondsPerFigure = 2;

void print(int n, const std::string& round, const round_figures& f, double onceMs) {
  if (f.cpu < 0.2) {
    std::printf("%6d  %-19s %8.0f %10.0f %14s\n", n, round.c_str(), f.probes, f.probes / f.seconds,
                "(too few ticks)");
    return;
  }
  const double cpuMs = f.cpu * 1000 / f.probes;
  std::printf("%6d  %-19s %8.0f %10.0f %14.3f %9.1fx %16.0f%s\n", n, round.c_str(), f.probes,
              f.probes / f.seconds, cpuMs, onceMs / cpuMs, 15000 / cpuMs,
              f.failed == 0 ? "" : ("  (" + std::to_string(f.failed) + " failed)").c_str());
}

// An exporter as the fleet meets it, and one whose open-file limit leaves it no idle
// connection, so that every probe connects anew; each with its scrapers.
std::unique_ptr<scraper> scraperOf(unsigned short port) {
  return std::make_unique<scraper>("127.0.0.1:" + std::to_string(port),
                                   std::vector{*ovnet::address::parse("127.0.0.1", port)},
                                   com::orvex::client::connection_limits{}, "exporter_bench");
}

struct exporter_pair {
  exporter_pair(const std::string& binary, const std::string& name, int clientCount)
      : name(name),
        kept({binary, "--web.listen-address=127.0.0.1:0"}, "vigilo-exporter"),
        withoutIdle({"/usr/bin/prlimit", "--nofile=400:400", "--", binary,
                     "--web.listen-address=127.0.0.1:0"},
                    "vigilo-exporter") {
    for (int c = 0; c < clientCount; ++c) {
      keptClients.push_back(scraperOf(kept.port()));
      newClients.push_back(scraperOf(withoutIdle.port()));
    }
  }
  const std::string name;
  vigilo::bench::server_process kept;
  vigilo::bench::server_process withoutIdle;
  scrapers keptClients;
  scrapers newClients;
};

}  // namespace

int main(int argc, char** argv) {
  const vigilo::bench::bench_arguments arguments = vigilo::bench::readArguments(argc, argv);
  const std::string& baseline = arguments.baseline;
  std::vector<int> sizes;
  for (const std::string& size : arguments.rest) sizes.push_back(std::atoi(size.c_str()));
  if (sizes.empty()) sizes = {10, 100, 1000};
  const int clientCount = 8;

  std::vector<std::unique_ptr<exporter_pair>> exporters;
  exporters.push_back(std::make_unique<exporter_pair>(EXPORTER_BINARY, "", clientCount));
  if (!baseline.empty()) {
    exporters.push_back(std::make_unique<exporter_pair>(baseline, " (baseline)", clientCount));
  }

  // One vigilo -o per engine: a process started, connected, fetched and ended each time.
  fleet one(1);
  const int runs = 50;
  const double childrenBefore = childrenCpuSeconds();
  const auto start = clock_type::now();
  for (int i = 0; i < runs; ++i) {
    vigilo::bench::runProcess({VIGILO_BINARY, "-p", std::to_string(one.ports[0]), "-o"});
  }
  const double onceMs = (childrenCpuSeconds() - childrenBefore) * 1000 / runs;
  const double onceWallMs =
      std::chrono::duration<double, std::milli>(clock_type::now() - start).count() / runs;

  std::printf("vigilo -o once per engine: %.2f ms CPU, %.2f ms wall each (%d runs)\n\n", onceMs,
              onceWallMs, runs);
  std::printf("%6s  %-19s %8s %10s %14s %10s %16s\n", "N", "round", "probes", "probes/s",
              "CPU ms/probe", "vs -o", "engines/core@15s");
  for (const int n : sizes) {
    // A new fleet makes an exporter connect to every engine once; probing it again finds every
    // connection kept.
    const auto engines = std::make_unique<fleet>(n);
    for (const auto& e : exporters) {
      print(n, "connect" + e->name, probeAll(*engines, e->keptClients, e->kept.pid()), onceMs);
    }
    // The rounds of the exporters take turns, so that both meet the machine in the same state.
    for (const char* round : {"kept", "new"}) {
      std::vector<round_figures> figures(exporters.size());
      while (figures.back().seconds < secondsPerFigure) {
        for (std::size_t i = 0; i < exporters.size(); ++i) {
          exporter_pair& e = *exporters[i];
          const bool kept = round == std::string("kept");
          figures[i].add(probeAll(*engines, kept ? e.keptClients : e.newClients,
                                  kept ? e.kept.pid() : e.withoutIdle.pid()));
        }
      }
      for (std::size_t i = 0; i < exporters.size(); ++i) {
        print(n, round + exporters[i]->name, figures[i], onceMs);
      }
    }
  }
  std::printf("\n(%d scrapers at once; \"new\": an exporter that keeps no idle connection)\n",
              clientCount);
  return 0;
}
