#include "watch/vigil_core.h"

#include <iomanip>
#include <iostream>
#include <new>
#include <sstream>

#include "ovcommon/Platform.h"
#include "ovcommon/memory.h"
#include "ovcommon/signals.h"
#include "status/status_catalogue.h"
#include "support/version.h"
#include "watch/vigil_core_sighandler.h"

using com::orvex::Condition;
using com::orvex::Mutex;
using com::orvex::Platform;
using com::orvex::engine::EngineStatus;
using com::orvex::engine::getEngineStatus;

namespace {

constexpr int sigint = 2;

// The mutex comes from the library's own allocator and is never released: the broadcast thread
// and the signal path may use it until the process ends.
Mutex* newPollMutex() {
  if (!Platform::determined_optimal_allocator) Platform::doDetermineAllocator();
  void* block = Platform::tracking.allocate(sizeof(Mutex));
  if (block == nullptr) ov_outOfMemory();
  return new (block) Mutex("vigil_core::pollForStatus");
}

// "2000.00 ev/s": events processed per second over the configured interval.
std::string rateText(std::uint64_t current, std::uint64_t previous, std::uint64_t interval) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(2)
       << static_cast<double>(current - previous) / (static_cast<double>(interval) / 1000.0)
       << " ev/s";
  return text.str();
}

}  // namespace

vigil_core::vigil_core(com::orvex::engine::EngineManagement* management, unsigned long interval,
                       std::ostream& out, bool verbose, bool raw, bool raw_header, bool userStat,
                       int numLoops)
    : management(management),
      interval(interval),
      out(out),
      verbose(verbose),
      raw(raw),
      userStat(userStat),
      numLoops(numLoops),
      raw_header(raw_header) {
  if (verbose) std::cerr << vigilo::programName << " starting..." << std::endl;
}

vigil_core::~vigil_core() {
  if (verbose) std::cerr << vigilo::programName << " done" << std::endl;
}

void vigil_core::pollForStatus() {
  const poll_sync sync = startStopMachinery();
  try {
    if (raw_header && raw) writeHeading();
    rate_base rate;
    std::string line;  // the raw line of every poll, composed in one buffer
    // Polls are counted only against a limit, so a watch without one runs for ever.
    for (std::int32_t polls = 0;;) {
      // Held until after the wait that follows its poll.
      const EngineStatus status = getEngineStatus(management);
      writePoll(status, rate, line);
      if (out.bad() || out.fail()) {
        std::cerr << "Failed to write status to output." << std::endl;
        break;
      }
      if (numLoops > 0 && ++polls >= numLoops) break;
      if (waitOrStop(sync)) break;
    }
  } catch (...) {
    SigHandler->cleanup();
    throw;
  }
  SigHandler->cleanup();
}

vigil_core::poll_sync vigil_core::startStopMachinery() {
  Mutex* pollMutex = newPollMutex();
  auto* pollCondition = new Condition(*pollMutex);
  bool* stopFlag = new bool(false);
  SigHandler = new vigil_core_sighandler(pollMutex, pollCondition, stopFlag);
  com::orvex::signals_initialize2(nullptr, SigHandler, vigilo::productVersionLine);
  com::orvex::setupHandler(sigint, SigIntHandler);
  if (numLoops != 1) std::cerr << "Control-C to exit..." << std::endl;
  return {pollMutex, pollCondition, stopFlag};
}

// The one heading of the watch, from a snapshot of its own: later user columns never change it.
void vigil_core::writeHeading() {
  const EngineStatus heading = getEngineStatus(management);
  out << (userStat ? heading.getRawHeaderAll() : EngineStatus::getRawHeader()) << std::endl;
}

void vigil_core::writePoll(const EngineStatus& status, rate_base& rate, std::string& line) {
  if (raw) {
    line.clear();
    status.appendStandardStatusValuesRaw(line);
    if (userStat) {
      com::orvex::engine::forEachUserPair(status,
                                          [&line](const std::string&, const std::string& value) {
                                            line += ',';
                                            line += value;
                                          });
    }
    out << line << std::endl;
  } else {
    if (userStat) {
      out << status.getAllStatusValues() << std::endl;
    } else {
      out << status << std::endl;
    }
    writeRateBlock(status, rate);
  }
}

void vigil_core::writeRateBlock(const EngineStatus& status, rate_base& rate) {
  const std::uint64_t processed = status.getStatusInteger(com::orvex::engine::processedRow.key);
  out << "Event rate over last interval: "
      << (!rate.firstPoll && interval != 0 ? rateText(processed, rate.previousProcessed, interval)
                                           : "-")
      << std::endl;
  out << std::endl;
  rate.previousProcessed = processed;
  rate.firstPoll = false;
}

// The stop flag is read only after the wait: a Control-C during a fetch or a write ends the watch
// once the next wait has run its course, and no further poll is made.
bool vigil_core::waitOrStop(const poll_sync& sync) {
  sync.pollMutex->lock();
  sync.pollCondition->timedwait(Platform::sysTime() + interval);
  const bool stop = *sync.stopFlag;
  sync.pollMutex->unlock();
  return stop;
}
