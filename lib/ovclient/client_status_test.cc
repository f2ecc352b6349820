// The client library's status object, through its operation table.
#include "client_status.h"

#include <gtest/gtest.h>

#include "testing/fake_status.h"

namespace com::orvex::client {
namespace {

using vigilo::test_support::walkStatus;

// A status object that deletes itself through its own table.
struct owned_status {
  explicit owned_status(status_pairs pairs) : status(newClientStatus(std::move(pairs))) {}
  ~owned_status() { call<deleteStatus_fn>(deleteStatusEntry)(status); }
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

TEST(ClientStatusTest, LookupsTakeTheFirstPairOfAKey) {
  owned_status record(status_pairs{{"numReceived", "18446744073709551615"},
                                   {"numReceived", "7"},
                                   {"name", "orders"},
                                   {"user-a", "1"}});
  EXPECT_EQ(record.integer("numReceived"), 18446744073709551615ULL);
  EXPECT_STREQ(record.text("numReceived"), "18446744073709551615");
  EXPECT_STREQ(record.text("name"), "orders");
  EXPECT_EQ(record.text("missing"), nullptr);
  EXPECT_EQ(record.integer("missing"), 0u);
}

TEST(ClientStatusTest, WalkYieldsEveryPairThenEndsWithHandleZero) {
  owned_status record(status_pairs{{"a", "1"}, {"a", "2"}, {"b", ""}});
  EXPECT_EQ(walkStatus(record.status), (status_pairs{{"a", "1"}, {"a", "2"}, {"b", ""}}));

  // Straight through the table: handle 0 starts, each pair moves it on, the step after the last
  // pair yields nulls and hands back 0.
  owned_status one(status_pairs{{"k", "v"}});
  auto next = one.call<getNextStatusPair_fn>(getNextStatusPairEntry);
  const char* key = nullptr;
  const char* value = nullptr;
  std::uintptr_t handle = 0;
  next(one.status, &key, &value, &handle);
  EXPECT_STREQ(key, "k");
  EXPECT_STREQ(value, "v");
  EXPECT_NE(handle, 0u);
  next(one.status, &key, &value, &handle);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(handle, 0u);
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
}  // namespace com::orvex::client
