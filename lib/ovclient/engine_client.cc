// The engine client library's entry points over the HTTP status endpoint.
#include "ovclient/engine_client.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "client_status.h"
#include "http_connection.h"
#include "ovcommon/EngineException.h"
#include "ovcommon/log.h"
#include "ovcommon/memory.h"
#include "status_document.h"

namespace com::orvex::engine {

class EngineManagement {
 public:
  EngineManagement(const char* host, unsigned short port, EngineLimits limits,
                   const std::string& userAgent)
      : connection(host, port, limits, userAgent) {}
  client::http_connection connection;
  client::status_document_reader reader;  // its buffers serve every poll of the connection
  std::string why;
};

namespace {

std::string userAgent = "ovclient";

std::string answered(const std::string& path, const client::http_response& r) {
  return "GET " + path + " answered " + std::to_string(r.status) +
         (r.reason.empty() ? "" : " " + r.reason);
}

}  // namespace

void engineInit(const char* programName) {
  if (programName == nullptr || *programName == '\0') {
    throw EngineException("engineInit needs a program name");
  }
  userAgent = std::string(programName) + " (ovclient)";
  logLine(LogLevel::info, "engine client initialised for " + std::string(programName));
}

void engineShutdown() {
  if (checkMemoryTrackingEnabled() && logEnabled(LogLevel::debug)) {
    const std::uint64_t allocated = memoryAllocatedTotal();
    const std::uint64_t freed = memoryFreedTotal();
    logLine(LogLevel::debug, "memory: " + std::to_string(allocated) + " bytes allocated, " +
                                 std::to_string(freed) + " freed, " +
                                 std::to_string(allocated - freed) + " still held");
  }
  logLine(LogLevel::info, "engine client shut down");
}

EngineManagement* connectToEngineMonitorOnly(const char* host, unsigned short port,
                                             const char* /*reserved*/) {
  return connectToEngineWithin(host, port, client::timeoutsFromEnvironment());
}

void setEngineLimits(EngineManagement* management, EngineLimits limits) {
  management->connection.setTimeouts(limits);
}

EngineManagement* connectToEngineWithin(const char* host, unsigned short port,
                                        EngineLimits limits) {
  if (host == nullptr) throw EngineException("Could not connect to engine: no host given");
  auto management = std::make_unique<EngineManagement>(host, port, limits, userAgent);
  try {
    management->connection.open();
    const client::http_response& pong = management->connection.get("/ping");
    if (pong.status / 100 != 2) throw std::runtime_error(answered("/ping", pong));
  } catch (const std::exception& e) {
    throw EngineException(printable("Could not connect to engine at " +
                                    management->connection.where() + ": " + e.what()));
  }
  logLine(LogLevel::info, "connected to engine at " + management->connection.where());
  return management.release();
}

void disconnectFromEngine(EngineManagement* management) {
  if (management == nullptr) return;
  logLine(LogLevel::info, "disconnected from engine at " + management->connection.where());
  delete management;
}

}  // namespace com::orvex::engine

using com::orvex::engine::EngineManagement;

extern "C" StatusOpaque* engineManagement_getStatusOpaque(EngineManagement* management,
                                                          char** error) {
  using namespace com::orvex;
  using namespace com::orvex::engine;
  using namespace com::orvex::client;
  try {
    const http_response& response = management->connection.get("/status");
    if (logEnabled(LogLevel::debug)) {
      logLine(LogLevel::debug, printable(answered("/status", response)) + ", " +
                                   std::to_string(response.body.size()) + " bytes");
    }
    client_status::owned status = client_status::take();
    std::string failure;
    if (response.status / 100 != 2) {
      failure = answered("/status", response);
    } else if (!management->reader.read(response.body, status->pairs, management->why)) {
      failure = "malformed status document: " + management->why;
    }
    // A kept connection holds little between polls, however large an answer once was.
    if (response.body.size() > keptCapacity) {
      management->connection.shrink(keptCapacity);
      management->reader.shrink(keptCapacity);
    }
    if (!failure.empty()) throw std::runtime_error(failure);
    return status.release()->handOut();
  } catch (const std::exception& e) {
    const std::string text = printable("Status request to engine at " +
                                       management->connection.where() + " failed: " + e.what());
    *error = strdup(text.c_str());
    return nullptr;
  }
}
