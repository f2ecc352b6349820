// Whole renderings of status snapshots, compared byte for byte.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "status/EngineStatus.h"
#include "testing/expected_outputs.h"
#include "testing/param_name.h"

namespace com::orvex::engine {
namespace {

using vigilo::test_support::fake_status_log;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::newFakeStatus;
using vigilo::test_support::raw7;
using vigilo::test_support::rawHeading;
using vigilo::test_support::snapshot7;
using vigilo::test_support::text7;

// Every field distinct, so that a swapped, dropped or mis-narrowed field shows: 32-bit rows get
// values past 2^32, 64-bit rows 2^32 and 2^64 - 1, and the texts commas, a line feed and nothing.
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

std::string text(const EngineStatus& record) {
  std::ostringstream out;
  out << record;
  return out.str();
}

TEST(RenderingsTest, HeadingIsConstant) {
  EXPECT_EQ(EngineStatus::getRawHeader(), rawHeading);
  EXPECT_EQ(EngineStatus(nullptr).getRawHeaderAll(), rawHeading);
}

// Each value in its place with its kind, read once per rendering, the same again when repeated.
TEST(RenderingsTest, EveryFieldInItsPlace) {
  fake_status_log log;
  EngineStatus record(newFakeStatus(distinctSnapshot(), &log));
  EXPECT_EQ(record.getStandardStatusValuesRaw(), distinctRaw);
  EXPECT_EQ(log.lookups, 26);
  EXPECT_EQ(text(record), distinctText);
  EXPECT_EQ(log.lookups, 26 + 27);
  EXPECT_EQ(record.getStandardStatusValuesRaw(), distinctRaw);
  EXPECT_EQ(record.getAllStatusValues(), distinctText);
}

// An engine whose document lacks the texts: every line and field is still there, empty.
TEST(RenderingsTest, NullTextsRenderAsEmptyValues) {
  fake_status_log log;
  EngineStatus record(newFakeStatus(snapshot7(7, std::nullopt), &log));
  EXPECT_EQ(record.getStandardStatusValuesRaw(), raw7("7", ""));
  EXPECT_EQ(text(record), text7("7", ""));
}

// The user pairs of one snapshot, through the two renderings that show their keys.
struct user_case {
  const char* name;
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string headings;  // after the standard heading line
  std::string lines;     // after the human-readable text
};

class UserPairsTest : public ::testing::TestWithParam<user_case> {};

TEST_P(UserPairsTest, AppendInWalkOrder) {
  fake_status_script script = snapshot7(7);
  for (const auto& [key, value] : GetParam().pairs) script.pairs.emplace_back(key, value);
  fake_status_log log;
  EngineStatus record(newFakeStatus(script, &log));
  EXPECT_EQ(record.getRawHeaderAll(), rawHeading + GetParam().headings);
  EXPECT_EQ(record.getAllStatusValues(), text7("7") + GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UserPairsTest,
    ::testing::Values(user_case{"none", {{"numContexts", "3"}, {"uptime", "9"}}, "", ""},
                      user_case{"walk_order_not_sorted",
                                {{"user-b", "2"}, {"numContexts", "3"}, {"user-a", "1"}},
                                ",user-b,user-a",
                                "user-b:                         2\n"
                                "user-a:                         1\n"},
                      user_case{"user_anywhere_in_the_key",
                                {{"my-user-x", "5"}, {"user_x", "6"}},
                                ",my-user-x",
                                "my-user-x:                      5\n"},
                      user_case{"31_32_and_40_characters",
                                {{"user-6789012345678901234567890a", "v31"},
                                 {"user-6789012345678901234567890ab", "v32"},
                                 {"user-6789012345678901234567890abcdefghi", "v40"}},
                                ",user-6789012345678901234567890a,user-6789012345678901234567890ab,"
                                "user-6789012345678901234567890abcdefghi",
                                "user-6789012345678901234567890a:v31\n"
                                "user-6789012345678901234567890ab:v32\n"
                                "user-6789012345678901234567890abcdefghi:v40\n"},
                      user_case{"empty_and_comma_values",
                                {{"user-e", ""}, {"user-c", "x,y"}, {"user-c", "z"}},
                                ",user-e,user-c,user-c",
                                "user-e:                         \n"
                                "user-c:                         x,y\n"
                                "user-c:                         z\n"},
                      user_case{"an_empty_key_ends_the_walk",
                                {{"user-1", "a"}, {"", "x"}, {"user-2", "b"}},
                                ",user-1",
                                "user-1:                         a\n"}),
    vigilo::test_support::paramName);

}  // namespace
}  // namespace com::orvex::engine
