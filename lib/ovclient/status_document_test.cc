// The status document as the client reads it, the snapshot it becomes, and the status object
// that the C-shaped entry points hand out over a snapshot.
#include "status_document.h"

#include <gtest/gtest.h>

#include <string>

#include "client_status.h"

namespace com::orvex::client {
namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

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

// A status object over `content`, deleted through its own table.
struct handed_out {
  explicit handed_out(const pairs& content) {
    client_status::owned fresh = client_status::take();
    fresh->snapshot = snapshotOf(content);
    status = fresh.release()->handOut();
  }
  ~handed_out() { call<deleteStatus_fn>(deleteStatusEntry)(status); }
  template <typename Fn>
  Fn call(StatusFunctionEntry entry) const {
    return reinterpret_cast<Fn>(status->functions->entries[entry]);
  }
  StatusOpaque* status;
};

// Lookups take the first pair of a key, through the table as through the snapshot. The walk,
// straight through the table, yields every pair in order; handle 0 starts it, and the step after
// the last pair yields nulls and hands back 0.
TEST(ClientStatusTest, LookupsAndTheWalk) {
  for (int round = 0; round < 2; ++round) {  // the second object is the first one, recycled
    pairs content = {{"numReceived", "18446744073709551615"}, {"numReceived", "7"}};
    for (int i = 0; i < 40; ++i) content.emplace_back("key" + std::to_string(i), std::to_string(i));
    const handed_out record(content);
    const auto integer = record.call<getStatusInteger_fn>(getStatusIntegerEntry);
    const auto text = record.call<getStatusString_fn>(getStatusStringEntry);
    EXPECT_EQ(static_cast<std::uint64_t>(integer(record.status, "numReceived")),
              18446744073709551615ULL);
    EXPECT_STREQ(text(record.status, "numReceived"), "18446744073709551615");
    EXPECT_STREQ(text(record.status, "key39"), "39");
    EXPECT_EQ(text(record.status, "missing"), nullptr);
    EXPECT_EQ(integer(record.status, "missing"), 0);
    const auto next = record.call<getNextStatusPair_fn>(getNextStatusPairEntry);
    pairs seen;
    const char *key = nullptr, *value = nullptr;
    std::uintptr_t handle = 0;
    for (std::size_t step = 0; step <= content.size(); ++step) {  // one step past the last pair
      next(record.status, &key, &value, &handle);
      if (key != nullptr) seen.emplace_back(key, value);
      if (handle == 0) break;
    }
    EXPECT_EQ(seen, content);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
  }
}

TEST(ClientStatusTest, NumbersReadAsDecimal64Bit) {
  // clang-format off
  const std::pair<const char*, std::uint64_t> cases[] = {
      {"0", 0}, {"42", 42}, {"4294967296", 4294967296ULL},
      {"18446744073709551615", 18446744073709551615ULL}, {"-1", 18446744073709551615ULL},
      {"-9223372036854775808", 9223372036854775808ULL}, {"-9223372036854775809", 0},
      {"18446744073709551616", 0}, {"12abc", 0}, {" 12", 0}, {"+12", 0}, {"", 0}, {"-", 0},
      {"orders", 0}};
  // clang-format on
  for (const auto& [text, number] : cases) EXPECT_EQ(statusNumber(text), number) << text;
}

}  // namespace
}  // namespace com::orvex::client
