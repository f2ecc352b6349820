// Test support: the one bounded wait of the C++ tests, and the factor that widens their time
// bounds in the sanitizer builds, which run several times slower.
#ifndef VIGILO_TESTING_EVENTUALLY_H_
#define VIGILO_TESTING_EVENTUALLY_H_

#include <chrono>
#include <functional>
#include <thread>

namespace vigilo::test_support {

inline constexpr int slower = VIGILO_TIME_SCALE;

// Whether `done` holds within a few seconds; it is asked every millisecond.
inline bool eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5 * slower);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return done();
}

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_EVENTUALLY_H_
