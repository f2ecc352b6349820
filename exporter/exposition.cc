#include "exposition.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string_view>

#include "status/status_catalogue.h"
#include "support/version.h"

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

// Label values of one answer, each cut to maxLabelText bytes between characters and escaped;
// the cut ones are counted.
struct label_values {
  std::string operator()(const std::string& text) {
    if (text.size() <= maxLabelText) return labelValue(text);
    ++truncated;
    std::size_t end = maxLabelText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
    return labelValue(text.substr(0, end));
  }
  std::uint64_t truncated = 0;
};

// A decimal number, the whole text, finite.
std::optional<double> number(std::string_view text) {
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() ||
      !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

// A time of day as the engine writes it, in seconds since the epoch: milliseconds since the epoch,
// or "2026-11-22 10:00:00" (a 'T' for the blank, fractions of a second and a 'Z' allowed) in UTC.
std::optional<double> timestamp(const std::string& text) {
  if (const auto ms = number(text)) return *ms / 1000;
  tm fields{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%d", &fields);
  if (rest == nullptr || (*rest != ' ' && *rest != 'T')) return std::nullopt;
  rest = strptime(rest + 1, "%H:%M:%S", &fields);
  if (rest == nullptr) return std::nullopt;
  double fraction = 0;
  if (*rest == '.') {
    const char* digits = ++rest;
    while (std::isdigit(static_cast<unsigned char>(*rest))) ++rest;
    if (rest == digits) return std::nullopt;
    fraction = std::stod("0." + std::string(digits, rest));
  }
  if (*rest == 'Z') ++rest;
  if (*rest != '\0') return std::nullopt;
  return static_cast<double>(timegm(&fields)) + fraction;
}

void appendUserValues(std::string& text, const com::orvex::client::status_snapshot& status,
                      label_values& labels) {
  std::set<std::string> keys;  // a key the engine repeats is shown once, first value first
  std::uint64_t omitted = 0;
  std::string series;
  const com::orvex::client::pair_table& pairs = status.pairs();
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (!com::orvex::engine::isUserKey(pairs.key(i))) continue;
    if (keys.size() == maxUserSeries) {
      ++omitted;
      continue;
    }
    std::string shownKey = labels(pairs.key(i));
    if (!keys.insert(shownKey).second) continue;
    series += "orvex_user_status_info{key=\"" + shownKey + "\",value=\"" + labels(pairs.value(i)) +
              "\"} 1\n";
  }
  header(text, "orvex_user_status_info", "gauge", "Values set by the engine's users.");
  text += series;
  header(text, "orvex_user_status_omitted", "gauge",
         "User values not shown, beyond the number the exporter shows.");
  sample(text, "orvex_user_status_omitted", omitted);
}

// The process's figures from /proc: "utime stime" are its 14th and 15th fields, "starttime" the
// 22nd, counted after the name; the boot time is /proc/stat's "btime".
void appendProcessMetrics(std::string& text) {
  std::ifstream stat("/proc/self/stat");
  std::string line;
  std::getline(stat, line);
  unsigned long ticks[2] = {0, 0};
  unsigned long long started = 0;
  std::sscanf(line.c_str() + line.rfind(')') + 2,
              "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %*d %*d %llu",
              &ticks[0], &ticks[1], &started);
  const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  header(text, "process_cpu_seconds_total", "counter",
         "Total user and system CPU time spent in seconds.");
  sample(text, "process_cpu_seconds_total", static_cast<double>(ticks[0] + ticks[1]) / tick);

  std::ifstream statm("/proc/self/statm");
  std::uint64_t pages = 0, resident = 0;
  statm >> pages >> resident;
  const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  header(text, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.");
  sample(text, "process_virtual_memory_bytes", pages * pageSize);
  header(text, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
  sample(text, "process_resident_memory_bytes", resident * pageSize);

  std::error_code error;
  std::uint64_t open = 0;
  for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
       it.increment(error)) {
    ++open;
  }
  header(text, "process_open_fds", "gauge", "Number of open file descriptors.");
  sample(text, "process_open_fds", open);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  header(text, "process_max_fds", "gauge", "Maximum number of open file descriptors.");
  sample(text, "process_max_fds", static_cast<std::uint64_t>(files.rlim_cur));

  std::ifstream system("/proc/stat");
  std::uint64_t boot = 0;
  for (std::string word; system >> word;) {
    if (word == "btime") {
      system >> boot;
      break;
    }
  }
  header(text, "process_start_time_seconds", "gauge",
         "Start time of the process since unix epoch in seconds.");
  sample(text, "process_start_time_seconds", static_cast<double>(boot) + started / tick);
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

std::size_t appendEngineMetrics(std::string& text,
                                const com::orvex::client::status_snapshot& status,
                                std::chrono::system_clock::time_point now) {
  static constexpr const status_key& uptimeRow = com::orvex::engine::catalogueRow("uptime");
  label_values labels;
  std::size_t unparsed = 0;
  for (const status_key& row : statusCatalogue) {
    const char* type = row.metricType == metric_type::counter ? "counter" : "gauge";
    // The engine counts durations in milliseconds; Prometheus's base unit is the second.
    const double scale = std::string_view(row.metric).ends_with("_seconds") ? 1000.0 : 1.0;
    if (row.metricType == metric_type::info) {
      const char* value = status.find(row.key);
      header(text, row.metric, type, row.metricHelp);
      sample(text,
             std::string(row.metric) + "{" + row.metricLabel + "=\"" +
                 labels(value != nullptr ? value : "") + "\"}",
             std::uint64_t{1});
    } else if (row.kind == value_kind::text) {
      const char* value = status.find(row.key);
      if (value == nullptr) continue;  // an engine that does not say
      const std::string shown = value;
      if (row.metricType == metric_type::timestamp && shown == "never") continue;
      std::optional<double> parsed =
          row.metricType == metric_type::timestamp ? timestamp(shown) : number(shown);
      if (parsed && row.metricType == metric_type::number) *parsed /= scale;
      if (!parsed) {
        ++unparsed;
        continue;
      }
      header(text, row.metric, type, row.metricHelp);
      sample(text, row.metric, *parsed);
    } else {
      header(text, row.metric, type, row.metricHelp);
      std::uint64_t value = status.number(row.key);
      if (row.kind == value_kind::u32) value = static_cast<std::uint32_t>(value);
      if (scale == 1.0) {
        sample(text, row.metric, value);
      } else {
        sample(text, row.metric, static_cast<double>(value) / scale);
      }
    }
    if (&row == &uptimeRow && status.find(row.key) != nullptr) {
      // Whole seconds: the engine's uptime and this exporter's clock are read a moment apart,
      // and a start time that wandered by milliseconds would look like a restart. An engine
      // that gives no uptime gives no start time, rather than one that moves with every probe.
      const auto sinceEpoch =
          std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
      const double started = std::round(
          (static_cast<double>(sinceEpoch) - static_cast<double>(status.number(row.key))) / 1000.0);
      header(text, "orvex_start_time_seconds", "gauge",
             "When the engine started, in seconds since the epoch.");
      sample(text, "orvex_start_time_seconds", started);
    }
  }
  appendUserValues(text, status, labels);
  header(text, "orvex_label_values_truncated", "gauge",
         "Label values of this answer cut to their longest length.");
  sample(text, "orvex_label_values_truncated", labels.truncated);
  return unparsed;
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
  header(text, "vigilo_exporter_build_info", "gauge", "The exporter's build, as labels.");
  sample(text,
         "vigilo_exporter_build_info{version=\"" VIGILO_VERSION "\",revision=\"" +
             labelValue(VIGILO_BUILD_TAG) + "\",platform=\"" VIGILO_PLATFORM_TAG "\"}",
         std::uint64_t{1});
  header(text, "vigilo_exporter_probes_total", "counter", "Probes answered, by result.");
  sample(text, "vigilo_exporter_probes_total{result=\"success\"}", figures.successes);
  sample(text, "vigilo_exporter_probes_total{result=\"failure\"}", figures.failures);
  header(text, "vigilo_exporter_probes_refused_total", "counter",
         "Probes refused with 503, by reason.");
  sample(text, "vigilo_exporter_probes_refused_total{reason=\"busy\"}", figures.refusedBusy);
  sample(text, "vigilo_exporter_probes_refused_total{reason=\"descriptors\"}",
         figures.refusedDescriptors);
  header(text, "vigilo_exporter_unparsed_values_total", "counter",
         "Engines' status texts that should have held a number and did not.");
  sample(text, "vigilo_exporter_unparsed_values_total", figures.unparsedValues);
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
  appendProcessMetrics(text);
}

}  // namespace exporter
