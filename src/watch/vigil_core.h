// The watcher: polls the engine over an open connection at a fixed interval and writes each
// snapshot to the output in the chosen form, until the poll count is reached, Control-C, or the
// output fails. Runs on the caller's thread; owns neither the connection nor the stream.
#ifndef VIGILO_SRC_WATCH_VIGIL_CORE_H_
#define VIGILO_SRC_WATCH_VIGIL_CORE_H_

#include <cstdint>
#include <ostream>
#include <string>

#include "ovclient/engine_client.h"
#include "ovcommon/threads.h"
#include "status/EngineStatus.h"

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
  // What the poll loop shares with the broadcast thread; created once, never released.
  struct poll_sync {
    com::orvex::Mutex* pollMutex;
    com::orvex::Condition* pollCondition;
    bool* stopFlag;
  };
  // The processed count of the previous human-readable poll, for the event rate.
  struct rate_base {
    bool firstPoll = true;
    std::uint64_t previousProcessed = 0;
  };

  poll_sync startStopMachinery();
  void writeHeading();
  void writePoll(const com::orvex::engine::EngineStatus& status, rate_base& rate,
                 std::string& line);
  void writeRateBlock(const com::orvex::engine::EngineStatus& status, rate_base& rate);
  // Waits for the interval or a stop; true when the watch is to stop.
  bool waitOrStop(const poll_sync& sync);

  com::orvex::engine::EngineManagement* management;
  std::uint64_t interval;
  std::ostream& out;
  bool verbose;
  bool raw;
  bool userStat;
  std::int32_t numLoops;
  bool raw_header;
};

#endif  // VIGILO_SRC_WATCH_VIGIL_CORE_H_
