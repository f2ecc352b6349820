// The client-side record of one engine status snapshot, its key/value walk, and its renderings.
// A record owns one status object of the engine client library and deletes it when it ends; it
// caches nothing, so every value is read from the object when a rendering asks for it.
// Records and their iterators belong to one thread at a time.
#ifndef VIGILO_SRC_STATUS_ENGINESTATUS_H_
#define VIGILO_SRC_STATUS_ENGINESTATUS_H_

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "ovclient/StatusOpaque.h"
#include "ovclient/engine_client.h"
#include "status/status_catalogue.h"

namespace com::orvex::engine {

class EngineStatus {
 public:
  // Takes ownership of `status`, which may be null.
  explicit EngineStatus(StatusOpaque* status) noexcept : status(status) {}
  // Deletes the status object, if any, exactly once.
  ~EngineStatus();

  EngineStatus(EngineStatus&& other) noexcept : status(std::exchange(other.status, nullptr)) {}
  EngineStatus& operator=(EngineStatus&& other) noexcept;
  EngineStatus(const EngineStatus&) = delete;
  EngineStatus& operator=(const EngineStatus&) = delete;

  // Lookups by key, forwarded unchanged; the record must hold a status object. The text stays
  // owned by the status object and valid until the record ends; it may be null.
  std::uint64_t getStatusInteger(const char* key) const;
  const char* getStatusString(const char* key) const;

  // A walk over every key/value pair in the order the status object yields them:
  //   for (auto it = record.begin(); it != record.end(); ++it) use(it.key(), it.value());
  // The pair is copied, so it outlives the status object. An iterator must not outlive its
  // record: an unfinished walk is released when the iterator ends.
  class StatusIterator {
   public:
    StatusIterator(const EngineStatus* record) noexcept : record(record) {}
    ~StatusIterator();
    // Moving hands the unfinished walk over, so it is released exactly once.
    StatusIterator(StatusIterator&& other) noexcept
        : record(other.record),
          handle(std::exchange(other.handle, 0)),
          current(std::move(other.current)) {}
    StatusIterator& operator=(StatusIterator&&) = delete;

    // Takes the next pair; a pair with a null key or value is not taken.
    void step();
    StatusIterator& operator++();
    const std::string& key() const { return current.first; }
    const std::string& value() const { return current.second; }

    // Meant for comparing with end(): true when this walk is over (the object ended it, or it
    // yielded an empty key).
    bool operator==(const StatusIterator& end) const;

   private:
    const EngineStatus* record;
    std::uintptr_t handle = 0;
    std::pair<std::string, std::string> current;
  };

  StatusIterator begin() const;  // stands on the first pair, if any
  StatusIterator end() const;

  // The line of comma-separated headings of the standard raw columns, without a line end. Needs
  // no snapshot, no connection and no initialised client library.
  static std::string getRawHeader();
  // getRawHeader() followed by ",key" for every user pair of this snapshot.
  std::string getRawHeaderAll() const;
  // The 26 comma-separated standard values, without a line end.
  std::string getStandardStatusValuesRaw() const;
  // The same, appended to `line`: a poller composes every line in one buffer.
  void appendStandardStatusValuesRaw(std::string& line) const;
  // The human-readable text followed by one line per user pair.
  std::string getAllStatusValues() const;

 private:
  StatusOpaque* status;
};

// Fetches one snapshot over `management`. Throws EngineException with the library's text when the
// library reports an error.
EngineStatus getEngineStatus(EngineManagement* management);

// Writes the 27-line human-readable text of `status` to `out` in one piece; does not flush.
std::ostream& operator<<(std::ostream& out, const EngineStatus& status);

// Calls visit(key, value) for every user pair of `record`, in the order the walk yields them.
template <typename Visit>
void forEachUserPair(const EngineStatus& record, Visit&& visit) {
  for (auto it = record.begin(); it != record.end(); ++it) {
    if (isUserKey(it.key())) visit(it.key(), it.value());
  }
}

}  // namespace com::orvex::engine

#endif  // VIGILO_SRC_STATUS_ENGINESTATUS_H_
