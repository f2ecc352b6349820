// vigilo-exporter: the status of a fleet of engines, for Prometheus.
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <iostream>

#include "bounded_server.h"
#include "connection_pool.h"
#include "endpoint.h"
#include "exporter_options.h"
#include "exporter_routes.h"
#include "name_lookup.h"
#include "prober.h"
#include "support/version.h"

namespace {

// A kept connection outlives the common scrape intervals (15 s to a minute) and no more.
constexpr std::chrono::minutes connectionIdleTime{2};
constexpr std::size_t maxIdleConnections = 4096;
constexpr std::size_t maxProbes = 128;
// Standard streams, the listener, the server's pipes, files read for /metrics and the resolver's
// configuration: what the process opens besides its clients' and engines' connections.
constexpr std::size_t ownDescriptors = 64;

// The open-file limit, the soft one raised to the hard one first: each kept connection to an
// engine is a descriptor, and a shell's soft limit of 1,024 would run out long before the hard.
std::size_t openFileLimit() {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_NOFILE, &files);
  }
  return static_cast<std::size_t>(files.rlim_cur);
}

}  // namespace

int main(int argc, char** argv) {
  // A large answer's buffers come from mmap and go back to the system once freed. Left to itself,
  // glibc raises this threshold to the size of the first such buffer it frees, and from then on
  // keeps what later large answers leave behind in its arenas, one per thread.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  exporter::exporter_options options;
  std::string error;
  const ovhttp::command_line outcome = exporter::parseExporterOptions(argc, argv, options, error);
  if (const auto status = ovhttp::endOfCommandLine(
          outcome, error, {"vigilo-exporter", exporter::exporterUsage, VIGILO_VERSION_DETAIL})) {
    return *status;
  }

  ovhttp::blockStopSignals();  // before any thread starts

  // What the process may open is shared out: its own, a quarter of the rest (at most the server's
  // usual number) to its clients, and the rest to engines, of which the probes in flight take
  // theirs first.
  const std::size_t files = openFileLimit();
  const std::size_t shared = files > ownDescriptors ? files - ownDescriptors : 0;
  ovhttp::server_limits limits;
  limits.maxConnections = std::min(limits.maxConnections, shared / 4);
  const std::size_t engines = shared - limits.maxConnections;
  const std::size_t inFlight = maxProbes * exporter::connection_pool::perProbe;
  const std::size_t maxIdle =
      std::min(maxIdleConnections, engines > inFlight ? engines - inFlight : 0);
  ovhttp::bounded_server server(limits);
  const int port = server.bindTo(options.listenHost, options.listenPort, error);
  if (port == 0) {
    std::cerr << "vigilo-exporter: cannot listen on "
              << ovnet::host_port{options.listenHost, options.listenPort}.text() << ": " << error
              << "\n";
    return 1;
  }
  bool served = false;
  {
    exporter::connection_pool pool(engines, maxIdle, connectionIdleTime);
    const exporter::name_lookup names;
    exporter::prober probes(pool, names, options.allowed, maxProbes);
    exporter::installRoutes(server, probes, options.probeTimeout);
    std::cout << "vigilo-exporter listening on " << server.boundTo() << "\n"
              << "vigilo-exporter keeps up to " << maxIdle
              << " idle connections to engines (open file limit " << files << ")" << std::endl;
    served = ovhttp::serveUntilStopSignal(server, [&probes] { probes.stop(); });
  }
  if (!served) {
    std::cerr << "vigilo-exporter: the server failed\n";
    return 1;
  }
  std::cout << "vigilo-exporter stopped" << std::endl;
  return 0;
}
