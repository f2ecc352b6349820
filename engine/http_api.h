// The HTTP face of ovengine: status, info, events and user status, with a one-line reason on
// every refusal.
#ifndef VIGILO_ENGINE_HTTP_API_H_
#define VIGILO_ENGINE_HTTP_API_H_

#include <httplib.h>

#include "event_engine.h"

namespace ovengine {

inline constexpr std::size_t maxRequestBody = 1024 * 1024;
inline constexpr std::size_t maxUserValue = 4096;

// The settings that a polled server needs; they take effect on the listening socket, so they come
// before it is bound.
void configureServer(httplib::Server& server);

// Installs every route. `engine` must outlive the server; `port` is what /info reports.
void installRoutes(httplib::Server& server, event_engine& engine, int port);

}  // namespace ovengine

#endif  // VIGILO_ENGINE_HTTP_API_H_
