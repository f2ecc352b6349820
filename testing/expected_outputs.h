// Test support: one engine snapshot and vigilo's whole outputs for it, written out as literals, so
// that a test compares every byte against text that the code under test did not produce. Every
// value is distinct, so that a swapped, dropped or mis-narrowed field shows: 32-bit keys hold
// values past 2^32, 64-bit keys 2^32 and 2^64 - 1, and the texts commas, a line feed and nothing.
// The processed count, which the event rate reads, is a parameter; without `texts`, the snapshot
// lacks its seven texts and the outputs show them empty.
#ifndef VIGILO_TESTING_EXPECTED_OUTPUTS_H_
#define VIGILO_TESTING_EXPECTED_OUTPUTS_H_

#include <cstdint>
#include <string>

#include "testing/fake_status.h"

namespace vigilo::test_support {

inline const std::string rawHeading =
    "Uptime (ms),# Contexts,# Monitors,# Sub-monitors,# Java apps,# Listeners,# Sub-listeners,"
    "# Event types,Input queue,# Received events,Route queue,# Routed events,# Consumers,"
    "Output queue,# Created output events,# Sent output events,# Processed events,"
    "Slowest context name,Slowest context queue size,Slowest receiver,Slowest receiver queue";

inline text_pairs snapshot(std::uint64_t processed = 22, bool texts = true) {
  const std::string p = std::to_string(processed);
  // clang-format off
  text_pairs pairs = {
      {"uptime", "18446744073709551615"}, {"numContexts", "4294967296"},
      {"numMonitors", "4294967297"},      {"numProcesses", "3"},
      {"numJavaApplications", "4"},       {"numListeners", "5"},
      {"numSubListeners", "6"},           {"numEventTypes", "7"},
      {"numQueuedInput", "8"},            {"numReceived", "4294967296"},
      {"numQueuedFastTrack", "11"},       {"numFastTracked", "12"},
      {"numConsumers", "13"},             {"numOutEventsQueued", "14"},
      {"numEmits", "15"},                 {"numOutEventsSent", "16"},
      {"numProcessed", p},                {"mostBackedUpICQueueSize", "24"},
      {"slowestReceiverQueueSize", "26"}, {"numInputQueuedInput", "27"}};
  // clang-format on
  if (texts) {
    pairs.insert(pairs.end(), {{"persistenceNumSnapshots", "17"},
                               {"persistenceLastSnapshotTime", "2026-11-22 10:00:00"},
                               {"persistenceSnapshotWaitTimeEwmaMillis", "1.5"},
                               {"persistenceCommitTimeEwmaMillis", ""},
                               {"persistenceLastSnapshotRowsChangedEwma", "a,b"},
                               {"mostBackedUpInputContext", "orders,eu"},
                               {"slowestReceiver", "line1\nline2"}});
  }
  return pairs;
}

// The raw values line, without a line end.
inline std::string rawLine(std::uint64_t processed = 22, bool texts = true) {
  return "18446744073709551615,0,1,3,4,5,6,7,8,4294967296,11,12,13,14,15,16," +
         std::string(texts ? "17,2026-11-22 10:00:00,1.5,,a,b," : ",,,,,") +
         std::to_string(processed) + (texts ? ",orders,eu,24,line1\nline2,26" : ",,24,,26");
}

// The 27 lines of the human-readable text.
inline std::string statusText(std::uint64_t processed = 22, bool texts = true) {
  const auto t = [texts](const char* text) { return std::string(texts ? text : ""); };
  // clang-format off
  return "Uptime(ms):                                   18446744073709551615\n"
         "Number of contexts:                           0\n"
         "Number of monitors:                           1\n"
         "Number of sub-monitors:                       3\n"
         "Number of Java applications:                  4\n"
         "Number of listeners:                          5\n"
         "Number of sub-listeners:                      6\n"
         "Number of event types:                        7\n"
         "Events on input queue:                        8\n"
         "Events received:                              4294967296\n"
         "Events processed:                             " + std::to_string(processed) + "\n"
         "Events on internal queue:                     11\n"
         "Events routed internally:                     12\n"
         "Number of consumers:                          13\n"
         "Events on output queue:                       14\n"
         "Output events created:                        15\n"
         "Output events sent:                           16\n"
         "Events on input context queues:               27\n"
         "Number of persistent snapshots:               " + t("17") + "\n"
         "Last persistent snapshot time:                " + t("2026-11-22 10:00:00") + "\n"
         "Persistent snapshot wait time Millis (EWMA):  " + t("1.5") + "\n"
         "Persistent commit time Millis (EWMA):         \n"
         "Last persistent snapshot rows changed (EWMA): " + t("a,b") + "\n"
         "Slowest context name:                         " + t("orders,eu") + "\n"
         "Slowest context queue size:                   24\n"
         "Slowest receiver name:                        " + t("line1\nline2") + "\n"
         "Slowest receiver queue size:                  26\n";
  // clang-format on
}

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_EXPECTED_OUTPUTS_H_
