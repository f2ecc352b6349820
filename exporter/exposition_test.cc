#include "exposition.h"

#include <gtest/gtest.h>

#include "testing/expected_outputs.h"

namespace exporter {
namespace {

using com::orvex::client::snapshotOf;
using namespace vigilo::test_support;
using namespace std::chrono_literals;

const auto probeTime = std::chrono::system_clock::time_point(1'800'000'000'400ms);

std::string engineMetrics(const text_pairs& pairs, std::size_t* unparsed = nullptr) {
  std::string text;
  const std::size_t n = appendEngineMetrics(text, snapshotOf(pairs), probeTime);
  if (unparsed != nullptr) *unparsed = n;
  return text;
}

// The samples of one exposition whose metric names begin with `prefix`.
std::string samples(const std::string& text, const std::string& prefix) {
  std::string found;
  for (std::size_t at = text.find("\n" + prefix); at != std::string::npos;
       at = text.find("\n" + prefix, at + 1)) {
    found += text.substr(at + 1, text.find('\n', at + 1) - at);
  }
  return found;
}

// Whole metric blocks of one exposition: seconds from milliseconds, 32-bit values narrowed, a
// counter, the persistence texts as numbers (two of them are not), escaped label values.
TEST(ExpositionTest, ShowsTheCatalogueAsMetrics) {
  std::size_t unparsed = 0;
  const std::string text = engineMetrics(snapshot(4294967301ULL), &unparsed);
  for (const char* block : {
           "# HELP orvex_uptime_seconds Time since the engine started.\n"
           "# TYPE orvex_uptime_seconds gauge\n"
           "orvex_uptime_seconds 18446744073709552\n",
           "# TYPE orvex_contexts gauge\norvex_contexts 0\n",
           "# HELP orvex_events_processed_total Events processed.\n"
           "# TYPE orvex_events_processed_total counter\n"
           "orvex_events_processed_total 4294967301\n",
           "# TYPE orvex_persistence_snapshots_total counter\norvex_persistence_snapshots_total "
           "17\n",
           "\norvex_persistence_last_snapshot_timestamp_seconds 1795341600\n",
           "\norvex_persistence_snapshot_wait_seconds 0.0015\n",
           "orvex_slowest_receiver_info{receiver=\"line1\\nline2\"} 1\n",
       }) {
    EXPECT_NE(text.find(block), std::string::npos) << block << "\nin\n" << text;
  }
  EXPECT_EQ(samples(text, "orvex_persistence_commit") + samples(text, "orvex_persistence_rows"),
            "");
  EXPECT_EQ(unparsed, 2u);
  // One HELP and one TYPE per metric: 25 of the catalogue, the start time, two of the user
  // values and the count of cut label values.
  EXPECT_EQ(std::count(text.begin(), text.end(), '#'), 2 * 29);
}

TEST(ExpositionTest, ReadsNumbersAndTimesFromTexts) {
  struct row {
    std::string key, value, prefix, samples;
    std::size_t unparsed;
  };
  const std::string last = "orvex_persistence_last_snapshot_timestamp_seconds ";
  const row rows[] = {
      {"persistenceLastSnapshotTime", "never", last, "", 0},
      {"persistenceLastSnapshotTime", "1795341600123", last, last + "1795341600.123\n", 0},
      {"persistenceLastSnapshotTime", "2026-11-22T10:00:00.5Z", last, last + "1795341600.5\n", 0},
      {"persistenceLastSnapshotTime", "2026-11-22 10:00", last, "", 1},
      {"persistenceCommitTimeEwmaMillis", "250", "orvex_persistence_commit",
       "orvex_persistence_commit_seconds 0.25\n", 0},
      {"persistenceCommitTimeEwmaMillis", "nan", "orvex_persistence_commit", "", 1},
      {"persistenceNumSnapshots", "12x", "orvex_persistence_snapshots_total", "", 1},
      // The start time is the probe's time less the uptime, in whole seconds.
      {"uptime", "5000", "orvex_start", "orvex_start_time_seconds 1799999995\n", 0},
      {"uptime", "4400", "orvex_start", "orvex_start_time_seconds 1799999996\n", 0},
      {"numContexts", "1", "orvex_start", "", 0},
  };
  for (const row& r : rows) {
    std::size_t unparsed = 0;
    const std::string text = engineMetrics({{r.key, r.value}}, &unparsed);
    EXPECT_EQ(samples(text, r.prefix), r.samples) << r.key << " " << r.value;
    EXPECT_EQ(unparsed, r.unparsed) << r.key << " " << r.value;
  }
}

TEST(ExpositionTest, BoundsUserValuesAndLabels) {
  text_pairs script = {
      {"user-a", "1"}, {"numContexts", "4"}, {"user-a", "2"}, {"user-q", "\"\\\n"}};
  EXPECT_EQ(
      samples(engineMetrics(script), "orvex_user") + samples(engineMetrics(script), "orvex_label"),
      "orvex_user_status_info{key=\"user-a\",value=\"1\"} 1\n"
      "orvex_user_status_info{key=\"user-q\",value=\"\\\"\\\\\\n\"} 1\n"
      "orvex_user_status_omitted 0\n"
      "orvex_label_values_truncated 0\n");

  // Cut at a character boundary: 255 bytes of "a" then a two-byte character.
  script = {{"user-long", std::string(255, 'a') + "\xc3\xa9" + "tail"}};
  EXPECT_EQ(
      samples(engineMetrics(script), "orvex_user_status_info"),
      "orvex_user_status_info{key=\"user-long\",value=\"" + std::string(255, 'a') + "\"} 1\n");

  // The largest answer: every label value as long as can be and all of it escaped, and more
  // user values than are shown.
  const std::string huge(1 << 20, '"');
  script = {{"mostBackedUpInputContext", huge}, {"slowestReceiver", huge}};
  for (std::size_t i = 0; i < maxUserSeries + 3; ++i) {
    script.push_back({"user-" + std::to_string(1000 + i) + huge, huge});
  }
  std::string text = engineMetrics(script);
  appendProbeResult(text, true, 1e-9);
  EXPECT_LE(text.size(), maxEngineAnswer);
  EXPECT_EQ(samples(text, "orvex_user_status_omitted") + samples(text, "orvex_label"),
            "orvex_user_status_omitted 3\norvex_label_values_truncated 130\n");
}

}  // namespace
}  // namespace exporter
