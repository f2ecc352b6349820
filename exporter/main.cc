// vigilo-exporter: the status of a fleet of engines, for Prometheus.
#include <iostream>

#include "bounded_server.h"
#include "connection_pool.h"
#include "exporter_options.h"
#include "exporter_routes.h"
#include "ovclient/engine_client.h"
#include "ovcommon/EngineException.h"
#include "prober.h"
#include "support/version.h"

namespace {

// A kept connection outlives the common scrape intervals (15 s to a minute) and no more.
constexpr std::chrono::minutes connectionIdleTime{2};
constexpr std::size_t maxIdleConnections = 4096;
constexpr std::size_t maxProbes = 128;

}  // namespace

int main(int argc, char** argv) {
  exporter::exporter_options options;
  std::string error;
  if (!exporter::parseExporterOptions(argc, argv, options, error)) {
    std::cerr << "vigilo-exporter: " << error << "\n\n" << exporter::exporterUsage;
    return 2;
  }
  if (options.help) {
    std::cout << exporter::exporterUsage;
    return 0;
  }
  if (options.version) {
    std::cout << "vigilo-exporter " VIGILO_VERSION_DETAIL "\n";
    return 0;
  }

  ovhttp::blockStopSignals();  // before any thread starts
  try {
    com::orvex::engine::engineInit("vigilo-exporter");
  } catch (const com::orvex::EngineException& e) {
    std::cerr << "vigilo-exporter: " << e.what() << "\n";
    return 1;
  }

  ovhttp::bounded_server server;
  std::string why;
  const int port = server.bindTo(options.listenHost, options.listenPort, why);
  if (port == 0) {
    std::cerr << "vigilo-exporter: cannot listen on " << options.listenHost << ":"
              << options.listenPort << ": " << why << "\n";
    return 1;
  }
  bool served = false;
  {
    exporter::connection_pool pool(maxIdleConnections, connectionIdleTime);
    exporter::prober probes(pool, maxProbes);
    exporter::installRoutes(server, probes, options.allowed, options.probeTimeout);
    std::cout << "vigilo-exporter listening on " << options.listenHost << ":" << port << std::endl;
    served = ovhttp::serveUntilStopSignal(server);
  }
  com::orvex::engine::engineShutdown();
  if (!served) {
    std::cerr << "vigilo-exporter: the server failed\n";
    return 1;
  }
  std::cout << "vigilo-exporter stopped" << std::endl;
  return 0;
}
