// Ownership, lookups, the walk and the fetch of a status record, over fake status objects that
// log every call.
#include "status/EngineStatus.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "ovcommon/EngineException.h"
#include "testing/fake_client.h"
#include "testing/param_name.h"

namespace com::orvex::engine {
namespace {

using vigilo::test_support::fake_status_log;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::fakeClient;
using vigilo::test_support::newFakeStatus;
using vigilo::test_support::text_pair;
using pairs = std::vector<text_pair>;

fake_status_script withPairs(
    std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> walk,
    bool endWithEmptyKey = false) {
  fake_status_script script;
  script.pairs = std::move(walk);
  script.endWithEmptyKey = endWithEmptyKey;
  return script;
}

const fake_status_script threePairs = withPairs({{"a", "1"}, {"user-b", "2"}, {"c", "3"}});

pairs walk(const EngineStatus& record) {
  pairs seen;
  for (auto it = record.begin(); it != record.end(); ++it) seen.emplace_back(it.key(), it.value());
  return seen;
}

TEST(EngineStatusTest, DeletesItsObjectExactlyOnceAcrossMoves) {
  fake_status_log log, replaced;
  {
    EngineStatus first(newFakeStatus({}, &log));
    EngineStatus second(std::move(first));
    EngineStatus third(newFakeStatus({}, &replaced));
    third = std::move(second);
    EXPECT_EQ(replaced.deletes, 1);
    EXPECT_EQ(log.deletes, 0);
  }
  EXPECT_EQ(log.deletes, 1);
}

TEST(EngineStatusTest, LookupsForwardUnchanged) {
  fake_status_log log;
  fake_status_script script;
  script.integers["numReceived"] = 18446744073709551615ULL;
  script.strings = {{"slowestReceiver", "r1"}, {"missingText", std::nullopt}};
  EngineStatus record(newFakeStatus(script, &log));
  EXPECT_EQ(record.getStatusInteger("numReceived"), 18446744073709551615ULL);
  const char* first = record.getStatusString("slowestReceiver");
  EXPECT_EQ(record.getStatusString("missingText"), nullptr);
  EXPECT_STREQ(record.getStatusString("slowestReceiver"), "r1");
  EXPECT_STREQ(first, "r1");  // still valid after further lookups
}

struct walk_case {
  const char* name;
  fake_status_script script;
  pairs seen;
  int steps;
  std::vector<std::uintptr_t> freed;  // unfinished iterations released
};

class WalkTest : public ::testing::TestWithParam<walk_case> {};

TEST_P(WalkTest, VisitsPairsInYieldOrder) {
  fake_status_log log;
  {
    EngineStatus record(newFakeStatus(GetParam().script, &log));
    EXPECT_EQ(walk(record), GetParam().seen);
  }
  EXPECT_EQ(log.pairSteps, GetParam().steps);
  EXPECT_EQ(log.freedIterations, GetParam().freed);
  EXPECT_EQ(log.deletes, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, WalkTest,
    ::testing::Values(
        walk_case{"by_zero_handle", threePairs, {{"a", "1"}, {"user-b", "2"}, {"c", "3"}}, 4, {}},
        walk_case{"by_empty_key",
                  withPairs(threePairs.pairs, true),
                  {{"a", "1"}, {"user-b", "2"}, {"c", "3"}},
                  4,
                  {4}},
        walk_case{"empty_by_zero_handle", {}, {}, 1, {}},
        walk_case{"empty_by_empty_key", withPairs({}, true), {}, 1, {1}},
        // A pair with a null key or value is not taken: the iterator stays on the last one.
        walk_case{"null_key_or_value",
                  withPairs({{"a", "1"}, {std::nullopt, "x"}, {"b", std::nullopt}, {"c", "3"}}),
                  {{"a", "1"}, {"a", "1"}, {"a", "1"}, {"c", "3"}},
                  5,
                  {}}),
    vigilo::test_support::paramName);

TEST(EngineStatusTest, RecordWithoutObjectWalksNothingAndCallsNothing) {
  EngineStatus record(nullptr);
  EXPECT_TRUE(walk(record).empty());
}

TEST(EngineStatusTest, WalkAbandonedByExceptionReleasesIterationOnceThenDeletes) {
  fake_status_log log;
  {
    EngineStatus record(newFakeStatus(threePairs, &log));
    EXPECT_THROW(
        for (auto it = record.begin(); it != record.end(); ++it) throw std::runtime_error("x"),
        std::runtime_error);
    EXPECT_EQ(log.freedIterations, std::vector<std::uintptr_t>{2});
    EXPECT_EQ(log.deletes, 0);
  }
  EXPECT_EQ(log.freedIterations.size(), 1u);
  EXPECT_EQ(log.deletes, 1);
}

TEST(EngineStatusTest, PairIsACopyThatOutlivesTheObject) {
  fake_status_log log;
  std::optional<EngineStatus> record(std::in_place, newFakeStatus(threePairs, &log));
  auto it = record->begin();
  while (it != record->end()) ++it;
  record.reset();  // the object scribbles over its strings as it goes
  EXPECT_EQ(log.deletes, 1);
  EXPECT_EQ(it.key(), "c");
  EXPECT_EQ(it.value(), "3");
}

TEST(GetEngineStatusTest, OwnsWhatTheLibraryReturnsOrThrowsItsText) {
  fakeClient() = {};
  fakeClient().fetches = {{threePairs}, {std::nullopt, "Engine answered 500"}};
  EXPECT_EQ(walk(getEngineStatus(nullptr)).size(), 3u);
  EXPECT_EQ(fakeClient().statusLog.deletes, 1);
  try {
    getEngineStatus(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const EngineException& e) {
    // The library's text, freed by getEngineStatus: a leak fails the ASan build.
    EXPECT_STREQ(e.what(), "Engine answered 500");
  }
  EXPECT_EQ(fakeClient().snapshotsHandedOut, 1);
  EXPECT_EQ(fakeClient().statusLog.deletes, 1);
}

}  // namespace
}  // namespace com::orvex::engine
