#include "exposition.h"

#include <gtest/gtest.h>

#include "testing/expected_outputs.h"

namespace exporter {
namespace {

using com::orvex::engine::EngineStatus;
using namespace vigilo::test_support;

std::string engineMetrics(const fake_status_script& script) {
  std::string text;
  appendEngineMetrics(text, EngineStatus(newFakeStatus(script)));
  return text;
}

// The user-value part of an exposition: its two metrics' samples.
std::string userSamples(const fake_status_script& script) {
  const std::string text = engineMetrics(script);
  std::string samples;
  for (std::size_t at = text.find("\norvex_user"); at != std::string::npos;
       at = text.find("\norvex_user", at + 1)) {
    samples += text.substr(at + 1, text.find('\n', at + 1) - at);
  }
  return samples;
}

// Whole metric blocks of one exposition: seconds from milliseconds, 32-bit values narrowed, a
// counter, the five persistence texts as the labels of one info metric, escaped label values.
TEST(ExpositionTest, ShowsTheCatalogueAsMetrics) {
  const std::string text = engineMetrics(scriptOf(snapshot(4294967301ULL)));
  for (const char* block : {
           "# HELP orvex_uptime_seconds Time since the engine started.\n"
           "# TYPE orvex_uptime_seconds gauge\n"
           "orvex_uptime_seconds 18446744073709552\n",
           "# TYPE orvex_contexts gauge\norvex_contexts 0\n",
           "# HELP orvex_events_processed_total Events processed.\n"
           "# TYPE orvex_events_processed_total counter\n"
           "orvex_events_processed_total 4294967301\n",
           "# TYPE orvex_persistence_info gauge\n"
           "orvex_persistence_info{snapshots=\"17\",last_snapshot_time=\"2026-11-22 10:00:00\","
           "snapshot_wait_ms_ewma=\"1.5\",commit_ms_ewma=\"\",rows_changed_ewma=\"a,b\"} 1\n",
           "orvex_slowest_receiver_info{receiver=\"line1\\nline2\"} 1\n",
       }) {
    EXPECT_NE(text.find(block), std::string::npos) << block << "\nin\n" << text;
  }
  // One HELP and one TYPE per metric: 23 of the catalogue, two of the user values.
  EXPECT_EQ(std::count(text.begin(), text.end(), '#'), 2 * 25);
}

TEST(ExpositionTest, BoundsUserValues) {
  fake_status_script script;
  script.pairs = {{"user-a", "1"}, {"numContexts", "4"}, {"user-a", "2"}, {"user-q", "\"\\\n"}};
  EXPECT_EQ(userSamples(script),
            "orvex_user_status_info{key=\"user-a\",value=\"1\"} 1\n"
            "orvex_user_status_info{key=\"user-q\",value=\"\\\"\\\\\\n\"} 1\n"
            "orvex_user_status_omitted 0\n");

  // Cut at a character boundary: 255 bytes of "a" then a two-byte character.
  script.pairs = {{"user-long", std::string(255, 'a') + "\xc3\xa9" + "tail"}};
  EXPECT_EQ(userSamples(script), "orvex_user_status_info{key=\"user-long\",value=\"" +
                                     std::string(255, 'a') +
                                     "\"} 1\n"
                                     "orvex_user_status_omitted 0\n");

  script.pairs.clear();
  for (std::size_t i = 0; i < maxUserSeries + 3; ++i) {
    script.pairs.push_back({"user-" + std::to_string(1000 + i), "v"});
  }
  const std::string samples = userSamples(script);
  EXPECT_EQ(std::count(samples.begin(), samples.end(), '\n'), maxUserSeries + 1);
  EXPECT_TRUE(samples.ends_with("key=\"user-1063\",value=\"v\"} 1\norvex_user_status_omitted 3\n"));
}

}  // namespace
}  // namespace exporter
