// The client library's status object, through its operation table.
#include "client_status.h"

#include <gtest/gtest.h>

namespace com::orvex::client {
namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

// A status object over `content`, deleted through its own table.
struct handed_out {
  explicit handed_out(const pairs& content) {
    client_status::owned fresh = client_status::take();
    for (const auto& [key, value] : content) fresh->pairs.add(key, value);
    status = fresh.release()->handOut();
  }
  ~handed_out() { call<deleteStatus_fn>(deleteStatusEntry)(status); }
  template <typename Fn>
  Fn call(StatusFunctionEntry entry) const {
    return reinterpret_cast<Fn>(status->functions->entries[entry]);
  }
  std::uint64_t integer(const char* key) const {
    return static_cast<std::uint64_t>(
        call<getStatusInteger_fn>(getStatusIntegerEntry)(status, key));
  }
  const char* text(const char* key) const {
    return call<getStatusString_fn>(getStatusStringEntry)(status, key);
  }
  StatusOpaque* status;
};

// Lookups take the first pair of a key. The walk, straight through the table, yields every pair
// in order; handle 0 starts it, and the step after the last pair yields nulls and hands back 0.
TEST(ClientStatusTest, LookupsAndTheWalk) {
  for (int round = 0; round < 2; ++round) {  // the second object is the first one, recycled
    pairs content = {{"numReceived", "18446744073709551615"}, {"numReceived", "7"}};
    for (int i = 0; i < 40; ++i) content.emplace_back("key" + std::to_string(i), std::to_string(i));
    const handed_out record(content);
    EXPECT_EQ(record.integer("numReceived"), 18446744073709551615ULL);
    EXPECT_STREQ(record.text("numReceived"), "18446744073709551615");
    EXPECT_STREQ(record.text("key39"), "39");
    EXPECT_EQ(record.text("missing"), nullptr);
    EXPECT_EQ(record.integer("missing"), 0u);
    const auto next = record.call<getNextStatusPair_fn>(getNextStatusPairEntry);
    pairs seen;
    const char *key = nullptr, *value = nullptr;
    std::uintptr_t handle = 0;
    for (std::size_t step = 0; step <= content.size(); ++step) {  // one step past the last pair
      next(record.status, &key, &value, &handle);
      if (key != nullptr) seen.emplace_back(key, value);
      if (handle == 0) break;
    }
    EXPECT_EQ(seen, content);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
  }
}

TEST(ClientStatusTest, NumbersReadAsDecimal64Bit) {
  // clang-format off
  const std::pair<const char*, std::uint64_t> cases[] = {
      {"0", 0}, {"42", 42}, {"4294967296", 4294967296ULL},
      {"18446744073709551615", 18446744073709551615ULL}, {"-1", 18446744073709551615ULL},
      {"-9223372036854775808", 9223372036854775808ULL}, {"-9223372036854775809", 0},
      {"18446744073709551616", 0}, {"12abc", 0}, {" 12", 0}, {"+12", 0}, {"", 0}, {"-", 0},
      {"orders", 0}};
  // clang-format on
  for (const auto& [text, number] : cases) EXPECT_EQ(statusNumber(text), number) << text;
}

}  // namespace
}  // namespace com::orvex::client
