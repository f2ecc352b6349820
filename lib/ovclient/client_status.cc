#include "client_status.h"

#include <charconv>
#include <string>
#include <unordered_map>

namespace com::orvex::client {

namespace {

struct client_status {
  StatusOpaque opaque;  // first, so that a StatusOpaque* is a client_status*
  status_pairs pairs;
  std::unordered_map<std::string_view, std::size_t> firstOfKey;
};

client_status* self(StatusOpaque* status) { return reinterpret_cast<client_status*>(status); }

const std::string* find(StatusOpaque* status, const char* key) {
  client_status* s = self(status);
  const auto found = s->firstOfKey.find(key);
  return found == s->firstOfKey.end() ? nullptr : &s->pairs[found->second].second;
}

int getNextStatusPair(StatusOpaque* status, const char** key, const char** value,
                      std::uintptr_t* handle) {
  client_status* s = self(status);
  const std::size_t index = *handle == 0 ? 0 : *handle - 1;
  if (index >= s->pairs.size()) {
    *key = *value = nullptr;
    *handle = 0;
    return 0;
  }
  *key = s->pairs[index].first.c_str();
  *value = s->pairs[index].second.c_str();
  *handle = index + 2;
  return 1;
}

const char* getStatusString(StatusOpaque* status, const char* key) {
  const std::string* value = find(status, key);
  return value == nullptr ? nullptr : value->c_str();
}

std::int64_t getStatusInteger(StatusOpaque* status, const char* key) {
  const std::string* value = find(status, key);
  return value == nullptr ? 0 : static_cast<std::int64_t>(statusNumber(*value));
}

void deleteStatus(StatusOpaque* status) { delete self(status); }

void freeStatusIteration(StatusOpaque*, std::uintptr_t) {}

const StatusFunctions clientFunctions = statusFunctionsOf(
    &getNextStatusPair, &getStatusString, &getStatusInteger, &deleteStatus, &freeStatusIteration);

}  // namespace

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

StatusOpaque* newClientStatus(status_pairs pairs) {
  auto* s = new client_status{{nullptr, &clientFunctions}, std::move(pairs), {}};
  s->firstOfKey.reserve(s->pairs.size());
  for (std::size_t i = 0; i < s->pairs.size(); ++i) s->firstOfKey.emplace(s->pairs[i].first, i);
  return &s->opaque;
}

}  // namespace com::orvex::client
