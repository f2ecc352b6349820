// The status document read by the client library's reader (simdjson), beside nlohmann-json's SAX
// reader collecting the same pairs: the measurement behind the choice of simdjson. The document
// is the engine's standard one, 27 pairs and a user value, about 900 bytes.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "status/status_catalogue.h"
#include "status_document.h"

namespace {

std::string document() {
  nlohmann::json pairs = nlohmann::json::array();
  for (const auto& row : com::orvex::engine::statusCatalogue) pairs.push_back({row.key, "1061116"});
  pairs.push_back({"user-region", "emea"});
  return nlohmann::json{{"status", pairs}}.dump();
}

// Collects every string of the document, as the old reader did with its SAX events.
struct collecting_sax : nlohmann::json_sax<nlohmann::json> {
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t& text) override {
    texts.push_back(std::move(text));
    return true;
  }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }
  std::vector<std::string> texts;
};

void BM_SimdjsonReader(benchmark::State& state) {
  const std::string text = document();
  com::orvex::client::status_document_reader reader;
  com::orvex::client::pair_table pairs;
  std::string error;
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader.read(text, pairs, error));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_NlohmannSax(benchmark::State& state) {
  const std::string text = document();
  for (auto _ : state) {
    collecting_sax sax;
    benchmark::DoNotOptimize(nlohmann::json::sax_parse(text, &sax));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

BENCHMARK(BM_SimdjsonReader);
BENCHMARK(BM_NlohmannSax);

}  // namespace

BENCHMARK_MAIN();
