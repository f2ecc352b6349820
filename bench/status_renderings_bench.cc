// Cost of rendering one snapshot, over a fake status object (in-memory lookups), so that the
// figures are the renderings' own: the raw values line, the human-readable text, and both user
// renderings over a walk with 10 user keys.
#include <benchmark/benchmark.h>

#include <sstream>
#include <string>

#include "status/EngineStatus.h"
#include "testing/expected_outputs.h"
#include "testing/fake_status.h"

namespace {

using com::orvex::engine::EngineStatus;
using vigilo::test_support::fake_status_log;
using vigilo::test_support::fake_status_script;
using vigilo::test_support::newFakeStatus;

fake_status_script snapshotWithUsers() {
  vigilo::test_support::text_pairs pairs = vigilo::test_support::snapshot(4294967295ULL);
  for (int i = 0; i < 10; ++i) {
    pairs.emplace_back("numContexts", "3");
    pairs.emplace_back("user-key" + std::to_string(i), "value-" + std::to_string(i));
  }
  return vigilo::test_support::scriptOf(pairs);
}

template <typename Render>
void run(benchmark::State& state, Render render) {
  fake_status_log log;
  EngineStatus record(newFakeStatus(snapshotWithUsers(), &log));
  for (auto _ : state) benchmark::DoNotOptimize(render(record));
}

void BM_RawValuesLine(benchmark::State& state) {
  run(state, [](const EngineStatus& r) { return r.getStandardStatusValuesRaw(); });
}
void BM_HumanText(benchmark::State& state) {
  run(state, [](const EngineStatus& r) {
    std::ostringstream out;
    out << r;
    return out.str();
  });
}
void BM_AllValuesWith10UserKeys(benchmark::State& state) {
  run(state, [](const EngineStatus& r) { return r.getAllStatusValues(); });
}
void BM_RawHeaderAllWith10UserKeys(benchmark::State& state) {
  run(state, [](const EngineStatus& r) { return r.getRawHeaderAll(); });
}

BENCHMARK(BM_RawValuesLine);
BENCHMARK(BM_HumanText);
BENCHMARK(BM_AllValuesWith10UserKeys);
BENCHMARK(BM_RawHeaderAllWith10UserKeys);

}  // namespace

BENCHMARK_MAIN();
