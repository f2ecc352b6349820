// Whole renderings of status snapshots, compared byte for byte.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "status/EngineStatus.h"
#include "testing/expected_outputs.h"

namespace com::orvex::engine {
namespace {

using namespace vigilo::test_support;

std::string text(const EngineStatus& record) {
  std::ostringstream out;
  out << record;
  return out.str();
}

// Each value in its place with its kind, read once per rendering, the same again when repeated;
// an engine whose document lacks the texts still gets every field and line, empty.
TEST(RenderingsTest, EveryFieldInItsPlace) {
  fake_status_log log;
  EngineStatus record(newFakeStatus(scriptOf(snapshot()), &log));
  EXPECT_EQ(record.getStandardStatusValuesRaw(), rawLine());
  EXPECT_EQ(log.lookups, 26);
  EXPECT_EQ(text(record), statusText());
  EXPECT_EQ(log.lookups, 26 + 27);
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
