// The status record over fake status objects that log every call: its ownership, its walk and
// fetch, and its renderings, compared byte for byte.
#include "status/EngineStatus.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "testing/expected_outputs.h"

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

std::string text(const EngineStatus& record) {
  std::ostringstream out;
  out << record;
  return out.str();
}

// Each value in its place with its kind, the same again when repeated; an engine whose document
// lacks the texts still gets every field and line, empty.
TEST(RenderingsTest, EveryFieldInItsPlace) {
  EngineStatus record(newFakeStatus(scriptOf(snapshot())));
  EXPECT_EQ(record.getStandardStatusValuesRaw(), rawLine());
  EXPECT_EQ(text(record), statusText());
  EXPECT_EQ(record.getStandardStatusValuesRaw(), rawLine());
  EXPECT_EQ(record.getAllStatusValues(), statusText());

  EngineStatus textless(newFakeStatus(scriptOf(snapshot(7, false))));
  EXPECT_EQ(textless.getStandardStatusValuesRaw(), rawLine(7, false));
  EXPECT_EQ(text(textless), statusText(7, false));
}

// The user pairs of one snapshot, in walk order, through the two renderings that show their keys.
TEST(RenderingsTest, UserPairsFollowInWalkOrder) {
  struct user_case {
    text_pairs pairs;
    std::string headings;  // after the standard heading line
    std::string lines;     // after the human-readable text
  };
  const std::string u31 = "user-6789012345678901234567890a";
  const user_case cases[] = {
      {{}, "", ""},
      {{{"user-b", "2"}, {"numContexts", "3"}, {"user-a", "1"}},
       ",user-b,user-a",
       "user-b:                         2\nuser-a:                         1\n"},
      {{{"my-user-x", "5"}, {"user_x", "6"}}, ",my-user-x", "my-user-x:                      5\n"},
      // Keys of 31 characters and more: the label fills its 32 columns, or runs past them whole.
      {{{u31, "v31"}, {u31 + "b", "v32"}, {u31 + "bcdefghi", "v40"}},
       "," + u31 + "," + u31 + "b," + u31 + "bcdefghi",
       u31 + ":v31\n" + u31 + "b:v32\n" + u31 + "bcdefghi:v40\n"},
      {{{"user-e", ""}, {"user-c", "x,y"}, {"user-c", "z"}},
       ",user-e,user-c,user-c",
       "user-e:                         \nuser-c:                         x,y\n"
       "user-c:                         z\n"},
      {{{"user-1", "a"}, {"", "x"}, {"user-2", "b"}},
       ",user-1",
       "user-1:                         a\n"},
  };
  for (const user_case& c : cases) {
    SCOPED_TRACE(c.headings);
    text_pairs pairs = snapshot();
    pairs.insert(pairs.end(), c.pairs.begin(), c.pairs.end());
    EngineStatus record(newFakeStatus(scriptOf(pairs)));
    EXPECT_EQ(record.getRawHeaderAll(), rawHeading + c.headings);
    EXPECT_EQ(record.getAllStatusValues(), statusText() + c.lines);
  }
}

}  // namespace
}  // namespace com::orvex::engine
