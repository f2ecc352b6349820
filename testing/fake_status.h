// Test support: a status object with the client library's layout whose contents a test scripts,
// and whose every call is recorded in a log that outlives it.
#ifndef VIGILO_TESTING_FAKE_STATUS_H_
#define VIGILO_TESTING_FAKE_STATUS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ovclient/StatusOpaque.h"

namespace vigilo::test_support {

using text_pair = std::pair<std::string, std::string>;

// What the object holds. A key missing from `integers` reads 0, one missing from `strings` null.
struct fake_status_script {
  std::map<std::string, std::uint64_t> integers;
  std::map<std::string, std::optional<std::string>> strings;  // nullopt: the lookup yields null
  // The walk's pairs; nullopt yields a null key or value for that step.
  std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> pairs;
  // The walk ends by setting the handle to 0 and yielding nulls, or, when set, by yielding an
  // empty key and leaving the handle as it is.
  bool endWithEmptyKey = false;
};

struct fake_status_log {
  int lookups = 0;
  int pairSteps = 0;
  int deletes = 0;
  std::vector<std::uintptr_t> freedIterations;
};

// A new status object, its calls counted in `log` when that is not null, released through its
// deleteStatus entry, which first scribbles over every string it handed out: a kept pointer shows
// up as garbage (and under ASan as a use after free).
StatusOpaque* newFakeStatus(const fake_status_script& script, fake_status_log* log);

// Every pair of any status object, walked through its table as a user of the client library
// walks it; the strings are copies.
std::vector<text_pair> walkStatus(StatusOpaque* status);

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_STATUS_H_
