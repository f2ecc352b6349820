#include "exporter_options.h"

#include <charconv>
#include <string_view>

namespace exporter {

const char* const exporterUsage =
    "Usage: vigilo-exporter [--web.listen-address=HOST:PORT] [--allow-target=RULE]...\n"
    "                       [--probe.timeout=DURATION] [--help] [--version]\n"
    "\n"
    "Serves the status of engines to Prometheus: GET /probe?target=HOST:PORT answers one\n"
    "engine's metrics, GET /metrics the exporter's own.\n"
    "\n"
    "    --web.listen-address=HOST:PORT  where to serve (default 127.0.0.1:9903; port 0 picks\n"
    "                                    a free one)\n"
    "    --allow-target=RULE             engines that may be probed: HOST, HOST:PORT or an\n"
    "                                    address range such as 10.0.0.0/8 (repeatable; default\n"
    "                                    loopback only)\n"
    "    --probe.timeout=DURATION        longest probe, such as 500ms or 10s (default 10s; a\n"
    "                                    shorter scrape timeout from Prometheus wins)\n"
    "    --help                          this message\n"
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
  if (!where || where->host.empty()) return false;
  options.listenHost = where->host;
  options.listenPort = where->port;
  return true;
}

}  // namespace

bool parseExporterOptions(int argc, char** argv, exporter_options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "--version") {
      (arg == "--help" ? options.help : options.version) = true;
      return true;
    }
    std::string value;
    if (const auto eq = arg.find('='); eq != std::string::npos && arg.starts_with("--")) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    } else if (arg.starts_with("--") && i + 1 < argc) {
      value = argv[++i];
    } else {
      error = arg.starts_with("--") ? arg + " needs a value" : "unknown argument " + arg;
      return false;
    }
    bool good = false;
    if (arg == "--web.listen-address") {
      good = listenAddress(value, options);
    } else if (arg == "--allow-target") {
      good = options.allowed.add(value);
    } else if (arg == "--probe.timeout") {
      good = duration(value, options.probeTimeout);
    } else {
      error = "unknown argument " + arg;
      return false;
    }
    if (!good) {
      error = "bad value for " + arg + ": " + value;
      return false;
    }
  }
  return true;
}

}  // namespace exporter
