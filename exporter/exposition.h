// The Prometheus text exposition format (version 0.0.4) of an engine's status and of the
// exporter's own figures. Metric names, types and help come from the status catalogue; texts
// become labels of `_info` metrics, and user-set values the labels of orvex_user_status_info,
// bounded in number and length.
#ifndef VIGILO_EXPORTER_EXPOSITION_H_
#define VIGILO_EXPORTER_EXPOSITION_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "status/EngineStatus.h"

namespace exporter {

inline constexpr const char* expositionType = "text/plain; version=0.0.4; charset=utf-8";
inline constexpr std::size_t maxUserSeries = 64;
inline constexpr std::size_t maxUserText = 256;  // bytes of a user key or value

// Appends the metrics of one engine's status.
void appendEngineMetrics(std::string& text, const com::orvex::engine::EngineStatus& status);

// Appends orvex_up and orvex_probe_duration_seconds: every probe ends with them.
void appendProbeResult(std::string& text, bool up, double seconds);

// A label value as the format writes it: backslash, double quote and line feed escaped.
std::string labelValue(const std::string& text);

// The exporter's own figures.
struct exporter_figures {
  std::uint64_t successes = 0;
  std::uint64_t failures = 0;
  std::vector<std::uint64_t> durationBuckets;  // cumulative, one per bound of probeBuckets
  double durationSum = 0;
  std::size_t engineConnections = 0;
  std::size_t httpConnections = 0;
};

// The upper bounds of the probe-duration histogram, in seconds.
const std::vector<double>& probeBuckets();

// Appends the exporter's own metrics and those of its process (CPU time, resident memory).
void appendExporterMetrics(std::string& text, const exporter_figures& figures);

}  // namespace exporter

#endif  // VIGILO_EXPORTER_EXPOSITION_H_
