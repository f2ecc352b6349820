// Test support: a status object with the client library's layout whose pairs a test scripts, and
// whose every call is counted in a log that outlives it.
#ifndef VIGILO_TESTING_FAKE_STATUS_H_
#define VIGILO_TESTING_FAKE_STATUS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ovclient/StatusOpaque.h"

namespace vigilo::test_support {

using text_pair = std::pair<std::string, std::string>;
using text_pairs = std::vector<text_pair>;

// The object's pairs in walk order; nullopt yields a null key or value. A lookup takes the first
// pair of its key: a missing key reads null and 0, a value that is not a decimal number 0. The walk
// ends by setting the handle to 0 and yielding nulls or, with `endWithEmptyKey`, by yielding an
// empty key and leaving the handle as it is.
struct fake_status_script {
  std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> pairs;
  bool endWithEmptyKey = false;
};

fake_status_script scriptOf(const text_pairs& pairs);

struct fake_status_log {
  int pairSteps = 0;
  int deletes = 0;
  std::vector<std::uintptr_t> freedIterations;
};

// A new status object, its calls counted in `log` when that is not null, released through its
// deleteStatus entry, which first scribbles over every string it handed out: a kept pointer shows
// up as garbage (and under ASan as a use after free).
StatusOpaque* newFakeStatus(const fake_status_script& script, fake_status_log* log = nullptr);

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_STATUS_H_
