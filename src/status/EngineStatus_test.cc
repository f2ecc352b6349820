// Ownership, lookups, the walk and the fetch of a status record, over fake status objects that
// log every call.
#include "status/EngineStatus.h"

#include <gtest/gtest.h>

#include <optional>

#include "ovcommon/EngineException.h"
#include "testing/fake_client.h"

namespace com::orvex::engine {
namespace {

using namespace vigilo::test_support;

const fake_status_script threePairs = scriptOf({{"a", "1"}, {"user-b", "2"}, {"c", "3"}});

// The pairs of a walk, as a caller takes them; a walk that does not end stops at 100 pairs.
text_pairs walk(const EngineStatus& record) {
  text_pairs seen;
  for (auto it = record.begin(); it != record.end() && seen.size() < 100; ++it) {
    seen.emplace_back(it.key(), it.value());
  }
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

// The walk ends where the object ends it, by a zero handle or an empty key; an unfinished walk is
// released once. A pair with a null key or value is not taken: the iterator stays on the last one.
TEST(EngineStatusTest, WalkVisitsPairsInYieldOrder) {
  struct walk_case {
    fake_status_script script;
    text_pairs seen;
    int steps;
    std::vector<std::uintptr_t> freed;
  };
  const text_pairs three = {{"a", "1"}, {"user-b", "2"}, {"c", "3"}};
  const walk_case cases[] = {
      {threePairs, three, 4, {}},
      {{threePairs.pairs, true}, three, 4, {4}},
      {{}, {}, 1, {}},
      {{{}, true}, {}, 1, {1}},
      {{{{"a", "1"}, {std::nullopt, "x"}, {"b", std::nullopt}, {"c", "3"}}},
       {{"a", "1"}, {"a", "1"}, {"a", "1"}, {"c", "3"}},
       5,
       {}},
  };
  for (const walk_case& c : cases) {
    SCOPED_TRACE(c.steps);
    fake_status_log log;
    {
      EngineStatus record(newFakeStatus(c.script, &log));
      EXPECT_EQ(walk(record), c.seen);
    }
    EXPECT_EQ(log.pairSteps, c.steps);
    EXPECT_EQ(log.freedIterations, c.freed);
    EXPECT_EQ(log.deletes, 1);
  }
  EXPECT_TRUE(walk(EngineStatus(nullptr)).empty());
}

// An abandoned walk is released once, by the iterator it was handed over to; a finished walk's
// pair is a copy that outlives the object, which scribbles over its strings as it goes.
TEST(EngineStatusTest, AbandonedWalkReleasedOnceAndPairsOutliveTheObject) {
  fake_status_log log;
  std::optional<EngineStatus> record(std::in_place, newFakeStatus(threePairs, &log));
  {
    auto it = record->begin();
    ++it;
    const EngineStatus::StatusIterator moved(std::move(it));
    EXPECT_EQ(moved.key(), "user-b");
  }
  EXPECT_EQ(log.freedIterations, std::vector<std::uintptr_t>{3});
  auto it = record->begin();
  while (it != record->end()) ++it;
  record.reset();
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
}

}  // namespace
}  // namespace com::orvex::engine
