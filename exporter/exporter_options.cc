#include "exporter_options.h"

#include <charconv>
#include <string_view>

namespace exporter {

const char* const exporterUsage =
    "Usage: vigilo-exporter [--web.listen-address=[HOST]:PORT] [--allow-target=RULE]...\n"
    "                       [--probe.timeout=DURATION] [-h | --help] [--version]\n"
    "\n"
    "Serves the status of engines to Prometheus: GET /probe?target=HOST:PORT answers one\n"
    "engine's metrics, GET /metrics the exporter's own. An option's value follows it after '='\n"
    "or as the next argument.\n"
    "\n"
    "    --web.listen-address=[HOST]:PORT\n"
    "                                    where to serve (default 127.0.0.1:9903; :PORT for\n"
    "                                    every interface; port 0 picks a free one)\n"
    "    --allow-target=RULE             engines that may be probed: HOST, HOST:PORT or an\n"
    "                                    address range such as 10.0.0.0/8 (repeatable; default\n"
    "                                    loopback only)\n"
    "    --probe.timeout=DURATION        longest probe, such as 500ms or 10s (default 10s; a\n"
    "                                    shorter scrape timeout from Prometheus wins)\n"
    "    -h, --help                      this message\n"
    "    --version                       the version\n";

namespace {

// "500ms", "10s", "1m": a whole number and a unit.
bool duration(std::string_view text, std::chrono::milliseconds& out) {
  long long n = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (ec != std::errc() || end == text.data() || n <= 0) return false;
  const std::string_view unit(end, text.data() + text.size() - end);
  const long long scale = unit == "ms" ? 1 : unit == "s" ? 1000 : unit == "m" ? 60000 : 0;
  if (scale == 0 || n > 3600000 / scale) return false;
  out = std::chrono::milliseconds(n * scale);
  return true;
}

// A port of 0 asks for any free one.
bool listenAddress(const std::string& text, exporter_options& options) {
  const auto where = ovnet::host_port::parse(text, /*anyPort=*/true);
  if (!where) return false;
  options.listenHost = where->host;
  options.listenPort = where->port;
  return true;
}

}  // namespace

ovhttp::command_line parseExporterOptions(int argc, char** argv, exporter_options& options,
                                          std::string& error) {
  return ovhttp::readCommandLine(
      argc, argv,
      {{"--web.listen-address", "HOST:PORT or :PORT, such as 127.0.0.1:9903 or :9903",
        [&](const std::string& v) { return listenAddress(v, options); }},
       {"--allow-target", "HOST, HOST:PORT or an address range such as 10.0.0.0/8",
        [&](const std::string& v) { return options.allowed.add(v); }},
       {"--probe.timeout", "a duration such as 500ms, 10s or 2m, at most 60m",
        [&](const std::string& v) { return duration(v, options.probeTimeout); }}},
      error);
}

}  // namespace exporter
