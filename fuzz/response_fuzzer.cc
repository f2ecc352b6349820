// Fuzzes the client's reading of an engine's answer: HTTP framing, then the status document, then
// the status object built from it. The first input byte picks how the rest is split into reads,
// so that framing is exercised at every boundary. Nothing may crash, leak, or grow past the
// reader's limits.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client_status.h"
#include "engine_connection.h"
#include "http_response_reader.h"
#include "status/EngineStatus.h"
#include "status_document.h"

using namespace com::orvex::client;
using com::orvex::engine::EngineStatus;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t step = 1 + data[0] % 16;
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  // Small limits, so that the fuzzer reaches them; the readers are reused, as a connection's are.
  static http_response_reader reader(512, 4096);
  static status_document_reader documents;
  reader.reset();
  while (!bytes.empty() && reader.current() == http_response_reader::state::reading) {
    const std::size_t take = bytes.size() < step ? bytes.size() : step;
    reader.feed(bytes.substr(0, take));
    bytes.remove_prefix(take);
  }
  reader.finish();
  if (reader.current() != http_response_reader::state::complete) return 0;
  if (reader.body().size() > 4096) __builtin_trap();

  std::string error;
  pair_table table;
  if (!documents.read(reader.body(), table, error)) return 0;
  std::vector<std::pair<std::string, std::string>> pairs;
  for (std::size_t i = 0; i < table.size(); ++i) pairs.emplace_back(table.key(i), table.value(i));
  client_status::owned status = client_status::take();
  status->snapshot = snapshotOf(pairs);
  EngineStatus record(status.release()->handOut());
  std::size_t seen = 0;
  for (auto it = record.begin(); it != record.end(); ++it) seen += it.key().size();
  (void)seen;
  (void)record.getStandardStatusValuesRaw();
  (void)record.getAllStatusValues();
  (void)record.getRawHeaderAll();
  return 0;
}
