#include "engine_connection.h"

#include <charconv>
#include <cstring>

#include "http_connection.h"
#include "ovcommon/EngineException.h"
#include "ovcommon/log.h"
#include "status_document.h"

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

bool sameKey(const pair_table& pairs, std::size_t i, std::string_view key) {
  return pairs.keyLength(i) == key.size() && std::memcmp(pairs.key(i), key.data(), key.size()) == 0;
}

std::string answered(const std::string& path, const http_response& r) {
  return "GET " + path + " answered " + std::to_string(r.status) +
         (r.reason.empty() ? "" : " " + r.reason);
}

}  // namespace

void pair_table::clear() {
  text.clear();
  offsets.clear();
}

void pair_table::add(std::string_view key, std::string_view value) {
  const auto keyAt = static_cast<std::uint32_t>(text.size());
  text.append(key).push_back('\0');
  const auto valueAt = static_cast<std::uint32_t>(text.size());
  text.append(value).push_back('\0');
  offsets.emplace_back(keyAt, valueAt);
}

void status_snapshot::indexPairs() {
  std::size_t slots = 16;
  while (slots < 2 * table.size()) slots *= 2;
  index.assign(slots, 0);
  for (std::size_t i = 0; i < table.size(); ++i) {
    const std::string_view key(table.key(i), table.keyLength(i));
    for (std::size_t at = hashOf(key.data(), key.size()) & (slots - 1);;
         at = (at + 1) & (slots - 1)) {
      if (index[at] == 0) {
        index[at] = static_cast<std::uint32_t>(i + 1);
        break;
      }
      if (sameKey(table, index[at] - 1, key)) break;  // the first one stays
    }
  }
}

const char* status_snapshot::find(std::string_view key) const {
  const std::size_t slots = index.size();
  if (slots == 0) return nullptr;
  for (std::size_t at = hashOf(key.data(), key.size()) & (slots - 1); index[at] != 0;
       at = (at + 1) & (slots - 1)) {
    if (sameKey(table, index[at] - 1, key)) return table.value(index[at] - 1);
  }
  return nullptr;
}

std::uint64_t status_snapshot::number(std::string_view key) const {
  const char* value = find(key);
  return value == nullptr ? 0 : statusNumber(value);
}

std::string couldNotConnect(const std::string& where, const std::string& cause) {
  return printable("Could not connect to engine at " + where + ": " + cause);
}

status_snapshot snapshotOf(const std::vector<std::pair<std::string, std::string>>& pairs) {
  status_snapshot snapshot;
  for (const auto& [key, value] : pairs) snapshot.table.add(key, value);
  snapshot.indexPairs();
  return snapshot;
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

engine_connection::engine_connection(std::string where, std::vector<ovnet::address> addresses,
                                     connection_limits limits, const std::string& userAgent)
    : connection(std::make_unique<http_connection>(std::move(where), std::move(addresses), limits,
                                                   userAgent)),
      reader(std::make_unique<status_document_reader>()) {}

engine_connection::~engine_connection() = default;

const std::string& engine_connection::where() const { return connection->where(); }

void engine_connection::setLimits(connection_limits limits) { connection->setLimits(limits); }

void engine_connection::open(ovnet::deadline until) {
  try {
    connection->open(until);
  } catch (const std::exception& e) {
    throw EngineException(couldNotConnect(where(), e.what()));
  }
}

void engine_connection::ping() {
  std::string failure;
  try {
    const http_response& pong = connection->get("/ping");
    if (pong.status / 100 != 2) failure = answered("/ping", pong);
  } catch (const std::exception& e) {
    failure = e.what();
  }
  if (!failure.empty()) {
    throw EngineException(couldNotConnect(where(), failure));
  }
}

status_snapshot engine_connection::status(status_snapshot reused) {
  std::string failure, why;
  try {
    const http_response& response = connection->get("/status");
    if (logEnabled(LogLevel::debug)) {
      logLine(LogLevel::debug, printable(answered("/status", response)) + ", " +
                                   std::to_string(response.body.size()) + " bytes");
    }
    if (response.status / 100 != 2) {
      failure = answered("/status", response);
    } else if (!reader->read(response.body, reused.table, why)) {
      failure = "malformed status document: " + why;
    }
    // A kept connection holds little between polls, however large an answer once was.
    if (response.body.size() > keptCapacity) {
      connection->shrink(keptCapacity);
      reader->shrink(keptCapacity);
    }
  } catch (const std::exception& e) {
    failure = e.what();
  }
  if (!failure.empty()) {
    throw EngineException(
        printable("Status request to engine at " + where() + " failed: " + failure));
  }
  reused.indexPairs();
  return reused;
}

}  // namespace com::orvex::client
