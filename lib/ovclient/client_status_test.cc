// The client library's status object, through its operation table.
#include "client_status.h"

#include <gtest/gtest.h>

#include "status/EngineStatus.h"

namespace com::orvex::engine {
namespace {

TEST(ClientStatusTest, LookupsTakeTheFirstPairOfAKey) {
  EngineStatus record(newClientStatus(
      {{"numReceived", "18446744073709551615"}, {"numReceived", "7"}, {"name", "orders"},
       {"user-a", "1"}}));
  EXPECT_EQ(record.getStatusInteger("numReceived"), 18446744073709551615ULL);
  EXPECT_STREQ(record.getStatusString("numReceived"), "18446744073709551615");
  EXPECT_STREQ(record.getStatusString("name"), "orders");
  EXPECT_EQ(record.getStatusString("missing"), nullptr);
  EXPECT_EQ(record.getStatusInteger("missing"), 0u);
}

TEST(ClientStatusTest, WalkYieldsEveryPairThenEndsWithHandleZero) {
  EngineStatus record(newClientStatus({{"a", "1"}, {"a", "2"}, {"b", ""}}));
  std::vector<std::pair<std::string, std::string>> seen;
  for (auto it = record.begin(); it != record.end(); ++it) seen.emplace_back(it.key(), it.value());
  EXPECT_EQ(seen, (status_pairs{{"a", "1"}, {"a", "2"}, {"b", ""}}));

  // Straight through the table: handle 0 starts, each pair moves it on, the step after the last
  // pair yields nulls and hands back 0.
  StatusOpaque* raw = newClientStatus({{"k", "v"}});
  auto next = reinterpret_cast<getNextStatusPair_fn>(raw->functions->entries[getNextStatusPairEntry]);
  const char* key = nullptr;
  const char* value = nullptr;
  std::uintptr_t handle = 0;
  next(raw, &key, &value, &handle);
  EXPECT_STREQ(key, "k");
  EXPECT_STREQ(value, "v");
  EXPECT_NE(handle, 0u);
  next(raw, &key, &value, &handle);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(handle, 0u);
  EngineStatus owner(raw);
}

TEST(ClientStatusTest, NumbersReadAsDecimal64Bit) {
  const std::pair<const char*, std::uint64_t> cases[] = {
      {"0", 0},
      {"42", 42},
      {"4294967296", 4294967296ULL},
      {"18446744073709551615", 18446744073709551615ULL},
      {"-1", 18446744073709551615ULL},
      {"-9223372036854775808", 9223372036854775808ULL},
      {"-9223372036854775809", 0},
      {"18446744073709551616", 0},
      {"12abc", 0},
      {" 12", 0},
      {"+12", 0},
      {"", 0},
      {"-", 0},
      {"orders", 0},
  };
  for (const auto& [text, number] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(statusNumber(text), number);
  }
}

}  // namespace
}  // namespace com::orvex::engine
