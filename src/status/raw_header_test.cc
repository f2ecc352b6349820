#include <gtest/gtest.h>

#include <algorithm>

#include "status/EngineStatus.h"

namespace com::orvex::engine {
namespace {

TEST(RawHeaderTest, IsTwentyOneHeadingsJoinedByCommasWithoutLineEnd) {
  const std::string line = EngineStatus::getRawHeader();
  EXPECT_EQ(line.size(), 337u);
  EXPECT_EQ(std::count(line.begin(), line.end(), ','), 20);
  EXPECT_EQ(line.substr(0, 12), "Uptime (ms),");
  EXPECT_EQ(line.substr(line.size() - 23), ",Slowest receiver queue");
  EXPECT_EQ(EngineStatus::getRawHeader(), line);
}

}  // namespace
}  // namespace com::orvex::engine
