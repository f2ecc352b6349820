// The status object that the client library hands out: one status document's pairs behind the
// StatusOpaque layout and its operation table. Lookups take the first pair of a key, through an
// index built once per document; the walk yields every pair in order. getStatusInteger reads a
// decimal 64-bit number ("-1" reads as 2^64 - 1); anything else, and a missing key, reads 0.
// getStatusString yields null for a missing key. The iteration handle is the position of the next
// pair plus one; a step past the last pair yields nulls and sets it to 0, so there is never any
// iteration state to free.
//
// A deleted object is kept for the thread's next document (one per thread), so that a poll
// reuses the buffers of the poll before, unless a large document grew them past keptCapacity.
#ifndef VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
#define VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "ovclient/StatusOpaque.h"
#include "status_document.h"

namespace com::orvex::client {

// Bytes of buffers that a connection or a thread keeps for its next document; what a larger one
// grows is let go once it has been read.
inline constexpr std::size_t keptCapacity = 16 * 1024;

class client_status {
 public:
  struct recycler {
    void operator()(client_status* status) const;
  };
  using owned = std::unique_ptr<client_status, recycler>;

  // An object with no pairs: the thread's kept one, or a new one.
  static owned take();

  // Indexes the pairs and hands the object out; its deleteStatus entry gives it back.
  StatusOpaque* handOut();

  pair_table pairs;

 private:
  friend struct status_operations;
  const char* find(const char* key) const;

  StatusOpaque opaque;               // what is handed out; the table reaches the object through it
  std::vector<std::uint32_t> index;  // open addressing: pair number plus one, 0 when empty
};

// The numeric reading of a value, as getStatusInteger does it.
std::uint64_t statusNumber(std::string_view value);

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
