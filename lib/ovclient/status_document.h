// Reads the engine's status document: a JSON object whose member "status" is an array of
// [key, value] string pairs. Other members are ignored. Anything else is malformed, and the error
// says where. Nesting, pair count and (through the body limit) size are bounded, and the input
// must be strict UTF-8.
#ifndef VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_
#define VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_

#include <simdjson.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine_connection.h"

namespace com::orvex::client {

inline constexpr std::size_t maxDocumentDepth = 64;
inline constexpr std::size_t maxStatusPairs = 100000;

// A reader of status documents, with the parser's buffers kept from one document to the next.
// simdjson reads them; for a document it cannot read, nlohmann-json (which reports the line and
// column) says where, in the same words as the engine's own library.
class status_document_reader {
 public:
  status_document_reader();

  // Reads `document` into `pairs`, or returns false with `error` set.
  bool read(std::string_view document, pair_table& pairs, std::string& error);
  // Lets go of buffers grown past `bytes`, as a document of that size grows them.
  void shrink(std::size_t bytes);

 private:
  void startSmall();  // the parser's buffers for a small document

  simdjson::dom::parser parser;
  // The document with the padding that simdjson reads past its end. The padding is always
  // initialised: the spare capacity of the caller's buffer is not, and a memory checker sees
  // the parser's branches on it.
  std::vector<char> padded;
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_STATUS_DOCUMENT_H_
