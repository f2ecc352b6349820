#include "status_document.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace com::orvex::client {

namespace {

using simdjson::dom::element_type;

// What an element is, for an error that says what was found.
std::string kind(simdjson::dom::element element) {
  switch (element.type()) {
    case element_type::ARRAY:
      return "an array";
    case element_type::OBJECT:
      return "an object";
    case element_type::STRING:
      return "a string";
    case element_type::BOOL:
      return "a boolean";
    case element_type::NULL_VALUE:
      return "null";
    default:
      return "a number";
  }
}

// Passes over a document only to find where it stops being JSON.
class error_finder : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 7: ..." without the tag.
    const std::string text = e.what();
    const auto tagEnd = text.find("] ");
    error = tagEnd == std::string::npos ? text : text.substr(tagEnd + 2);
    return false;
  }

  std::string error;
};

std::string syntaxError(std::string_view document, simdjson::error_code code) {
  if (code == simdjson::DEPTH_ERROR) {
    return "nesting deeper than " + std::to_string(maxDocumentDepth) + " levels";
  }
  error_finder finder;
  nlohmann::json::sax_parse(document.begin(), document.end(), &finder,
                            nlohmann::json::input_format_t::json, /*strict=*/true);
  return finder.error.empty() ? simdjson::error_message(code) : finder.error;
}

}  // namespace

status_document_reader::status_document_reader() { startSmall(); }

void status_document_reader::shrink(std::size_t bytes) {
  if (padded.capacity() > bytes) std::vector<char>().swap(padded);
  // The parser's own document grows with the largest one read; a new parser starts small.
  if (parser.capacity() > bytes) {
    parser = simdjson::dom::parser();
    startSmall();
  }
}

void status_document_reader::startSmall() {
  if (parser.allocate(4096, maxDocumentDepth) != simdjson::SUCCESS) throw std::bad_alloc();
}

bool status_document_reader::read(std::string_view document, pair_table& pairs,
                                  std::string& error) {
  pairs.clear();
  const auto fail = [&](std::string why) {
    error = std::move(why);
    pairs.clear();
    return false;
  };
  simdjson::dom::element root;
  if (padded.size() < document.size() + simdjson::SIMDJSON_PADDING) {
    padded.resize(document.size() + simdjson::SIMDJSON_PADDING);
  }
  std::copy(document.begin(), document.end(), padded.begin());
  if (const auto code = parser.parse(padded.data(), document.size(), false).get(root)) {
    return fail(syntaxError(document, code));
  }
  simdjson::dom::object object;
  if (root.get(object) != simdjson::SUCCESS) {
    return fail("the document is " + kind(root) + ", not an object at the top level");
  }
  bool sawStatus = false;
  for (const auto [name, member] : object) {
    if (name != "status") continue;
    if (sawStatus) return fail("duplicate member \"status\" at the top level");
    sawStatus = true;
    simdjson::dom::array list;
    if (member.get(list) != simdjson::SUCCESS) {
      return fail("member \"status\" is " + kind(member) + ", not an array at status");
    }
    for (const simdjson::dom::element pair : list) {
      // Where the reader stands, as a path into the document: status[3][1]. Made only for an
      // error, so that a good document costs no text.
      const auto at = [&pairs](int text) {
        return "status[" + std::to_string(pairs.size()) + "]" +
               (text < 0 ? "" : "[" + std::to_string(text) + "]");
      };
      if (pairs.size() == maxStatusPairs) {
        return fail("more than " + std::to_string(maxStatusPairs) + " pairs at " + at(-1));
      }
      simdjson::dom::array texts;
      if (pair.get(texts) != simdjson::SUCCESS) {
        return fail("found " + kind(pair) + " where a [key, value] pair belongs at " + at(-1));
      }
      std::string_view both[2];
      int taken = 0;
      for (const simdjson::dom::element text : texts) {
        if (taken == 2) {
          return fail("found " + kind(text) + " after the value; a pair has two strings at " +
                      at(taken));
        }
        if (text.get(both[taken]) != simdjson::SUCCESS) {
          return fail("found " + kind(text) + " where a string belongs at " + at(taken));
        }
        ++taken;
      }
      if (taken < 2)
        return fail("found the end of the pair where a string belongs at " + at(taken));
      pairs.add(both[0], both[1]);
    }
  }
  return sawStatus || fail("the document has no \"status\" array");
}

}  // namespace com::orvex::client
