// The catalogue of standard status keys: the one table from which the raw heading line, the raw
// values line, the human-readable text and the exporter's metrics are all rendered, and the rule
// that tells the users' keys from them. A key, a heading, a label or a metric name appears
// nowhere else.
#ifndef VIGILO_SRC_STATUS_STATUS_CATALOGUE_H_
#define VIGILO_SRC_STATUS_STATUS_CATALOGUE_H_

#include <array>
#include <cstddef>
#include <string_view>

namespace com::orvex::engine {

// How a key is read from the status object and written.
enum class value_kind {
  u32,   // getStatusInteger, narrowed to its low 32 bits
  u64,   // getStatusInteger, in full
  text,  // getStatusString, written as received
};

// How the exporter shows a value. A `_seconds` metric of a duration comes from the engine's
// milliseconds.
enum class metric_type {
  counter,  // read from a number, or from a text that holds one
  gauge,
  info,       // the text as the one label of an `_info` metric whose value is 1
  number,     // a gauge read from a text that holds a decimal number
  timestamp,  // a gauge read from a text that holds a time of day; absent while it says "never"
};

struct status_key {
  const char* key;  // spelled as the engine spells it
  value_kind kind;
  bool inRaw;              // a field of the raw values line
  const char* rawHeading;  // heading in the raw heading line, or null for none
  int textLine;            // 1-based line of the human-readable text
  const char* label;       // label of that line, colon included
  const char* metric;      // the Prometheus metric that shows it
  metric_type metricType;
  const char* metricHelp;
  const char* metricLabel;  // the label that carries the text, for info metrics
};

// In the order of the raw values line; the raw headings follow the same order.
// clang-format off
inline constexpr status_key statusCatalogue[] = {
    {"uptime", value_kind::u64, true, "Uptime (ms)", 1, "Uptime(ms):",
     "orvex_uptime_seconds", metric_type::gauge, "Time since the engine started.", nullptr},
    {"numContexts", value_kind::u32, true, "# Contexts", 2, "Number of contexts:",
     "orvex_contexts", metric_type::gauge, "Contexts processing events.", nullptr},
    {"numMonitors", value_kind::u32, true, "# Monitors", 3, "Number of monitors:",
     "orvex_monitors", metric_type::gauge, "Monitors.", nullptr},
    {"numProcesses", value_kind::u32, true, "# Sub-monitors", 4, "Number of sub-monitors:",
     "orvex_sub_monitors", metric_type::gauge, "Sub-monitors.", nullptr},
    {"numJavaApplications", value_kind::u32, true, "# Java apps", 5, "Number of Java applications:",
     "orvex_java_applications", metric_type::gauge, "Java applications.", nullptr},
    {"numListeners", value_kind::u32, true, "# Listeners", 6, "Number of listeners:",
     "orvex_listeners", metric_type::gauge, "Listeners.", nullptr},
    {"numSubListeners", value_kind::u32, true, "# Sub-listeners", 7, "Number of sub-listeners:",
     "orvex_sub_listeners", metric_type::gauge, "Sub-listeners.", nullptr},
    {"numEventTypes", value_kind::u32, true, "# Event types", 8, "Number of event types:",
     "orvex_event_types", metric_type::gauge, "Event types known.", nullptr},
    {"numQueuedInput", value_kind::u32, true, "Input queue", 9, "Events on input queue:",
     "orvex_input_queue_events", metric_type::gauge, "Events waiting on the input queue.", nullptr},
    {"numReceived", value_kind::u64, true, "# Received events", 10, "Events received:",
     "orvex_events_received_total", metric_type::counter, "Events received.", nullptr},
    {"numQueuedFastTrack", value_kind::u32, true, "Route queue", 12, "Events on internal queue:",
     "orvex_internal_queue_events", metric_type::gauge, "Events waiting to be routed.", nullptr},
    {"numFastTracked", value_kind::u64, true, "# Routed events", 13, "Events routed internally:",
     "orvex_events_routed_total", metric_type::counter, "Events routed to a context.", nullptr},
    {"numConsumers", value_kind::u32, true, "# Consumers", 14, "Number of consumers:",
     "orvex_consumers", metric_type::gauge, "Consumers of output events.", nullptr},
    {"numOutEventsQueued", value_kind::u32, true, "Output queue", 15, "Events on output queue:",
     "orvex_output_queue_events", metric_type::gauge, "Output events waiting to be sent.", nullptr},
    {"numEmits", value_kind::u64, true, "# Created output events", 16, "Output events created:",
     "orvex_output_events_created_total", metric_type::counter, "Output events created.", nullptr},
    {"numOutEventsSent", value_kind::u64, true, "# Sent output events", 17, "Output events sent:",
     "orvex_output_events_sent_total", metric_type::counter, "Output events sent.", nullptr},
    {"persistenceNumSnapshots", value_kind::text, true, nullptr, 19, "Number of persistent snapshots:",
     "orvex_persistence_snapshots_total", metric_type::counter, "Persistent snapshots taken.", nullptr},
    {"persistenceLastSnapshotTime", value_kind::text, true, nullptr, 20, "Last persistent snapshot time:",
     "orvex_persistence_last_snapshot_timestamp_seconds", metric_type::timestamp, "When the last persistent snapshot was taken.", nullptr},
    {"persistenceSnapshotWaitTimeEwmaMillis", value_kind::text, true, nullptr, 21, "Persistent snapshot wait time Millis (EWMA):",
     "orvex_persistence_snapshot_wait_seconds", metric_type::number, "Wait for a persistent snapshot, a moving average.", nullptr},
    {"persistenceCommitTimeEwmaMillis", value_kind::text, true, nullptr, 22, "Persistent commit time Millis (EWMA):",
     "orvex_persistence_commit_seconds", metric_type::number, "Commit time of a persistent snapshot, a moving average.", nullptr},
    {"persistenceLastSnapshotRowsChangedEwma", value_kind::text, true, nullptr, 23, "Last persistent snapshot rows changed (EWMA):",
     "orvex_persistence_rows_changed", metric_type::number, "Rows a persistent snapshot changed, a moving average.", nullptr},
    {"numProcessed", value_kind::u64, true, "# Processed events", 11, "Events processed:",
     "orvex_events_processed_total", metric_type::counter, "Events processed.", nullptr},
    {"mostBackedUpInputContext", value_kind::text, true, "Slowest context name", 24, "Slowest context name:",
     "orvex_slowest_context_info", metric_type::info, "The context with the most events waiting.", "context"},
    {"mostBackedUpICQueueSize", value_kind::u32, true, "Slowest context queue size", 25, "Slowest context queue size:",
     "orvex_slowest_context_queue_events", metric_type::gauge, "Events waiting on the slowest context's queue.", nullptr},
    {"slowestReceiver", value_kind::text, true, "Slowest receiver", 26, "Slowest receiver name:",
     "orvex_slowest_receiver_info", metric_type::info, "The receiver with the most output events waiting.", "receiver"},
    {"slowestReceiverQueueSize", value_kind::u32, true, "Slowest receiver queue", 27, "Slowest receiver queue size:",
     "orvex_slowest_receiver_queue_events", metric_type::gauge, "Output events waiting for the slowest receiver.", nullptr},
    {"numInputQueuedInput", value_kind::u32, false, nullptr, 18, "Events on input context queues:",
     "orvex_context_queue_events", metric_type::gauge, "Events waiting on the contexts' input queues.", nullptr},
};
// clang-format on

inline constexpr std::size_t statusKeyCount = std::size(statusCatalogue);

// Width of the label field of the human-readable text: the value starts in the next column.
inline constexpr std::size_t labelFieldWidth = 46;

// Catalogue indices in the order of the human-readable text's lines.
inline constexpr std::array<std::size_t, statusKeyCount> textOrder = [] {
  std::array<std::size_t, statusKeyCount> order{};
  for (std::size_t i = 0; i < statusKeyCount; ++i) {
    order[statusCatalogue[i].textLine - 1] = i;
  }
  return order;
}();

// Every line of the human-readable text belongs to exactly one key, and every label leaves at
// least one blank before its value.
static_assert([] {
  std::array<int, statusKeyCount> seen{};
  for (const status_key& k : statusCatalogue) {
    if (k.textLine < 1 || k.textLine > static_cast<int>(statusKeyCount)) return false;
    if (++seen[k.textLine - 1] != 1) return false;
    if (std::string_view(k.label).size() >= labelFieldWidth) return false;
  }
  return true;
}());

// The row of `key`. Taken in a constant expression, a key that is not in the catalogue does not
// compile.
consteval const status_key& catalogueRow(std::string_view key) {
  for (const status_key& row : statusCatalogue) {
    if (key == row.key) return row;
  }
  throw "not a key of the status catalogue";
}

// The rule that tells a user-set value from the others: its key contains "user-" anywhere, not
// only at its start.
inline bool isUserKey(std::string_view key) { return key.find("user-") != std::string_view::npos; }

// The row of the processed-events count, which the event rate also reads.
inline constexpr const status_key& processedRow = catalogueRow("numProcessed");

}  // namespace com::orvex::engine

#endif  // VIGILO_SRC_STATUS_STATUS_CATALOGUE_H_
