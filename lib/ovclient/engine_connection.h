// The engine client library's own C++ face: a kept-alive connection to one engine and the status
// snapshots it fetches. vigilo reaches the library through the C-shaped entry points of
// src/platform/ovclient, a closed library's shape, which stand over this; vigilo-exporter uses
// this face directly. Failures are EngineExceptions whose text names the engine and the cause.
// A connection or a snapshot belongs to one thread at a time.
#ifndef VIGILO_LIB_OVCLIENT_ENGINE_CONNECTION_H_
#define VIGILO_LIB_OVCLIENT_ENGINE_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "deadline.h"
#include "endpoint.h"

namespace com::orvex::client {

// Bytes of buffers that a connection or a kept snapshot holds for the next document; what a
// larger one grows is let go once it has been read.
inline constexpr std::size_t keptCapacity = 16 * 1024;

// A connection's limits, in milliseconds: connecting and each whole response. `abandon`, when
// set, is a flag of the caller's that ends whatever the connection is doing, within 50 ms, as a
// failure once it turns true: for a caller that must stop at once.
struct connection_limits {
  int connectMs = 5000;
  int responseMs = 30000;
  const std::atomic<bool>* abandon = nullptr;
};

// The pairs of one document, in document order, as NUL-terminated texts in one buffer. The
// buffers are kept from one document to the next, so that once they have grown to an engine's
// document, reading another allocates nothing. Texts stay in place until the next clear().
class pair_table {
 public:
  void clear();
  void add(std::string_view key, std::string_view value);
  // Bytes that the table holds, whatever it holds now.
  std::size_t capacity() const { return text.capacity() + offsets.capacity() * sizeof(offsets[0]); }
  std::size_t size() const { return offsets.size(); }
  const char* key(std::size_t i) const { return text.data() + offsets[i].first; }
  std::size_t keyLength(std::size_t i) const { return offsets[i].second - offsets[i].first - 1; }
  const char* value(std::size_t i) const { return text.data() + offsets[i].second; }

 private:
  std::string text;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> offsets;
};

// One status snapshot: the engine's pairs in its order (keys may repeat), and lookups that take
// the first pair of a key. Move-only; its texts live as long as it does.
class status_snapshot {
 public:
  status_snapshot() = default;
  status_snapshot(status_snapshot&&) noexcept = default;
  status_snapshot& operator=(status_snapshot&&) noexcept = default;
  status_snapshot(const status_snapshot&) = delete;
  status_snapshot& operator=(const status_snapshot&) = delete;

  const pair_table& pairs() const { return table; }
  // The value of the first pair of `key`, or null.
  const char* find(std::string_view key) const;
  // That value read as a decimal 64-bit number ("-1" reads as 2^64 - 1); 0 for anything else and
  // for a missing key.
  std::uint64_t number(std::string_view key) const;
  // Bytes that its buffers hold.
  std::size_t capacity() const { return table.capacity() + index.capacity() * sizeof(index[0]); }

 private:
  friend class engine_connection;
  friend status_snapshot snapshotOf(const std::vector<std::pair<std::string, std::string>>&);
  void indexPairs();  // once the table is read

  pair_table table;
  std::vector<std::uint32_t> index;  // open addressing: pair number plus one, 0 when empty
};

// A snapshot of `pairs`, as if an engine had sent them: for a caller's own tests and benchmarks.
status_snapshot snapshotOf(const std::vector<std::pair<std::string, std::string>>& pairs);

// The numeric reading of a value, as status_snapshot::number does it.
std::uint64_t statusNumber(std::string_view value);

// "Could not connect to engine at WHERE: CAUSE", its control bytes escaped: how every failure to
// reach an engine reads, the lookup's included.
std::string couldNotConnect(const std::string& where, const std::string& cause);

class http_connection;
class status_document_reader;

// A connection to the engine called `where` ("host:port") at `addresses`, tried in order. It is
// opened when first needed, kept alive between requests, and opened once more, transparently,
// when the engine has closed it meanwhile.
class engine_connection {
 public:
  engine_connection(std::string where, std::vector<ovnet::address> addresses,
                    connection_limits limits, const std::string& userAgent);
  ~engine_connection();
  engine_connection(const engine_connection&) = delete;
  engine_connection& operator=(const engine_connection&) = delete;

  const std::string& where() const;
  // Sets the limits of what the connection does next, a connection included.
  void setLimits(connection_limits limits);

  // Connects, if not connected, by `until`; each address gets its share of the time left.
  // Throws "Could not connect to engine at WHERE: CAUSE".
  void open(ovnet::deadline until);
  // Asks GET /ping, which an engine answers with 2xx. Throws as open() does.
  void ping();
  // Fetches one status snapshot into `reused`'s buffers. Throws "Status request to engine at
  // WHERE failed: CAUSE".
  status_snapshot status(status_snapshot reused = {});

 private:
  std::unique_ptr<http_connection> connection;
  std::unique_ptr<status_document_reader> reader;  // its buffers serve every document
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_ENGINE_CONNECTION_H_
