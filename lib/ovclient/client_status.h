// The status object that the client library hands out: one status document's pairs behind the
// StatusOpaque layout and its operation table.
#ifndef VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
#define VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_

#include <cstdint>
#include <string_view>

#include "ovclient/StatusOpaque.h"
#include "status_document.h"

namespace com::orvex::client {

// A new status object owning `pairs`; released through its deleteStatus entry. Lookups take the
// first pair of a key; the walk yields every pair in order. getStatusInteger reads a decimal
// 64-bit number ("-1" reads as 2^64 - 1); anything else, and a missing key, reads 0.
// getStatusString yields null for a missing key. The iteration handle is the position of the
// next pair plus one; a step past the last pair yields nulls and sets it to 0, so there is never
// any iteration state to free.
StatusOpaque* newClientStatus(status_pairs pairs);

// The numeric reading of a value, as getStatusInteger does it.
std::uint64_t statusNumber(std::string_view value);

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_CLIENT_STATUS_H_
