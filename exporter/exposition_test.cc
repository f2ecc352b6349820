#include "exposition.h"

#include <gtest/gtest.h>

#include "testing/expected_outputs.h"

namespace exporter {
namespace {

using com::orvex::engine::EngineStatus;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::newFakeStatus;
using vigilo::test_support::snapshot7;

std::string engineMetrics(const fake_status_script& script) {
  std::string text;
  appendEngineMetrics(text, EngineStatus(newFakeStatus(script, nullptr)));
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

TEST(ExpositionTest, ShowsEveryCatalogueKeyOnce) {
  fake_status_script script = snapshot7(4294967301ULL);
  script.strings["slowestReceiver"] = "r\"1\\\n";
  EXPECT_EQ(engineMetrics(script),
            "# HELP orvex_uptime_seconds Time since the engine started.\n"
            "# TYPE orvex_uptime_seconds gauge\n"
            "orvex_uptime_seconds 0.007\n"
            "# HELP orvex_contexts Contexts processing events.\n"
            "# TYPE orvex_contexts gauge\n"
            "orvex_contexts 7\n"
            "# HELP orvex_monitors Monitors.\n"
            "# TYPE orvex_monitors gauge\n"
            "orvex_monitors 7\n"
            "# HELP orvex_sub_monitors Sub-monitors.\n"
            "# TYPE orvex_sub_monitors gauge\n"
            "orvex_sub_monitors 7\n"
            "# HELP orvex_java_applications Java applications.\n"
            "# TYPE orvex_java_applications gauge\n"
            "orvex_java_applications 7\n"
            "# HELP orvex_listeners Listeners.\n"
            "# TYPE orvex_listeners gauge\n"
            "orvex_listeners 7\n"
            "# HELP orvex_sub_listeners Sub-listeners.\n"
            "# TYPE orvex_sub_listeners gauge\n"
            "orvex_sub_listeners 7\n"
            "# HELP orvex_event_types Event types known.\n"
            "# TYPE orvex_event_types gauge\n"
            "orvex_event_types 7\n"
            "# HELP orvex_input_queue_events Events waiting on the input queue.\n"
            "# TYPE orvex_input_queue_events gauge\n"
            "orvex_input_queue_events 7\n"
            "# HELP orvex_events_received_total Events received.\n"
            "# TYPE orvex_events_received_total counter\n"
            "orvex_events_received_total 7\n"
            "# HELP orvex_internal_queue_events Events waiting to be routed.\n"
            "# TYPE orvex_internal_queue_events gauge\n"
            "orvex_internal_queue_events 7\n"
            "# HELP orvex_events_routed_total Events routed to a context.\n"
            "# TYPE orvex_events_routed_total counter\n"
            "orvex_events_routed_total 7\n"
            "# HELP orvex_consumers Consumers of output events.\n"
            "# TYPE orvex_consumers gauge\n"
            "orvex_consumers 7\n"
            "# HELP orvex_output_queue_events Output events waiting to be sent.\n"
            "# TYPE orvex_output_queue_events gauge\n"
            "orvex_output_queue_events 7\n"
            "# HELP orvex_output_events_created_total Output events created.\n"
            "# TYPE orvex_output_events_created_total counter\n"
            "orvex_output_events_created_total 7\n"
            "# HELP orvex_output_events_sent_total Output events sent.\n"
            "# TYPE orvex_output_events_sent_total counter\n"
            "orvex_output_events_sent_total 7\n"
            "# HELP orvex_persistence_info The engine's persistence, as its texts give it.\n"
            "# TYPE orvex_persistence_info gauge\n"
            "orvex_persistence_info{snapshots=\"t\",last_snapshot_time=\"t\","
            "snapshot_wait_ms_ewma=\"t\",commit_ms_ewma=\"t\",rows_changed_ewma=\"t\"} 1\n"
            "# HELP orvex_events_processed_total Events processed.\n"
            "# TYPE orvex_events_processed_total counter\n"
            "orvex_events_processed_total 4294967301\n"
            "# HELP orvex_slowest_context_info The context with the most events waiting.\n"
            "# TYPE orvex_slowest_context_info gauge\n"
            "orvex_slowest_context_info{context=\"t\"} 1\n"
            "# HELP orvex_slowest_context_queue_events Events waiting on the slowest context's "
            "queue.\n"
            "# TYPE orvex_slowest_context_queue_events gauge\n"
            "orvex_slowest_context_queue_events 7\n"
            "# HELP orvex_slowest_receiver_info The receiver with the most output events "
            "waiting.\n"
            "# TYPE orvex_slowest_receiver_info gauge\n"
            "orvex_slowest_receiver_info{receiver=\"r\\\"1\\\\\\n\"} 1\n"
            "# HELP orvex_slowest_receiver_queue_events Output events waiting for the slowest "
            "receiver.\n"
            "# TYPE orvex_slowest_receiver_queue_events gauge\n"
            "orvex_slowest_receiver_queue_events 7\n"
            "# HELP orvex_context_queue_events Events waiting on the contexts' input queues.\n"
            "# TYPE orvex_context_queue_events gauge\n"
            "orvex_context_queue_events 7\n"
            "# HELP orvex_user_status_info Values set by the engine's users.\n"
            "# TYPE orvex_user_status_info gauge\n"
            "# HELP orvex_user_status_omitted User values not shown, beyond the number the "
            "exporter shows.\n"
            "# TYPE orvex_user_status_omitted gauge\n"
            "orvex_user_status_omitted 0\n");
}

TEST(ExpositionTest, NarrowsThirtyTwoBitValuesAndKeepsNullTexts) {
  fake_status_script script = snapshot7(7, std::nullopt);
  script.integers["numContexts"] = 4294967296ULL + 3;
  const std::string text = engineMetrics(script);
  EXPECT_NE(text.find("\norvex_contexts 3\n"), std::string::npos);
  EXPECT_NE(text.find("\norvex_slowest_context_info{context=\"\"} 1\n"), std::string::npos);
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
