#include "status_document.h"

#include <nlohmann/json.hpp>

namespace com::orvex::client {

namespace {

using json = nlohmann::json;

// Walks the document's events without building a tree, so that memory follows the pairs kept and
// nothing else.
class status_reader : public nlohmann::json_sax<json> {
 public:
  explicit status_reader(status_pairs& pairs) : pairs(pairs) {}

  bool null() override { return scalar("null"); }
  bool boolean(bool) override { return scalar("a boolean"); }
  bool number_integer(number_integer_t) override { return scalar("a number"); }
  bool number_unsigned(number_unsigned_t) override { return scalar("a number"); }
  bool number_float(number_float_t, const string_t&) override { return scalar("a number"); }
  bool binary(binary_t&) override { return scalar("binary data"); }

  bool string(string_t& text) override {
    if (skipDepth > 0 || skipNext) return scalar("a string");
    if (at == place::pairKey) {
      pairs.emplace_back(std::move(text), std::string());
      at = place::pairValue;
      return true;
    }
    if (at == place::pairValue) {
      pairs.back().second = std::move(text);
      at = place::pairEnd;
      return true;
    }
    return scalar("a string");
  }

  bool start_object(std::size_t) override {
    if (!enter()) return false;
    if (skipping()) return true;
    if (at == place::start) {
      at = place::rootMember;
      return true;
    }
    return wrong("an object");
  }

  bool key(string_t& name) override {
    if (skipDepth > 0) return true;
    if (name == "status") {
      if (sawStatus) return failAt("duplicate member \"status\"");
      sawStatus = true;
      at = place::statusValue;
    } else {
      skipNext = true;  // another member: its value is passed over
    }
    return true;
  }

  bool end_object() override {
    --depth;
    if (skipDepth > 0) return leave();
    at = place::end;
    return true;
  }

  bool start_array(std::size_t) override {
    if (!enter()) return false;
    if (skipping()) return true;
    if (at == place::statusValue) {
      at = place::pairStart;
      return true;
    }
    if (at == place::pairStart) {
      if (pairs.size() == maxStatusPairs) {
        return failAt("more than " + std::to_string(maxStatusPairs) + " pairs");
      }
      at = place::pairKey;
      return true;
    }
    return wrong("an array");
  }

  bool end_array() override {
    --depth;
    if (skipDepth > 0) return leave();
    if (at == place::pairEnd) {
      at = place::pairStart;
      return true;
    }
    if (at == place::pairStart) {
      at = place::rootMember;
      return true;
    }
    return wrong("the end of the pair");
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 7: ..." without the tag.
    std::string text = e.what();
    const auto tagEnd = text.find("] ");
    error = tagEnd == std::string::npos ? text : text.substr(tagEnd + 2);
    return false;
  }

  bool finished() const { return at == place::end && sawStatus; }

  std::string error;

 private:
  enum class place { start, rootMember, statusValue, pairStart, pairKey, pairValue, pairEnd, end };

  bool enter() {
    if (++depth > maxDocumentDepth) {
      return failAt("nesting deeper than " + std::to_string(maxDocumentDepth) + " levels");
    }
    return true;
  }

  // A container that starts while a value is being passed over is passed over too.
  bool skipping() {
    if (skipDepth > 0 || skipNext) {
      skipNext = false;
      ++skipDepth;
      return true;
    }
    return false;
  }

  bool leave() {
    --skipDepth;
    return true;
  }

  bool scalar(const char* what) {
    if (skipDepth > 0) return true;
    if (skipNext) {
      skipNext = false;
      return true;
    }
    return wrong(what);
  }

  bool wrong(const std::string& what) {
    switch (at) {
      case place::start:
        return failAt("the document is " + what + ", not an object");
      case place::statusValue:
        return failAt("member \"status\" is " + what + ", not an array");
      case place::pairStart:
        return failAt("found " + what + " where a [key, value] pair belongs");
      case place::pairKey:
      case place::pairValue:
        return failAt("found " + what + " where a string belongs");
      case place::pairEnd:
        return failAt("found " + what + " after the value; a pair has two strings");
      default:
        return failAt("unexpected " + what);
    }
  }

  bool failAt(const std::string& why) {
    error = why + " at " + path();
    return false;
  }

  // Where the reader stands, as a path into the document: status[3][1].
  std::string path() const {
    if (at == place::start || at == place::rootMember) return "the top level";
    if (at == place::statusValue) return "status";
    std::string p = "status[" +
                    std::to_string(at == place::pairStart ? pairs.size()
                                                          : pairs.size() - (at != place::pairKey)) +
                    "]";
    if (at == place::pairKey) p += "[0]";
    if (at == place::pairValue) p += "[1]";
    if (at == place::pairEnd) p += "[2]";
    return p;
  }

  status_pairs& pairs;
  place at = place::start;
  std::size_t depth = 0;
  std::size_t skipDepth = 0;
  bool skipNext = false;
  bool sawStatus = false;
};

}  // namespace

bool parseStatusDocument(std::string_view document, status_pairs& pairs, std::string& error) {
  pairs.clear();
  status_reader reader(pairs);
  const bool parsed = json::sax_parse(document.begin(), document.end(), &reader,
                                      json::input_format_t::json, /*strict=*/true);
  if (parsed && reader.finished()) return true;
  error = !reader.error.empty() ? reader.error : "the document has no \"status\" array";
  pairs.clear();
  return false;
}

}  // namespace com::orvex::client
