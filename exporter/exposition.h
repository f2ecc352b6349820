// The Prometheus text exposition format (version 0.0.4) of an engine's status and of the
// exporter's own figures. Metric names, types and help come from the status catalogue: numbers
// are samples, in base units, and only texts that rarely change (the slowest context's and
// receiver's names) are labels, of `_info` metrics. User-set values are the labels of
// orvex_user_status_info. Everything an answer holds is bounded: the number of user series and
// the length of every label value, so that one probe's metrics never pass maxEngineAnswer bytes.
#ifndef VIGILO_EXPORTER_EXPOSITION_H_
#define VIGILO_EXPORTER_EXPOSITION_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine_connection.h"

namespace exporter {

inline constexpr const char* expositionType = "text/plain; version=0.0.4; charset=utf-8";
inline constexpr std::size_t maxUserSeries = 64;
inline constexpr std::size_t maxLabelText = 256;  // bytes of a label value, before escaping
inline constexpr std::size_t maxEngineAnswer = 96 * 1024;

// Appends the metrics of one engine's status, taken at `now`. Returns how many of the texts that
// hold a number or a time did not.
std::size_t appendEngineMetrics(std::string& text,
                                const com::orvex::client::status_snapshot& status,
                                std::chrono::system_clock::time_point now);

// Appends orvex_up and orvex_probe_duration_seconds: every probe ends with them.
void appendProbeResult(std::string& text, bool up, double seconds);

// A label value as the format writes it: backslash, double quote and line feed escaped.
std::string labelValue(const std::string& text);

// The exporter's own figures.
struct exporter_figures {
  std::uint64_t successes = 0;
  std::uint64_t failures = 0;
  std::uint64_t refusedBusy = 0;               // probes refused: as many running as allowed
  std::uint64_t refusedDescriptors = 0;        // probes refused: no file descriptor left
  std::uint64_t unparsedValues = 0;            // engines' texts that should have held a number
  std::vector<std::uint64_t> durationBuckets;  // cumulative, one per bound of probeBuckets
  double durationSum = 0;
  std::size_t engineConnections = 0;
  std::size_t httpConnections = 0;
};

// The upper bounds of the probe-duration histogram, in seconds.
const std::vector<double>& probeBuckets();

// Appends the exporter's own metrics, its build and those of its process (CPU time, memory,
// descriptors, start time).
void appendExporterMetrics(std::string& text, const exporter_figures& figures);

}  // namespace exporter

#endif  // VIGILO_EXPORTER_EXPOSITION_H_
