// The catalogue of standard status keys: the one table from which the raw heading line, the raw
// values line and the human-readable text are all rendered. A key, a heading or a label appears
// nowhere else in the program.
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

struct status_key {
  const char* key;  // spelled as the engine spells it
  value_kind kind;
  bool inRaw;              // a field of the raw values line
  const char* rawHeading;  // heading in the raw heading line, or null for none
  int textLine;            // 1-based line of the human-readable text
  const char* label;       // label of that line, colon included
};

// In the order of the raw values line; the raw headings follow the same order.
inline constexpr status_key statusCatalogue[] = {
    {"uptime", value_kind::u64, true, "Uptime (ms)", 1, "Uptime(ms):"},
    {"numContexts", value_kind::u32, true, "# Contexts", 2, "Number of contexts:"},
    {"numMonitors", value_kind::u32, true, "# Monitors", 3, "Number of monitors:"},
    {"numProcesses", value_kind::u32, true, "# Sub-monitors", 4, "Number of sub-monitors:"},
    {"numJavaApplications", value_kind::u32, true, "# Java apps", 5,
     "Number of Java applications:"},
    {"numListeners", value_kind::u32, true, "# Listeners", 6, "Number of listeners:"},
    {"numSubListeners", value_kind::u32, true, "# Sub-listeners", 7, "Number of sub-listeners:"},
    {"numEventTypes", value_kind::u32, true, "# Event types", 8, "Number of event types:"},
    {"numQueuedInput", value_kind::u32, true, "Input queue", 9, "Events on input queue:"},
    {"numReceived", value_kind::u64, true, "# Received events", 10, "Events received:"},
    {"numQueuedFastTrack", value_kind::u32, true, "Route queue", 12, "Events on internal queue:"},
    {"numFastTracked", value_kind::u64, true, "# Routed events", 13, "Events routed internally:"},
    {"numConsumers", value_kind::u32, true, "# Consumers", 14, "Number of consumers:"},
    {"numOutEventsQueued", value_kind::u32, true, "Output queue", 15, "Events on output queue:"},
    {"numEmits", value_kind::u64, true, "# Created output events", 16, "Output events created:"},
    {"numOutEventsSent", value_kind::u64, true, "# Sent output events", 17, "Output events sent:"},
    {"persistenceNumSnapshots", value_kind::text, true, nullptr, 19,
     "Number of persistent snapshots:"},
    {"persistenceLastSnapshotTime", value_kind::text, true, nullptr, 20,
     "Last persistent snapshot time:"},
    {"persistenceSnapshotWaitTimeEwmaMillis", value_kind::text, true, nullptr, 21,
     "Persistent snapshot wait time Millis (EWMA):"},
    {"persistenceCommitTimeEwmaMillis", value_kind::text, true, nullptr, 22,
     "Persistent commit time Millis (EWMA):"},
    {"persistenceLastSnapshotRowsChangedEwma", value_kind::text, true, nullptr, 23,
     "Last persistent snapshot rows changed (EWMA):"},
    {"numProcessed", value_kind::u64, true, "# Processed events", 11, "Events processed:"},
    {"mostBackedUpInputContext", value_kind::text, true, "Slowest context name", 24,
     "Slowest context name:"},
    {"mostBackedUpICQueueSize", value_kind::u32, true, "Slowest context queue size", 25,
     "Slowest context queue size:"},
    {"slowestReceiver", value_kind::text, true, "Slowest receiver", 26, "Slowest receiver name:"},
    {"slowestReceiverQueueSize", value_kind::u32, true, "Slowest receiver queue", 27,
     "Slowest receiver queue size:"},
    {"numInputQueuedInput", value_kind::u32, false, nullptr, 18, "Events on input context queues:"},
};

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

// The row of the processed-events count, which the event rate also reads.
inline constexpr const status_key& processedRow = catalogueRow("numProcessed");

}  // namespace com::orvex::engine

#endif  // VIGILO_SRC_STATUS_STATUS_CATALOGUE_H_
