// ovengine: a real event-processing engine for vigilo to watch.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <thread>

#include "endpoint.h"
#include "engine_options.h"
#include "event_engine.h"
#include "http_api.h"
#include "support/version.h"

namespace {

// Generates events at a steady rate, in a batch every 10 ms, until the engine stops. A batch that
// the engine has no room for is dropped and counted.
void generateLoad(ovengine::event_engine& engine, double perSecond, const bool& stop,
                  std::mutex& mutex) {
  static const char* const types[] = {"Trade", "Quote", "Order", "Cancel", "Fill"};
  const auto tick = std::chrono::milliseconds(10);
  auto next = std::chrono::steady_clock::now();
  double owed = 0;
  std::uint64_t sequence = 0;
  for (;;) {
    next += tick;
    std::this_thread::sleep_until(next);
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (stop) return;
    }
    owed += perSecond / 100.0;
    const auto count = static_cast<std::size_t>(std::floor(owed));
    owed -= static_cast<double>(count);
    std::vector<ovengine::event> batch;
    batch.reserve(count);
    for (std::size_t i = 0; i < count; ++i, ++sequence) {
      batch.push_back({types[sequence % 5], "id=" + std::to_string(sequence) + ",qty=100"});
    }
    if (!batch.empty() && engine.submit(std::move(batch)) != ovengine::submit_result::accepted) {
      engine.countDropped(count);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  ovengine::engine_options options;
  std::string error;
  const ovhttp::command_line outcome = ovengine::parseEngineOptions(argc, argv, options, error);
  if (const auto status = ovhttp::endOfCommandLine(
          outcome, error, {"ovengine", ovengine::engineUsage, VIGILO_VERSION_DETAIL})) {
    return *status;
  }

  ovhttp::blockStopSignals();  // before any thread starts

  ovengine::event_engine engine(options.contexts);
  for (const auto& [key, value] : options.userStatus) {
    const ovengine::user_status_result result = engine.setUserStatus(key, value);
    if (result != ovengine::user_status_result::set) {
      std::cerr << "ovengine: --user-status " << key << ": " << ovengine::describe(result) << "\n";
      return 2;
    }
  }

  ovhttp::bounded_server server(ovengine::serverLimits());
  std::string why;
  const int port = server.bindTo(options.bind, options.port, why);
  if (port == 0) {
    std::cerr << "ovengine: cannot listen on "
              << ovnet::host_port{options.bind, static_cast<unsigned short>(options.port)}.text()
              << ": " << why << "\n";
    return 1;
  }
  ovengine::installRoutes(server, engine, port);

  std::mutex loadMutex;
  bool loadStop = false;
  std::thread load;
  if (options.load > 0) {
    load = std::thread(generateLoad, std::ref(engine), options.load, std::cref(loadStop),
                       std::ref(loadMutex));
  }

  std::cout << "ovengine listening on " << server.boundTo() << std::endl;
  const bool served = ovhttp::serveUntilStopSignal(server);

  {
    std::lock_guard<std::mutex> lock(loadMutex);
    loadStop = true;
  }
  if (load.joinable()) load.join();
  if (!served) {
    std::cerr << "ovengine: the server failed\n";
    return 1;
  }
  std::cout << "ovengine stopped" << std::endl;
  return 0;
}
