// Test support: whole outputs of vigilo written out as literals, so that a test compares every
// byte against text that the code under test did not produce. The snapshot behind them holds 7
// for every number and `text` for every text, except the processed count.
#ifndef VIGILO_TESTING_EXPECTED_OUTPUTS_H_
#define VIGILO_TESTING_EXPECTED_OUTPUTS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "status/status_catalogue.h"
#include "testing/fake_status.h"

namespace vigilo::test_support {

inline const std::string rawHeading =
    "Uptime (ms),# Contexts,# Monitors,# Sub-monitors,# Java apps,# Listeners,# Sub-listeners,"
    "# Event types,Input queue,# Received events,Route queue,# Routed events,# Consumers,"
    "Output queue,# Created output events,# Sent output events,# Processed events,"
    "Slowest context name,Slowest context queue size,Slowest receiver,Slowest receiver queue";

// The raw values line, without a line end.
inline std::string raw7(const std::string& processed, const std::string& t = "t") {
  return "7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7," + t + "," + t + "," + t + "," + t + "," + t + "," +
         processed + "," + t + ",7," + t + ",7";
}

// The 27 lines of the human-readable text.
inline std::string text7(const std::string& processed, const std::string& t = "t") {
  // clang-format off
  return "Uptime(ms):                                   7\n"
         "Number of contexts:                           7\n"
         "Number of monitors:                           7\n"
         "Number of sub-monitors:                       7\n"
         "Number of Java applications:                  7\n"
         "Number of listeners:                          7\n"
         "Number of sub-listeners:                      7\n"
         "Number of event types:                        7\n"
         "Events on input queue:                        7\n"
         "Events received:                              7\n"
         "Events processed:                             " + processed + "\n"
         "Events on internal queue:                     7\n"
         "Events routed internally:                     7\n"
         "Number of consumers:                          7\n"
         "Events on output queue:                       7\n"
         "Output events created:                        7\n"
         "Output events sent:                           7\n"
         "Events on input context queues:               7\n"
         "Number of persistent snapshots:               " + t + "\n"
         "Last persistent snapshot time:                " + t + "\n"
         "Persistent snapshot wait time Millis (EWMA):  " + t + "\n"
         "Persistent commit time Millis (EWMA):         " + t + "\n"
         "Last persistent snapshot rows changed (EWMA): " + t + "\n"
         "Slowest context name:                         " + t + "\n"
         "Slowest context queue size:                   7\n"
         "Slowest receiver name:                        " + t + "\n"
         "Slowest receiver queue size:                  7\n";
  // clang-format on
}

// The snapshot behind them, as a fake status object's script: `text` null gives null texts.
inline fake_status_script snapshot7(std::uint64_t processed,
                                    const std::optional<std::string>& text = "t") {
  fake_status_script script;
  for (const auto& row : com::orvex::engine::statusCatalogue) {
    if (row.kind == com::orvex::engine::value_kind::text) {
      script.strings[row.key] = text;
    } else {
      script.integers[row.key] = 7;
    }
  }
  script.integers[com::orvex::engine::processedRow.key] = processed;
  return script;
}

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_EXPECTED_OUTPUTS_H_
