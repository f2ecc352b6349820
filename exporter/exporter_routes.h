// The exporter's HTTP interface: GET /probe?target=HOST:PORT (one engine's metrics; with
// &debug=true the probe's steps before them), GET /metrics (the exporter's own) and GET / (a page
// that links both).
#ifndef VIGILO_EXPORTER_EXPORTER_ROUTES_H_
#define VIGILO_EXPORTER_EXPORTER_ROUTES_H_

#include <chrono>

#include "bounded_server.h"
#include "prober.h"

namespace exporter {

// How long a probe may take: `probeTimeout`, or less when Prometheus says in
// X-Prometheus-Scrape-Timeout-Seconds that it waits less. Half a second of the scrape's time (or
// half of a scrape timeout under a second) is left for the answer to travel.
std::chrono::milliseconds probeTimeLimit(std::chrono::milliseconds probeTimeout,
                                         const std::string& scrapeTimeoutHeader);

// Installs the routes; the objects must outlive the server.
void installRoutes(ovhttp::bounded_server& server, prober& probes,
                   std::chrono::milliseconds probeTimeout);

}  // namespace exporter

#endif  // VIGILO_EXPORTER_EXPORTER_ROUTES_H_
