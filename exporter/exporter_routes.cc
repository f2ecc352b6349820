#include "exporter_routes.h"

#include <algorithm>
#include <charconv>

#include "exposition.h"
#include "ovcommon/log.h"

namespace exporter {

namespace {

using ovhttp::reply;

const char* const homePage =
    "<html><head><title>vigilo-exporter</title></head><body>\n"
    "<h1>vigilo-exporter</h1>\n"
    "<p><a href=\"/metrics\">The exporter's own metrics</a></p>\n"
    "<p>An engine's metrics: <a href=\"/probe?target=127.0.0.1:15903\">"
    "/probe?target=HOST:PORT</a></p>\n"
    "</body></html>\n";

}  // namespace

std::chrono::milliseconds probeTimeLimit(std::chrono::milliseconds probeTimeout,
                                         const std::string& scrapeTimeoutHeader) {
  double seconds = 0;
  const char* begin = scrapeTimeoutHeader.data();
  const char* end = begin + scrapeTimeoutHeader.size();
  const auto [stop, ec] = std::from_chars(begin, end, seconds);
  if (ec != std::errc() || stop != end || !(seconds > 0)) return probeTimeout;
  // Clamped before the conversion: a header may say 1e300 seconds.
  const double margin = std::min(0.5, seconds / 2);
  const double ms = std::clamp((seconds - margin) * 1000, 1.0, double(probeTimeout.count()));
  return std::chrono::milliseconds(static_cast<long long>(ms));
}

void installRoutes(ovhttp::bounded_server& server, prober& probes,
                   std::chrono::milliseconds probeTimeout) {
  using ovhttp::request;
  using ovhttp::response;
  server.route("GET", "/",
               [](const request&, response& res) {
                 res.contentType = "text/html; charset=utf-8";
                 res.body = homePage;
               },
               {.quick = true});
  // A probe waits on its engine: it runs on a worker.
  server.route("GET", "/probe", [&probes, probeTimeout](const request& req, response& res) {
    const std::optional<std::string> text = req.param("target");
    if (!text) return reply(res, 400, "no target: ask /probe?target=HOST:PORT");
    const target_parse t = parseTarget(*text);
    if (!t.parsed)
      return reply(res, 400, "bad target " + com::orvex::printable(*text) + ": " + t.why);
    const std::string debug = req.param("debug").value_or("");
    if (!debug.empty() && debug != "true" && debug != "false") {
      return reply(res, 400,
                   "bad debug " + com::orvex::printable(debug) + ": expected true or false");
    }
    const auto limit =
        probeTimeLimit(probeTimeout, req.header("X-Prometheus-Scrape-Timeout-Seconds"));
    prober::answer answer = probes.probe(*t.parsed, limit, debug == "true");
    if (answer.status != 200) return reply(res, answer.status, answer.body);
    res.contentType = debug == "true" ? "text/plain; charset=utf-8" : expositionType;
    res.body = std::move(answer.body);
  });
  server.route("GET", "/metrics", [&probes, &server](const request&, response& res) {
    exporter_figures figures = probes.figures();
    figures.httpConnections = server.openConnections();
    res.contentType = expositionType;
    appendExporterMetrics(res.body, figures);
  });
}

}  // namespace exporter
