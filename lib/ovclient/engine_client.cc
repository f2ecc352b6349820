// The engine client library's C-shaped entry points, over its C++ face.
#include "ovclient/engine_client.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "client_status.h"
#include "engine_connection.h"
#include "ovcommon/EngineException.h"
#include "ovcommon/log.h"
#include "ovcommon/memory.h"
#include "resolver.h"

namespace com::orvex::engine {

class EngineManagement {
 public:
  explicit EngineManagement(std::unique_ptr<client::engine_connection> connection)
      : connection(std::move(connection)) {}
  const std::unique_ptr<client::engine_connection> connection;
};

namespace {

std::string userAgent = "ovclient";

int positiveFromEnvironment(const char* name, int fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value <= 0 || value > 24L * 3600 * 1000) return fallback;
  return static_cast<int>(value);
}

// The defaults, or OVCLIENT_CONNECT_TIMEOUT_MS and OVCLIENT_RESPONSE_TIMEOUT_MS when they hold a
// positive number of milliseconds.
client::connection_limits limitsFromEnvironment() {
  client::connection_limits limits;
  limits.connectMs = positiveFromEnvironment("OVCLIENT_CONNECT_TIMEOUT_MS", limits.connectMs);
  limits.responseMs = positiveFromEnvironment("OVCLIENT_RESPONSE_TIMEOUT_MS", limits.responseMs);
  return limits;
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

// The host is looked up with the system's name service, and looking up, connecting and the
// engine's answer to /ping share the connect limit's deadline.
EngineManagement* connectToEngineMonitorOnly(const char* host, unsigned short port,
                                             const char* /*reserved*/) {
  if (host == nullptr) throw EngineException("Could not connect to engine: no host given");
  const client::connection_limits limits = limitsFromEnvironment();
  const ovnet::deadline until =
      ovnet::clock_type::now() + std::chrono::milliseconds(limits.connectMs);
  const std::string where = ovnet::host_port{host, port}.text();
  ovnet::lookup_result found = ovnet::system_resolver().resolve(host, port, until, nullptr);
  if (found.addresses.empty()) {
    const std::string cause = found.end == ovnet::wait_end::timedOut
                                  ? ovnet::timedOutAfter(limits.connectMs)
                                  : found.error;
    throw EngineException(client::couldNotConnect(where, cause));
  }
  auto management = std::make_unique<EngineManagement>(std::make_unique<client::engine_connection>(
      where, std::move(found.addresses), limits, userAgent));
  management->connection->open(until);
  management->connection->ping();
  logLine(LogLevel::info, "connected to engine at " + where);
  return management.release();
}

void disconnectFromEngine(EngineManagement* management) {
  if (management == nullptr) return;
  logLine(LogLevel::info, "disconnected from engine at " + management->connection->where());
  delete management;
}

}  // namespace com::orvex::engine

extern "C" StatusOpaque* engineManagement_getStatusOpaque(
    com::orvex::engine::EngineManagement* management, char** error) {
  using com::orvex::client::client_status;
  try {
    client_status::owned status = client_status::take();
    status->snapshot = management->connection->status(std::move(status->snapshot));
    return status.release()->handOut();
  } catch (const std::exception& e) {  // the connection's failures name the engine themselves
    *error = strdup(e.what());
    return nullptr;
  }
}
