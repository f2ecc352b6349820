// Whole renderings of status snapshots, compared byte for byte.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "status/EngineStatus.h"
#include "status/status_catalogue.h"
#include "testing/expected_outputs.h"
#include "testing/fake_status.h"
#include "testing/param_name.h"

namespace com::orvex::engine {
namespace {

using vigilo::test_support::fake_status_log;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::newFakeStatus;
using vigilo::test_support::uniformSnapshot;

const std::string allZeroRaw = "0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,,,,,,0,,0,,0";

const std::string allZeroText =
    "Uptime(ms):                                   0\n"
    "Number of contexts:                           0\n"
    "Number of monitors:                           0\n"
    "Number of sub-monitors:                       0\n"
    "Number of Java applications:                  0\n"
    "Number of listeners:                          0\n"
    "Number of sub-listeners:                      0\n"
    "Number of event types:                        0\n"
    "Events on input queue:                        0\n"
    "Events received:                              0\n"
    "Events processed:                             0\n"
    "Events on internal queue:                     0\n"
    "Events routed internally:                     0\n"
    "Number of consumers:                          0\n"
    "Events on output queue:                       0\n"
    "Output events created:                        0\n"
    "Output events sent:                           0\n"
    "Events on input context queues:               0\n"
    "Number of persistent snapshots:               \n"
    "Last persistent snapshot time:                \n"
    "Persistent snapshot wait time Millis (EWMA):  \n"
    "Persistent commit time Millis (EWMA):         \n"
    "Last persistent snapshot rows changed (EWMA): \n"
    "Slowest context name:                         \n"
    "Slowest context queue size:                   0\n"
    "Slowest receiver name:                        \n"
    "Slowest receiver queue size:                  0\n";

// Every field distinct, so a swapped, dropped or mis-narrowed field shows: 32-bit rows get values
// past 2^32, 64-bit rows get 2^32 and 2^64 - 1, texts carry commas, a line feed and nothing.
fake_status_script distinctSnapshot() {
  fake_status_script s;
  s.integers = {{"uptime", 18446744073709551615ULL},
                {"numContexts", 4294967296ULL},
                {"numMonitors", 4294967297ULL},
                {"numProcesses", 3},
                {"numJavaApplications", 4},
                {"numListeners", 5},
                {"numSubListeners", 6},
                {"numEventTypes", 7},
                {"numQueuedInput", 8},
                {"numReceived", 4294967296ULL},
                {"numQueuedFastTrack", 11},
                {"numFastTracked", 12},
                {"numConsumers", 13},
                {"numOutEventsQueued", 14},
                {"numEmits", 15},
                {"numOutEventsSent", 16},
                {"numProcessed", 22},
                {"mostBackedUpICQueueSize", 24},
                {"slowestReceiverQueueSize", 26},
                {"numInputQueuedInput", 27}};
  s.strings = {{"persistenceNumSnapshots", "17"},
               {"persistenceLastSnapshotTime", "2026-11-22 10:00:00"},
               {"persistenceSnapshotWaitTimeEwmaMillis", "1.5"},
               {"persistenceCommitTimeEwmaMillis", ""},
               {"persistenceLastSnapshotRowsChangedEwma", "a,b"},
               {"mostBackedUpInputContext", "orders,eu"},
               {"slowestReceiver", "line1\nline2"}};
  return s;
}

const std::string distinctRaw =
    "18446744073709551615,0,1,3,4,5,6,7,8,4294967296,11,12,13,14,15,16,"
    "17,2026-11-22 10:00:00,1.5,,a,b,22,orders,eu,24,line1\nline2,26";

const std::string distinctText =
    "Uptime(ms):                                   18446744073709551615\n"
    "Number of contexts:                           0\n"
    "Number of monitors:                           1\n"
    "Number of sub-monitors:                       3\n"
    "Number of Java applications:                  4\n"
    "Number of listeners:                          5\n"
    "Number of sub-listeners:                      6\n"
    "Number of event types:                        7\n"
    "Events on input queue:                        8\n"
    "Events received:                              4294967296\n"
    "Events processed:                             22\n"
    "Events on internal queue:                     11\n"
    "Events routed internally:                     12\n"
    "Number of consumers:                          13\n"
    "Events on output queue:                       14\n"
    "Output events created:                        15\n"
    "Output events sent:                           16\n"
    "Events on input context queues:               27\n"
    "Number of persistent snapshots:               17\n"
    "Last persistent snapshot time:                2026-11-22 10:00:00\n"
    "Persistent snapshot wait time Millis (EWMA):  1.5\n"
    "Persistent commit time Millis (EWMA):         \n"
    "Last persistent snapshot rows changed (EWMA): a,b\n"
    "Slowest context name:                         orders,eu\n"
    "Slowest context queue size:                   24\n"
    "Slowest receiver name:                        line1\nline2\n"
    "Slowest receiver queue size:                  26\n";

// A record over a fake status object, with the log of its calls.
struct snapshot {
  explicit snapshot(const fake_status_script& script) : record(newFakeStatus(script, &log)) {}
  fake_status_log log;
  EngineStatus record;
};

std::string text(const EngineStatus& record) {
  std::ostringstream out;
  out << record;
  return out.str();
}

TEST(RenderingsTest, AllZeroSnapshot) {
  snapshot s(uniformSnapshot(0, ""));
  EXPECT_EQ(s.record.getStandardStatusValuesRaw(), allZeroRaw);
  EXPECT_EQ(text(s.record), allZeroText);
  EXPECT_EQ(s.record.getAllStatusValues(), allZeroText);
  EXPECT_EQ(s.record.getRawHeaderAll(), EngineStatus::getRawHeader());
}

TEST(RenderingsTest, EveryFieldInItsPlaceWithItsKind) {
  snapshot s(distinctSnapshot());
  EXPECT_EQ(s.record.getStandardStatusValuesRaw(), distinctRaw);
  EXPECT_EQ(text(s.record), distinctText);
  // The same snapshot renders the same way again.
  EXPECT_EQ(s.record.getStandardStatusValuesRaw(), distinctRaw);
  EXPECT_EQ(text(s.record), distinctText);
}

// An engine whose document lacks every key: numbers read 0 and texts null, and every line and
// field is still there.
TEST(RenderingsTest, NullTextsRenderAsEmptyValues) {
  fake_status_script script = uniformSnapshot(0, "");
  for (auto& [key, value] : script.strings) value.reset();
  snapshot s(script);
  EXPECT_EQ(s.record.getStandardStatusValuesRaw(), allZeroRaw);
  EXPECT_EQ(text(s.record), allZeroText);
}

TEST(RenderingsTest, EachKeyIsFetchedOncePerRenderingByItsKind) {
  struct rendering {
    const char* name;
    std::string (*render)(const EngineStatus&);
    bool rawOnly;
  };
  const rendering renderings[] = {
      {"raw", [](const EngineStatus& r) { return r.getStandardStatusValuesRaw(); }, true},
      {"text", [](const EngineStatus& r) { return text(r); }, false},
      {"all", [](const EngineStatus& r) { return r.getAllStatusValues(); }, false},
  };
  for (const rendering& r : renderings) {
    SCOPED_TRACE(r.name);
    snapshot s(distinctSnapshot());
    r.render(s.record);
    // No key outside the catalogue is asked for.
    int lookups = 0;
    for (const auto& [key, n] : s.log.stringLookups) lookups += n;
    for (const auto& [key, n] : s.log.integerLookups) lookups += n;
    EXPECT_EQ(lookups, r.rawOnly ? 26 : 27);
    for (const status_key& key : statusCatalogue) {
      SCOPED_TRACE(key.key);
      const int expected = (r.rawOnly && !key.inRaw) ? 0 : 1;
      const bool isText = key.kind == value_kind::text;
      EXPECT_EQ(s.log.stringLookups[key.key], isText ? expected : 0);
      EXPECT_EQ(s.log.integerLookups[key.key], isText ? 0 : expected);
    }
  }
}

// The user pairs of one snapshot, through all three renderings that show them.
struct user_case {
  const char* name;
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string headings;  // appended to the standard heading line
  std::string lines;     // appended to the human-readable text
};

class UserPairsTest : public ::testing::TestWithParam<user_case> {};

TEST_P(UserPairsTest, AppendInWalkOrder) {
  const user_case& c = GetParam();
  fake_status_script script = uniformSnapshot(0, "");
  for (const auto& [key, value] : c.pairs) script.pairs.emplace_back(key, value);
  snapshot s(script);
  EXPECT_EQ(s.record.getRawHeaderAll(), EngineStatus::getRawHeader() + c.headings);
  EXPECT_EQ(s.record.getAllStatusValues(), allZeroText + c.lines);
  EXPECT_EQ(s.log.deletes, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UserPairsTest,
    ::testing::Values(user_case{"none", {{"numContexts", "3"}, {"uptime", "9"}}, "", ""},
                      user_case{"walk order, not sorted",
                                {{"user-b", "2"}, {"numContexts", "3"}, {"user-a", "1"}},
                                ",user-b,user-a",
                                "user-b:                         2\n"
                                "user-a:                         1\n"},
                      user_case{"user- anywhere in the key",
                                {{"my-user-x", "5"}, {"user_x", "6"}},
                                ",my-user-x",
                                "my-user-x:                      5\n"},
                      user_case{"31, 32 and 40 characters",
                                {{"user-6789012345678901234567890a", "v31"},
                                 {"user-6789012345678901234567890ab", "v32"},
                                 {"user-6789012345678901234567890abcdefghi", "v40"}},
                                ",user-6789012345678901234567890a,user-6789012345678901234567890ab,"
                                "user-6789012345678901234567890abcdefghi",
                                "user-6789012345678901234567890a:v31\n"
                                "user-6789012345678901234567890ab:v32\n"
                                "user-6789012345678901234567890abcdefghi:v40\n"},
                      user_case{"empty and comma values",
                                {{"user-e", ""}, {"user-c", "x,y"}},
                                ",user-e,user-c",
                                "user-e:                         \n"
                                "user-c:                         x,y\n"},
                      user_case{"duplicates all shown",
                                {{"user-d", "1"}, {"user-d", "2"}},
                                ",user-d,user-d",
                                "user-d:                         1\n"
                                "user-d:                         2\n"},
                      user_case{"an empty key ends the walk",
                                {{"user-1", "a"}, {"", "x"}, {"user-2", "b"}},
                                ",user-1",
                                "user-1:                         a\n"}),
    vigilo::test_support::param_name());

TEST(RenderingsTest, RecordWithoutStatusObjectHasOnlyTheStandardHeading) {
  EngineStatus empty(nullptr);
  EXPECT_EQ(empty.getRawHeaderAll(), EngineStatus::getRawHeader());
}

}  // namespace
}  // namespace com::orvex::engine
