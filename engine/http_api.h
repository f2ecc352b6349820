// The HTTP face of ovengine: status, info, events and user status, with a one-line reason on
// every refusal.
#ifndef VIGILO_ENGINE_HTTP_API_H_
#define VIGILO_ENGINE_HTTP_API_H_

#include <string>

#include "bounded_server.h"
#include "event_engine.h"

namespace ovengine {

// The server's limits: the request body is the engine's.
ovhttp::server_limits serverLimits();

// Why a user status value was refused, for the client or the command line.
std::string describe(user_status_result refusal);

// Installs every route. `engine` must outlive the server; `port` is what /info reports.
void installRoutes(ovhttp::bounded_server& server, event_engine& engine, int port);

}  // namespace ovengine

#endif  // VIGILO_ENGINE_HTTP_API_H_
