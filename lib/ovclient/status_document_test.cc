#include "status_document.h"

#include <gtest/gtest.h>

#include <string>

namespace com::orvex::client {
namespace {

// The pairs of a document as "key=value;..." or "error: why". One reader serves every document,
// as a connection's does, and the table held a pair before.
std::string read(const std::string& document) {
  static status_document_reader reader;
  pair_table table;
  table.add("stale", "pair");
  std::string error;
  const bool ok = reader.read(document, table, error);
  std::string seen = ok ? "" : "error: " + error;
  for (std::size_t i = 0; i < table.size(); ++i) {
    seen += std::string(table.key(i)) + "=" + std::string(table.value(i)) + ";";
  }
  return seen;
}

// Stands for the JSON library's own words, whatever they are, as long as there are some.
const std::string libraryWords = "...";

TEST(StatusDocumentTest, ReadsPairsAndSaysWhereADocumentIsWrong) {
  const std::string deep = std::string(65, '[') + std::string(65, ']');
  std::string tooMany = "{\"status\": [";
  for (std::size_t i = 0; i <= maxStatusPairs; ++i) tooMany += i ? ",[\"\",\"\"]" : "[\"\",\"\"]";
  tooMany += "]}";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"status": [["uptime", "10"], ["user-b", "x,y"], ["uptime", "11"]]})",
       "uptime=10;user-b=x,y;uptime=11;"},
      {R"({"status": []})", ""},
      {R"({"engine": {"a": [1, {"b": null}]}, "status": [["k", "v"]], "n": 1.5})", "k=v;"},
      {R"({"status": [["k\n", "caf\u00e9 \"q\""]]})", "k\n=caf\xc3\xa9 \"q\";"},
      {R"({"status": [["", ""]]})", "=;"},
      // Where the document stops being JSON; what is wrong there is the JSON library's to say.
      {"", "error: parse error at line 1, column 1: " + libraryWords},
      {R"({"status": [["a", "b"])", "error: parse error at line 1, column 23: " + libraryWords},
      {"{\"status\":\n [] x", "error: parse error at line 2, column 5: " + libraryWords},
      {R"([["a", "b"]])", "error: the document is an array, not an object at the top level"},
      {R"({"stat": []})", "error: the document has no \"status\" array"},
      {R"({"status": {"a": "b"}})",
       "error: member \"status\" is an object, not an array at status"},
      {R"({"status": [["a", "b"], ["c", 1]]})",
       "error: found a number where a string belongs at status[1][1]"},
      {R"({"status": [["a", "b", "c"]]})",
       "error: found a string after the value; a pair has two strings at status[0][2]"},
      {R"({"status": [["a"]]})",
       "error: found the end of the pair where a string belongs at status[0][1]"},
      {R"({"status": ["a"]})",
       "error: found a string where a [key, value] pair belongs at status[0]"},
      {R"({"status": [], "status": []})", "error: duplicate member \"status\" at the top level"},
      {"{\"x\": " + deep + ", \"status\": []}", "error: nesting deeper than 64 levels"},
      {"{\"status\": [[\"k\", \"\xff\"]]}",
       "error: parse error at line 1, column 20: " + libraryWords},
      {tooMany, "error: more than 100000 pairs at status[100000]"},
  };
  for (const auto& [document, seen] : cases) {
    std::string actual = read(document);
    const std::string ours = seen.substr(0, seen.size() - libraryWords.size());
    if (seen.ends_with(libraryWords) && actual.starts_with(ours) && actual.size() > ours.size()) {
      actual = seen;  // the library said something after the position
    }
    EXPECT_EQ(actual, seen) << document.substr(0, 80);
  }
}

}  // namespace
}  // namespace com::orvex::client
