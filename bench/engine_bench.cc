// ovengine under load: status requests per second served to one poller while the engine ingests
// events at a stated rate, and the highest generated event rate that the engine keeps up with
// (processed events follow the rate and the queues stay short). Prints one table.
//
//   build/bin/engine_bench [seconds per step] [--baseline=OTHER_OVENGINE]
//
// With --baseline, the status requests are measured of that ovengine too, in turns with this
// build's, and printed beside them with their ratio.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "bench_process.h"
#include "ovclient/engine_client.h"
#include "status/EngineStatus.h"

namespace {

using namespace com::orvex::engine;
using clock_type = std::chrono::steady_clock;

struct engine_run {
  vigilo::bench::engine_process engine;
  EngineManagement* connection;

  explicit engine_run(double load, const std::string& binary = OVENGINE_BINARY)
      : engine(binary, {"--load", std::to_string(load)}),
        connection(connectToEngineMonitorOnly("127.0.0.1", engine.port(), nullptr)) {}
  ~engine_run() { disconnectFromEngine(connection); }

  std::pair<std::uint64_t, std::uint64_t> processedAndQueued() {
    EngineStatus s = getEngineStatus(connection);
    return {s.getStatusInteger("numProcessed"),
            s.getStatusInteger("numQueuedInput") + s.getStatusInteger("numInputQueuedInput")};
  }
};

double statusRequestsPerSecond(double load, double seconds, const std::string& binary) {
  engine_run run(load, binary);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let the load settle
  const auto start = clock_type::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  long requests = 0;
  while (clock_type::now() < end) {
    EngineStatus s = getEngineStatus(run.connection);
    ++requests;
  }
  return requests / std::chrono::duration<double>(clock_type::now() - start).count();
}

// The processed rate over the step, and whether the queues stayed short.
std::pair<double, bool> sustained(double load, double seconds) {
  engine_run run(load);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto [before, queuedBefore] = run.processedAndQueued();
  const auto start = clock_type::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const auto [after, queuedAfter] = run.processedAndQueued();
  const double elapsed = std::chrono::duration<double>(clock_type::now() - start).count();
  const double rate = static_cast<double>(after - before) / elapsed;
  return {rate, rate >= 0.95 * load && queuedAfter < load / 10 + 1000};
}

}  // namespace

int main(int argc, char** argv) {
  const vigilo::bench::bench_arguments arguments = vigilo::bench::readArguments(argc, argv);
  const std::string& baseline = arguments.baseline;
  const double seconds = arguments.rest.empty() ? 2.0 : std::atof(arguments.rest.back().c_str());
  engineInit("engine_bench");
  std::printf("%-34s %14s", "status requests, one poller", "requests/s");
  if (!baseline.empty()) std::printf(" %14s %8s", "baseline", "ratio");
  std::printf("\n");
  for (const double load : {0.0, 10000.0, 100000.0}) {
    // In turns, so that both meet the machine in the same state.
    double ours = 0, theirs = 0;
    const int turns = baseline.empty() ? 1 : 3;
    for (int turn = 0; turn < turns; ++turn) {
      ours += statusRequestsPerSecond(load, seconds, OVENGINE_BINARY) / turns;
      if (!baseline.empty()) theirs += statusRequestsPerSecond(load, seconds, baseline) / turns;
    }
    std::printf("  while ingesting %9.0f ev/s  %14.0f", load, ours);
    if (!baseline.empty()) std::printf(" %14.0f %8.2f", theirs, ours / theirs);
    std::printf("\n");
  }
  std::printf("\n%-20s %16s %10s\n", "generated ev/s", "processed ev/s", "keeps up");
  double best = 0;
  for (double load = 50000; load <= 6400000; load *= 2) {
    const auto [rate, ok] = sustained(load, seconds);
    std::printf("%-20.0f %16.0f %10s\n", load, rate, ok ? "yes" : "no");
    if (!ok) break;
    best = load;
  }
  std::printf("\nhighest sustained generated rate: %.0f ev/s\n", best);
  engineShutdown();
  return 0;
}
