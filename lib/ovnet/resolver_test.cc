#include "resolver.h"

#include <gtest/gtest.h>

// Lookups one after another are all answered, whether the thread that asks the name service is
// still there from the last one or has ended and starts again.
TEST(SystemResolverTest, AnswersLookupsOneAfterAnother) {
  for (int i = 0; i < 20; ++i) {
    const ovnet::lookup_result found = ovnet::system_resolver().resolve(
        "localhost", 9, ovnet::clock_type::now() + std::chrono::seconds(2), nullptr);
    ASSERT_FALSE(found.addresses.empty()) << "lookup " << i << ": " << found.error;
  }
}
