// The engine client library (libovclient): connection to an engine and its status snapshots.
// Every operation may be called from one thread at a time per connection.
#ifndef VIGILO_SRC_PLATFORM_OVCLIENT_ENGINE_CLIENT_H_
#define VIGILO_SRC_PLATFORM_OVCLIENT_ENGINE_CLIENT_H_

#include "ovclient/StatusOpaque.h"

namespace com::orvex::engine {

// A connection to an engine; opaque to its users.
class EngineManagement;

// Initialises the library for the named program. Throws EngineException on failure.
void engineInit(const char* programName);

// Shuts the library down. Throws EngineException on failure.
void engineShutdown();

// Connects to the engine at host:port as a client that only monitors. `reserved` must be null.
// Returns the connection, owned by the caller until disconnectFromEngine, or throws
// EngineException with a text that names host, port and cause.
EngineManagement* connectToEngineMonitorOnly(const char* host, unsigned short port,
                                             const char* reserved);

// Closes and releases the connection. Throws EngineException on failure.
void disconnectFromEngine(EngineManagement* management);

}  // namespace com::orvex::engine

extern "C" {

// Fetches one status snapshot over the connection. On success returns the status object (owned by
// the caller, released through its deleteStatus entry) and leaves *error alone; on failure sets
// *error to a text allocated with malloc, which the caller frees.
StatusOpaque* engineManagement_getStatusOpaque(com::orvex::engine::EngineManagement* management,
                                               char** error);

}  // extern "C"

#endif  // VIGILO_SRC_PLATFORM_OVCLIENT_ENGINE_CLIENT_H_
