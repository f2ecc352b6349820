// The rule that tells a user-set value from the others, and the walk over a record's user pairs
// that every rendering with user values shares.
#ifndef VIGILO_STATUS_USER_PAIRS_H_
#define VIGILO_STATUS_USER_PAIRS_H_

#include <string>
#include <string_view>

#include "status/EngineStatus.h"

namespace com::orvex::engine {

// A key that contains "user-" anywhere, not only at its start.
inline bool isUserKey(std::string_view key) { return key.find("user-") != std::string_view::npos; }

// Calls visit(key, value) for every user pair of `record`, in the order the walk yields them.
template <typename Visit>
void forEachUserPair(const EngineStatus& record, Visit&& visit) {
  for (auto it = record.begin(); it != record.end(); ++it) {
    if (isUserKey(it.key())) visit(it.key(), it.value());
  }
}

}  // namespace com::orvex::engine

#endif  // VIGILO_STATUS_USER_PAIRS_H_
