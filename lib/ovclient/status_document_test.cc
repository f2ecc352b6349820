#include "status_document.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/param_name.h"

namespace com::orvex::client {
namespace {

using text_pairs = std::vector<std::pair<std::string, std::string>>;

struct document_case {
  const char* name;
  std::string document;
  text_pairs pairs;  // expected when `error` is empty
  std::string error = "";
};

// One reader for every document, as a connection has, over a table that held a pair before.
bool read(const std::string& document, text_pairs& seen, std::string& error) {
  static status_document_reader reader;
  pair_table table;
  table.add("stale", "pair");
  const bool ok = reader.read(document, table, error);
  seen.clear();
  for (std::size_t i = 0; i < table.size(); ++i) seen.emplace_back(table.key(i), table.value(i));
  return ok;
}

class StatusDocumentTest : public ::testing::TestWithParam<document_case> {};

TEST_P(StatusDocumentTest, Reads) {
  const document_case& c = GetParam();
  text_pairs pairs;
  std::string error;
  EXPECT_EQ(read(c.document, pairs, error), c.error.empty());
  EXPECT_EQ(error, c.error);
  EXPECT_EQ(pairs, c.pairs);
}

const std::string deep = std::string(65, '[') + std::string(65, ']');

INSTANTIATE_TEST_SUITE_P(
    Documents, StatusDocumentTest,
    ::testing::Values(
        document_case{"pairs in order",
                      R"({"status": [["uptime", "10"], ["user-b", "x,y"], ["uptime", "11"]]})",
                      {{"uptime", "10"}, {"user-b", "x,y"}, {"uptime", "11"}}},
        document_case{"empty status", R"({"status": []})", {}},
        document_case{"other members ignored",
                      R"({"engine": {"a": [1, {"b": null}]}, "status": [["k", "v"]], "n": 1.5})",
                      {{"k", "v"}}},
        document_case{"escapes and unicode",
                      R"({"status": [["k\n", "caf\u00e9 \"q\""]]})",
                      {{"k\n", "caf\xc3\xa9 \"q\""}}},
        document_case{"empty strings", R"({"status": [["", ""]]})", {{"", ""}}}),
    vigilo::test_support::paramName);

INSTANTIATE_TEST_SUITE_P(
    Malformed, StatusDocumentTest,
    ::testing::Values(
        document_case{"empty",
                      "",
                      {},
                      "parse error at line 1, column 1: syntax error while parsing value - "
                      "unexpected end of input; expected '[', '{', or a literal"},
        document_case{"truncated",
                      R"({"status": [["a", "b"])",
                      {},
                      "parse error at line 1, column 23: syntax error while parsing array - "
                      "unexpected end of input; expected ']'"},
        document_case{"trailing garbage",
                      R"({"status": []} x)",
                      {},
                      "parse error at line 1, column 16: syntax error while parsing value - "
                      "invalid literal; last read: '\"status\": []} x'; expected end of input"},
        document_case{"not an object",
                      R"([["a", "b"]])",
                      {},
                      "the document is an array, not an object at the top level"},
        document_case{"no status", R"({"stat": []})", {}, "the document has no \"status\" array"},
        document_case{"status not an array",
                      R"({"status": {"a": "b"}})",
                      {},
                      "member \"status\" is an object, not an array at status"},
        document_case{"number value",
                      R"({"status": [["a", "b"], ["c", 1]]})",
                      {},
                      "found a number where a string belongs at status[1][1]"},
        document_case{"pair of three",
                      R"({"status": [["a", "b", "c"]]})",
                      {},
                      "found a string after the value; a pair has two strings at status[0][2]"},
        document_case{"pair of one",
                      R"({"status": [["a"]]})",
                      {},
                      "found the end of the pair where a string belongs at status[0][1]"},
        document_case{"bare string",
                      R"({"status": ["a"]})",
                      {},
                      "found a string where a [key, value] pair belongs at status[0]"},
        document_case{"duplicate status",
                      R"({"status": [], "status": []})",
                      {},
                      "duplicate member \"status\" at the top level"},
        document_case{"deep nesting",
                      "{\"x\": " + deep + ", \"status\": []}",
                      {},
                      "nesting deeper than 64 levels"},
        document_case{"invalid UTF-8",
                      "{\"status\": [[\"k\", \"\xff\"]]}",
                      {},
                      "parse error at line 1, column 20: syntax error while parsing value - "
                      "invalid string: ill-formed UTF-8 byte; last read: '\"\xff'"}),
    vigilo::test_support::paramName);

TEST(StatusDocumentTest, PairCountIsBounded) {
  std::string document = "{\"status\": [";
  for (std::size_t i = 0; i <= maxStatusPairs; ++i) document += i ? ",[\"\",\"\"]" : "[\"\",\"\"]";
  document += "]}";
  text_pairs pairs;
  std::string error;
  EXPECT_FALSE(read(document, pairs, error));
  EXPECT_EQ(error, "more than 100000 pairs at status[100000]");
  EXPECT_TRUE(pairs.empty());
}

}  // namespace
}  // namespace com::orvex::client
