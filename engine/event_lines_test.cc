#include "event_lines.h"

#include <gtest/gtest.h>

namespace ovengine {
namespace {

TEST(EventLinesTest, ReadsOneEventPerLine) {
  std::vector<event> events;
  std::string error;
  ASSERT_TRUE(parseEventLines("Trade(id=1,qty=5)\r\n\nQuote()\n_x.y2(a(b))", events, error));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].type, "Trade");
  EXPECT_EQ(events[0].fields, "id=1,qty=5");
  EXPECT_EQ(events[1].type, "Quote");
  EXPECT_EQ(events[1].fields, "");
  EXPECT_EQ(events[2].type, "_x.y2");
  EXPECT_EQ(events[2].fields, "a(b)");
}

TEST(EventLinesTest, NamesTheFirstBadLine) {
  for (const char* body : {"Ok()\nnoparens\n", "Ok()\n(x)\n", "Ok()\n9Trade(x)\n",
                           "Ok()\nTrade(x\n", "Ok()\nTr ade(x)\n"}) {
    SCOPED_TRACE(body);
    std::vector<event> events;
    std::string error;
    EXPECT_FALSE(parseEventLines(body, events, error));
    EXPECT_EQ(error, "line 2: expected Type(fields)");
  }
}

}  // namespace
}  // namespace ovengine
