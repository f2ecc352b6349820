#include "front/ov_main.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "front/options.h"
#include "front/settings.h"
#include "front/usage.h"
#include "ovclient/engine_client.h"
#include "ovcommon/EngineException.h"
#include "ovcommon/Platform.h"
#include "ovcommon/log.h"
#include "support/allocation.h"
#include "support/version.h"
#include "watch/vigil_core.h"

using com::orvex::EngineException;
using com::orvex::Platform;
namespace engine = com::orvex::engine;

namespace {

constexpr const char* nonEngineException = "Caught non-engine exception in main()";

// Runs `step`; an exception other than an EngineException becomes one with a fixed text.
template <typename Step>
void engineExceptionsOnly(Step&& step) {
  try {
    step();
  } catch (const EngineException&) {
    throw;
  } catch (...) {
    throw EngineException(nonEngineException);
  }
}

void report(const char* context, const EngineException& failure) {
  std::cerr << context << ": " << failure.what() << std::endl;
}

// Connects, watches, and releases in reverse order: output file, watcher, connection, library.
// Returns the exit status.
int watch() {
  using namespace vigilo;
  engine::EngineManagement* connection = nullptr;
  bool initialised = false;
  const char* context = nullptr;
  int status = 0;
  std::unique_ptr<std::ofstream> file;
  std::optional<vigil_core> watcher;

  try {
    engineExceptionsOnly([&] {
      context = "Failed to initialise engine library";
      status = 1;
      if (debug) {
        com::orvex::setLogLevel(com::orvex::LogLevel::debug);
      } else if (verbose) {
        com::orvex::setLogLevel(com::orvex::LogLevel::info);
      }
      engine::engineInit(programName);
      initialised = true;

      context = "Failed to connect to engine";
      connection =
          engine::connectToEngineMonitorOnly(host, static_cast<unsigned short>(port), nullptr);
      if (connection == nullptr) throw EngineException("Failed to connect to engine");

      context = "Failed to open file";
      status = 2;
      std::ostream* out = &std::cout;
      if (filename != nullptr) {
        file.reset(Platform::openOFStreamUTF8(filename, true, false));
        if (file->bad() || file->fail()) throw EngineException(filename);
        out = file.get();
      }

      context = "Status monitor failed";
      watcher.emplace(connection, interval, *out, verbose, raw, raw_header, userStat, numLoops);
      watcher->pollForStatus();
      if (file) {
        file->flush();
        file->close();
        file.reset();
      }
      status = 0;
    });
  } catch (const EngineException& failure) {
    watcher.reset();
    report(context, failure);
  }
  watcher.reset();
  file.reset();

  try {
    engineExceptionsOnly([&] {
      if (connection != nullptr) {
        context = "Failed to disconnect from engine";
        engine::disconnectFromEngine(connection);
      }
      if (initialised) {
        context = "Failed to shutdown engine library";
        engine::engineShutdown();
      }
    });
  } catch (const EngineException& failure) {
    report(context, failure);
  }
  return status;
}

}  // namespace

int ov_main(int argc, char** argv) {
  ov_installOutOfMemoryCatcher();
  switch (vigilo::parseOptions(argc, argv)) {
    case vigilo::parse_outcome::usageError:
      vigilo::printUsage();
      return 2;
    case vigilo::parse_outcome::help:
      vigilo::printUsage();
      Platform::doExit(0, 0);
    case vigilo::parse_outcome::version:
      std::cerr << vigilo::programVersionLine << std::endl;
      Platform::doExit(0, 0);
    case vigilo::parse_outcome::proceed:
      break;
  }
  return watch();
}
