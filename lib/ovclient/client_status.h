// The status object that the C-shaped entry points hand out: a status snapshot behind the
// StatusOpaque layout and its operation table, whose entries forward to the snapshot. The
// iteration handle is the position of the next pair plus one; a step past the last pair yields
// nulls and sets it to 0, so there is never any iteration state to free.
//
// A deleted object is kept for the thread's next snapshot (one per thread), so that a poll
// reuses the buffers of the poll before, unless a large document grew them past keptCapacity.
#ifndef VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
#define VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_

#include <memory>

#include "engine_connection.h"
#include "ovclient/StatusOpaque.h"

namespace com::orvex::client {

class client_status {
 public:
  struct recycler {
    void operator()(client_status* status) const;
  };
  using owned = std::unique_ptr<client_status, recycler>;

  // An object to fill: the thread's kept one, or a new one.
  static owned take();

  // Hands the object out; its deleteStatus entry gives it back.
  StatusOpaque* handOut() { return &opaque; }

  status_snapshot snapshot;

 private:
  friend struct status_operations;
  StatusOpaque opaque;  // what is handed out; the table reaches the object through it
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
