// The client-side record of one engine status snapshot and its renderings.
#ifndef VIGILO_STATUS_ENGINESTATUS_H_
#define VIGILO_STATUS_ENGINESTATUS_H_

#include <string>

namespace com::orvex::engine {

class EngineStatus {
 public:
  // The line of comma-separated headings of the standard raw columns, without a line end. Needs
  // no snapshot, no connection and no initialised client library.
  static std::string getRawHeader();
};

}  // namespace com::orvex::engine

#endif  // VIGILO_STATUS_ENGINESTATUS_H_
