#include "client_status.h"

#include <charconv>
#include <cstring>

namespace com::orvex::client {

namespace {

// The length and three of the bytes: the keys of a document differ in those, so a lookup costs a
// few instructions and one comparison, not a pass over every byte. Collisions only cost probes.
std::uint32_t hashOf(const char* key, std::size_t length) {
  std::uint32_t hash = static_cast<std::uint32_t>(length) * 2654435761u;
  if (length > 0) {
    hash += static_cast<unsigned char>(key[length - 1]) * 40503u;
    hash += static_cast<unsigned char>(key[length / 2]) * 2246822519u;
    hash += static_cast<unsigned char>(key[length / 3]) * 3266489917u;
  }
  return hash ^ (hash >> 15);
}

bool sameKey(const pair_table& pairs, std::size_t i, const char* key, std::size_t length) {
  return pairs.keyLength(i) == length && std::memcmp(pairs.key(i), key, length) == 0;
}

thread_local client_status::owned kept;

}  // namespace

struct status_operations {
  // The object's own word of the layout leads back to it.
  static client_status* self(StatusOpaque* status) {
    return static_cast<client_status*>(status->reserved);
  }

  static int getNextStatusPair(StatusOpaque* status, const char** key, const char** value,
                               std::uintptr_t* handle) {
    const pair_table& pairs = self(status)->pairs;
    const std::size_t index = *handle == 0 ? 0 : *handle - 1;
    if (index >= pairs.size()) {
      *key = *value = nullptr;
      *handle = 0;
      return 0;
    }
    *key = pairs.key(index);
    *value = pairs.value(index);
    *handle = index + 2;
    return 1;
  }

  static const char* getStatusString(StatusOpaque* status, const char* key) {
    return self(status)->find(key);
  }

  static std::int64_t getStatusInteger(StatusOpaque* status, const char* key) {
    const char* value = self(status)->find(key);
    return value == nullptr ? 0 : static_cast<std::int64_t>(statusNumber(value));
  }

  static void deleteStatus(StatusOpaque* status) { client_status::recycler()(self(status)); }

  static void freeStatusIteration(StatusOpaque*, std::uintptr_t) {}
};

namespace {

const StatusFunctions clientFunctions =
    statusFunctionsOf(&status_operations::getNextStatusPair, &status_operations::getStatusString,
                      &status_operations::getStatusInteger, &status_operations::deleteStatus,
                      &status_operations::freeStatusIteration);

}  // namespace

void client_status::recycler::operator()(client_status* status) const {
  // An object grown by a large document is not kept: it would hold that memory in every thread
  // that ever read one.
  if (kept == nullptr && status->pairs.capacity() <= keptCapacity) {
    status->pairs.clear();
    kept.reset(status);
  } else {
    delete status;
  }
}

client_status::owned client_status::take() {
  if (kept != nullptr) return std::move(kept);
  owned status(new client_status);
  status->opaque = {status.get(), &clientFunctions};
  return status;
}

StatusOpaque* client_status::handOut() {
  std::size_t slots = 16;
  while (slots < 2 * pairs.size()) slots *= 2;
  index.assign(slots, 0);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const char* key = pairs.key(i);
    const std::size_t length = pairs.keyLength(i);
    for (std::size_t at = hashOf(key, length) & (slots - 1);; at = (at + 1) & (slots - 1)) {
      if (index[at] == 0) {
        index[at] = static_cast<std::uint32_t>(i + 1);
        break;
      }
      if (sameKey(pairs, index[at] - 1, key, length)) break;  // the first one stays
    }
  }
  return &opaque;
}

const char* client_status::find(const char* key) const {
  const std::size_t slots = index.size();
  const std::size_t length = std::strlen(key);
  for (std::size_t at = hashOf(key, length) & (slots - 1); index[at] != 0;
       at = (at + 1) & (slots - 1)) {
    if (sameKey(pairs, index[at] - 1, key, length)) return pairs.value(index[at] - 1);
  }
  return nullptr;
}

std::uint64_t statusNumber(std::string_view value) {
  const bool negative = !value.empty() && value.front() == '-';
  if (negative) value.remove_prefix(1);
  std::uint64_t magnitude = 0;
  const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), magnitude);
  if (value.empty() || ec != std::errc() || end != value.data() + value.size()) return 0;
  if (!negative) return magnitude;
  if (magnitude > (std::uint64_t{1} << 63)) return 0;  // below the 64-bit signed range
  return ~magnitude + 1;                               // two's complement
}

}  // namespace com::orvex::client
