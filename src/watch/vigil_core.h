// The watcher: polls the engine over an open connection at a fixed interval and writes each
// snapshot to the output in the chosen form, until the poll count is reached, Control-C, or the
// output fails. Runs on the caller's thread; owns neither the connection nor the stream.
#ifndef VIGILO_WATCH_VIGIL_CORE_H_
#define VIGILO_WATCH_VIGIL_CORE_H_

#include <cstdint>
#include <ostream>

#include "platform/engine_client.h"

class vigil_core {
 public:
  // Writes "vigilo starting..." to stderr when `verbose`. `numLoops` of 0 or less: no limit.
  vigil_core(com::orvex::engine::EngineManagement* management, unsigned long interval,
             std::ostream& out, bool verbose, bool raw, bool raw_header, bool userStat,
             int numLoops);
  // Writes "vigilo done" to stderr when `verbose`. Releases nothing.
  ~vigil_core();
  vigil_core(const vigil_core&) = delete;
  vigil_core& operator=(const vigil_core&) = delete;

  // Runs the whole watch; call once. Returns when the poll count is reached, on Control-C or
  // SIGTERM, or when `out` fails ("Failed to write status to output." on stderr). A failed fetch
  // leaves as an EngineException, after the stop machinery has been shut down.
  void pollForStatus();

 private:
  com::orvex::engine::EngineManagement* management;
  std::uint64_t interval;
  std::ostream& out;
  bool verbose;
  bool raw;
  bool userStat;
  std::int32_t numLoops;
  bool raw_header;
};

#endif  // VIGILO_WATCH_VIGIL_CORE_H_
