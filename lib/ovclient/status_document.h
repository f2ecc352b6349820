// Reads the engine's status document: a JSON object whose member "status" is an array of
// [key, value] string pairs. Other members are ignored. Anything else is malformed, and the error
// says where. Nesting, pair count and (through the body limit) size are bounded, and the JSON
// reader validates UTF-8.
#ifndef VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_
#define VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace com::orvex::client {

using status_pairs = std::vector<std::pair<std::string, std::string>>;

inline constexpr std::size_t maxDocumentDepth = 64;
inline constexpr std::size_t maxStatusPairs = 100000;

// The pairs in document order, or false with `error` set.
bool parseStatusDocument(std::string_view document, status_pairs& pairs, std::string& error);

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_
