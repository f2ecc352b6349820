// Test support: a status object with the client library's layout whose contents a test scripts
// and whose every call is recorded in a log that outlives the object.
#ifndef VIGILO_TESTING_FAKE_STATUS_H_
#define VIGILO_TESTING_FAKE_STATUS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ovclient/StatusOpaque.h"

namespace vigilo::test_support {

// What the object holds. A key missing from `integers` reads 0; a key missing from `strings`
// reads null.
struct fake_status_script {
  std::map<std::string, std::uint64_t> integers;
  std::map<std::string, std::optional<std::string>> strings;  // nullopt: the lookup yields null
  // The walk's pairs; nullopt yields a null key or value for that step.
  std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> pairs;
  // How the walk ends after the last pair: by setting the handle to 0 (and yielding nulls), or by
  // yielding an empty key with the handle left non-zero.
  bool endWithEmptyKey = false;
};

struct fake_status_log {
  std::map<std::string, int> integerLookups;
  std::map<std::string, int> stringLookups;
  int pairSteps = 0;
  int deletes = 0;
  std::vector<std::uintptr_t> freedIterations;
};

// Returns a new status object; it is released by its deleteStatus entry, which scribbles over
// every string it handed out before freeing it, so a kept pointer shows up as garbage (and under
// ASan as a use after free).
StatusOpaque* newFakeStatus(const fake_status_script& script, fake_status_log* log);

// Every pair of any status object, taken through its table as a user of the client library walks
// them; the strings are copies.
std::vector<std::pair<std::string, std::string>> walkStatus(StatusOpaque* status);

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_STATUS_H_
