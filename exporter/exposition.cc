#include "exposition.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <set>
#include <string_view>

#include "status/status_catalogue.h"

namespace exporter {

namespace {

using com::orvex::engine::metric_type;
using com::orvex::engine::status_key;
using com::orvex::engine::statusCatalogue;
using com::orvex::engine::value_kind;

void header(std::string& text, const char* name, const char* type, const char* help) {
  text.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
  text.append(name).append(" ").append(type).append("\n");
}

void sample(std::string& text, const std::string& series, double value) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  text.append(series).append(" ").append(digits, end).append("\n");
}

void sample(std::string& text, const std::string& series, std::uint64_t value) {
  char digits[20];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  text.append(series).append(" ").append(digits, end).append("\n");
}

// At most `limit` bytes of UTF-8 text, cut between characters.
std::string bounded(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
  return text.substr(0, end);
}

void appendUserValues(std::string& text, const com::orvex::engine::EngineStatus& status) {
  std::set<std::string> keys;  // a key the engine repeats is shown once, first value first
  std::uint64_t omitted = 0;
  std::string series;
  com::orvex::engine::forEachUserPair(
      status, [&](const std::string& key, const std::string& value) {
        if (keys.size() == maxUserSeries) {
          ++omitted;
          return;
        }
        const std::string shownKey = bounded(key, maxUserText);
        if (!keys.insert(shownKey).second) return;
        series += "orvex_user_status_info{key=\"" + labelValue(shownKey) + "\",value=\"" +
                  labelValue(bounded(value, maxUserText)) + "\"} 1\n";
      });
  header(text, "orvex_user_status_info", "gauge", "Values set by the engine's users.");
  text += series;
  header(text, "orvex_user_status_omitted", "gauge",
         "User values not shown, beyond the number the exporter shows.");
  sample(text, "orvex_user_status_omitted", omitted);
}

}  // namespace

std::string labelValue(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '"') escaped += '\\';
    if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

void appendEngineMetrics(std::string& text, const com::orvex::engine::EngineStatus& status) {
  std::string labels;  // of the info metric being gathered
  for (std::size_t i = 0; i < std::size(statusCatalogue); ++i) {
    const status_key& row = statusCatalogue[i];
    if (row.metricType == metric_type::info) {
      const char* value = status.getStatusString(row.key);
      labels += std::string(labels.empty() ? "" : ",") + row.metricLabel + "=\"" +
                labelValue(value != nullptr ? value : "") + "\"";
      const bool last = i + 1 == std::size(statusCatalogue) ||
                        std::string_view(statusCatalogue[i + 1].metric) != row.metric;
      if (!last) continue;
      const status_key& first = *std::find_if(
          statusCatalogue, statusCatalogue + i + 1,
          [&row](const status_key& r) { return std::string_view(r.metric) == row.metric; });
      header(text, row.metric, "gauge", first.metricHelp);
      sample(text, std::string(row.metric) + "{" + labels + "}", std::uint64_t{1});
      labels.clear();
      continue;
    }
    header(text, row.metric, row.metricType == metric_type::counter ? "counter" : "gauge",
           row.metricHelp);
    std::uint64_t number = status.getStatusInteger(row.key);
    if (row.kind == value_kind::u32) number = static_cast<std::uint32_t>(number);
    // The engine counts time in milliseconds; Prometheus's base unit is the second.
    if (std::string_view(row.metric).ends_with("_seconds")) {
      sample(text, row.metric, static_cast<double>(number) / 1000.0);
    } else {
      sample(text, row.metric, number);
    }
  }
  appendUserValues(text, status);
}

void appendProbeResult(std::string& text, bool up, double seconds) {
  header(text, "orvex_up", "gauge", "Whether the engine answered the probe.");
  sample(text, "orvex_up", std::uint64_t{up});
  header(text, "orvex_probe_duration_seconds", "gauge", "How long the probe took.");
  sample(text, "orvex_probe_duration_seconds", seconds);
}

const std::vector<double>& probeBuckets() {
  static const std::vector<double> bounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                             0.25,  0.5,    1,     2.5,  5,     10};
  return bounds;
}

void appendExporterMetrics(std::string& text, const exporter_figures& figures) {
  header(text, "vigilo_exporter_probes_total", "counter", "Probes answered, by result.");
  sample(text, "vigilo_exporter_probes_total{result=\"success\"}", figures.successes);
  sample(text, "vigilo_exporter_probes_total{result=\"failure\"}", figures.failures);
  header(text, "vigilo_exporter_probe_duration_seconds", "histogram", "How long the probes took.");
  for (std::size_t i = 0; i < probeBuckets().size(); ++i) {
    char bound[32];
    std::snprintf(bound, sizeof bound, "%g", probeBuckets()[i]);
    sample(text, std::string("vigilo_exporter_probe_duration_seconds_bucket{le=\"") + bound + "\"}",
           figures.durationBuckets[i]);
  }
  sample(text, "vigilo_exporter_probe_duration_seconds_bucket{le=\"+Inf\"}",
         figures.successes + figures.failures);
  sample(text, "vigilo_exporter_probe_duration_seconds_sum", figures.durationSum);
  sample(text, "vigilo_exporter_probe_duration_seconds_count",
         figures.successes + figures.failures);
  header(text, "vigilo_exporter_engine_connections", "gauge", "Kept-alive connections to engines.");
  sample(text, "vigilo_exporter_engine_connections", std::uint64_t{figures.engineConnections});
  header(text, "vigilo_exporter_http_connections", "gauge", "Client connections to the exporter.");
  sample(text, "vigilo_exporter_http_connections", std::uint64_t{figures.httpConnections});

  // The process: "utime stime" are the 14th and 15th fields of /proc/self/stat, after the name.
  std::ifstream stat("/proc/self/stat");
  std::string line;
  std::getline(stat, line);
  unsigned long ticks[2] = {0, 0};
  std::sscanf(line.c_str() + line.rfind(')') + 2,
              "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ticks[0], &ticks[1]);
  header(text, "process_cpu_seconds_total", "counter",
         "Total user and system CPU time spent in seconds.");
  sample(text, "process_cpu_seconds_total",
         static_cast<double>(ticks[0] + ticks[1]) / static_cast<double>(sysconf(_SC_CLK_TCK)));
  std::ifstream statm("/proc/self/statm");
  std::uint64_t pages = 0, resident = 0;
  statm >> pages >> resident;
  header(text, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
  sample(text, "process_resident_memory_bytes",
         resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
}

}  // namespace exporter
