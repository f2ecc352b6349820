// Ownership, lookups and the walk of a status record, over a fake status object that logs calls.
#include "status/EngineStatus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "ovcommon/EngineException.h"
#include "testing/fake_status.h"

namespace {

using com::orvex::EngineException;
using com::orvex::engine::EngineManagement;
using com::orvex::engine::EngineStatus;
using com::orvex::engine::getEngineStatus;
using vigilo::test_support::fake_status_log;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::newFakeStatus;

// The client library's fetch, replaced at link time: it hands out what the test put here.
struct scripted_fetch {
  StatusOpaque* status = nullptr;
  const char* error = nullptr;  // copied into a malloc'ed text when set
  int calls = 0;
} fetch;

}  // namespace

extern "C" StatusOpaque* engineManagement_getStatusOpaque(EngineManagement*, char** error) {
  ++fetch.calls;
  if (fetch.error != nullptr) *error = strdup(fetch.error);
  return fetch.status;
}

namespace {

fake_status_script threePairs() {
  fake_status_script s;
  s.pairs = {{"a", "1"}, {"user-b", "2"}, {"c", "3"}};
  return s;
}

std::vector<std::pair<std::string, std::string>> walk(const EngineStatus& record) {
  std::vector<std::pair<std::string, std::string>> seen;
  for (auto it = record.begin(); it != record.end(); ++it) seen.emplace_back(it.key(), it.value());
  return seen;
}

TEST(EngineStatusTest, DeletesItsObjectExactlyOnceAcrossMoves) {
  fake_status_log log;
  {
    EngineStatus first(newFakeStatus({}, &log));
    EngineStatus second(std::move(first));
    EngineStatus third(nullptr);
    third = std::move(second);
    EXPECT_EQ(log.deletes, 0);
  }
  EXPECT_EQ(log.deletes, 1);
}

TEST(EngineStatusTest, MoveAssignmentReleasesTheObjectItReplaces) {
  fake_status_log oldLog, newLog;
  EngineStatus record(newFakeStatus({}, &oldLog));
  record = EngineStatus(newFakeStatus({}, &newLog));
  EXPECT_EQ(oldLog.deletes, 1);
  EXPECT_EQ(newLog.deletes, 0);
}

TEST(EngineStatusTest, LookupsForwardUnchanged) {
  fake_status_log log;
  fake_status_script script;
  script.integers["numReceived"] = 18446744073709551615ULL;
  script.strings["slowestReceiver"] = "r1";
  script.strings["missingText"] = std::nullopt;
  EngineStatus record(newFakeStatus(script, &log));
  EXPECT_EQ(record.getStatusInteger("numReceived"), 18446744073709551615ULL);
  EXPECT_EQ(record.getStatusInteger("nothing"), 0u);
  const char* first = record.getStatusString("slowestReceiver");
  EXPECT_EQ(record.getStatusString("missingText"), nullptr);
  // A text stays valid across further lookups on the same object.
  EXPECT_STREQ(record.getStatusString("slowestReceiver"), "r1");
  EXPECT_STREQ(first, "r1");
}

TEST(EngineStatusTest, WalkVisitsPairsInYieldOrderAndEndsByZeroHandle) {
  fake_status_log log;
  EngineStatus record(newFakeStatus(threePairs(), &log));
  EXPECT_EQ(walk(record), (decltype(walk(record)){{"a", "1"}, {"user-b", "2"}, {"c", "3"}}));
  EXPECT_EQ(log.pairSteps, 4);
  EXPECT_TRUE(log.freedIterations.empty());  // the object ended the walk itself
}

TEST(EngineStatusTest, WalkEndedByEmptyKeyReleasesTheIterationOnce) {
  fake_status_log log;
  fake_status_script script = threePairs();
  script.endWithEmptyKey = true;
  EngineStatus record(newFakeStatus(script, &log));
  EXPECT_EQ(walk(record).size(), 3u);
  EXPECT_EQ(log.freedIterations, std::vector<std::uintptr_t>{4});
}

TEST(EngineStatusTest, EmptySnapshotWalksNothing) {
  for (const bool emptyKey : {false, true}) {
    fake_status_log log;
    fake_status_script script;
    script.endWithEmptyKey = emptyKey;
    EngineStatus record(newFakeStatus(script, &log));
    EXPECT_TRUE(walk(record).empty());
    EXPECT_EQ(log.pairSteps, 1);
    EXPECT_EQ(log.freedIterations.size(), emptyKey ? 1u : 0u);
  }
}

TEST(EngineStatusTest, RecordWithoutObjectWalksNothingAndCallsNothing) {
  EngineStatus record(nullptr);
  EXPECT_TRUE(walk(record).empty());
}

TEST(EngineStatusTest, WalkAbandonedByExceptionReleasesIterationOnceThenDeletes) {
  fake_status_log log;
  {
    EngineStatus record(newFakeStatus(threePairs(), &log));
    EXPECT_THROW(
        {
          for (auto it = record.begin(); it != record.end(); ++it) {
            throw std::runtime_error("handler failed");
          }
        },
        std::runtime_error);
    EXPECT_EQ(log.freedIterations, std::vector<std::uintptr_t>{2});
    EXPECT_EQ(log.deletes, 0);
  }
  EXPECT_EQ(log.freedIterations.size(), 1u);
  EXPECT_EQ(log.deletes, 1);
}

TEST(EngineStatusTest, PairWithNullKeyOrValueIsNotTaken) {
  fake_status_log log;
  fake_status_script script;
  script.pairs = {{"a", "1"}, {std::nullopt, "x"}, {"b", std::nullopt}, {"c", "3"}};
  EngineStatus record(newFakeStatus(script, &log));
  // The iterator keeps standing on the last pair it took.
  EXPECT_EQ(walk(record), (decltype(walk(record)){{"a", "1"}, {"a", "1"}, {"a", "1"}, {"c", "3"}}));
}

TEST(EngineStatusTest, PairIsACopyThatOutlivesTheObject) {
  fake_status_log log;
  std::optional<EngineStatus> record(std::in_place, newFakeStatus(threePairs(), &log));
  auto it = record->begin();
  while (it != record->end()) ++it;  // ended by a zero handle: nothing left to release
  record.reset();                    // the object scribbles over its strings as it goes
  EXPECT_EQ(log.deletes, 1);
  EXPECT_EQ(it.key(), "c");
  EXPECT_EQ(it.value(), "3");
}

TEST(GetEngineStatusTest, OwnsWhatTheLibraryReturns) {
  fake_status_log log;
  fetch = {newFakeStatus(threePairs(), &log), nullptr, 0};
  {
    EngineStatus record = getEngineStatus(nullptr);
    EXPECT_EQ(walk(record).size(), 3u);
  }
  EXPECT_EQ(fetch.calls, 1);
  EXPECT_EQ(log.deletes, 1);
}

TEST(GetEngineStatusTest, ErrorThrowsTheLibraryTextAndDeletesNothing) {
  fake_status_log log;
  StatusOpaque* stray = newFakeStatus({}, &log);
  fetch = {stray, "Engine at localhost:15903 answered 500 Internal Server Error", 0};
  try {
    getEngineStatus(nullptr);
    FAIL() << "no exception";
  } catch (const EngineException& e) {
    EXPECT_STREQ(e.what(), "Engine at localhost:15903 answered 500 Internal Server Error");
  }
  EXPECT_EQ(fetch.calls, 1);
  EXPECT_EQ(log.deletes, 0);
  // The error text was freed by getEngineStatus (a leak or double free fails the ASan build).
  EngineStatus cleanup(stray);
  fetch = {};
}

}  // namespace
