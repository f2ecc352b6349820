#include "http_api.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "engine_limits.h"
#include "event_lines.h"
#include "ovcommon/log.h"
#include "support/build_info.h"

namespace ovengine {

namespace {

using json = nlohmann::json;
using ovhttp::reply;

}  // namespace

ovhttp::server_limits serverLimits() {
  ovhttp::server_limits limits;
  limits.maxBodyBytes = limits::requestBody;
  return limits;
}

std::string describe(user_status_result refusal) {
  switch (refusal) {
    case user_status_result::badKey:
      return "user status key must be 1 to " + std::to_string(limits::userKeyLength) +
             " of A-Z a-z 0-9 _ - .";
    case user_status_result::badValue:
      return "user status value must be UTF-8 text of at most " +
             std::to_string(limits::userValueLength) + " bytes";
    case user_status_result::full:
      return "at most " + std::to_string(limits::userValues) + " user status values";
    case user_status_result::set:
      break;
  }
  return "set";
}

void installRoutes(ovhttp::bounded_server& server, event_engine& engine, int port) {
  using ovhttp::request;
  using ovhttp::response;
  // Everything but taking events answers from the engine's counters under its lock: quick.
  const ovhttp::route_options quick{.quick = true};
  server.route(
      "GET", "/ping", [](const request&, response& res) { reply(res, 200, "pong"); }, quick);
  server.route(
      "GET", "/info",
      [&engine, port](const request&, response& res) {
        const json info = {{"name", "ovengine"},
                           {"version", VIGILO_VERSION},
                           {"port", port},
                           {"pid", static_cast<long>(getpid())},
                           {"uptime", engine.uptimeMs()},
                           {"dropped", engine.droppedEvents()}};
        res.contentType = "application/json";
        res.body = info.dump() + "\n";
      },
      quick);
  server.route(
      "GET", "/status",
      [&engine](const request&, response& res) {
        json pairs = json::array();
        for (auto& [key, value] : engine.snapshot()) pairs.push_back({key, value});
        // Every text was checked on the way in; replacing what cannot be encoded keeps the
        // document servable whatever happens.
        res.contentType = "application/json";
        res.body =
            json{{"status", std::move(pairs)}}.dump(-1, ' ', false, json::error_handler_t::replace);
      },
      quick);
  server.route("POST", "/events", [&engine](const request& req, response& res) {
    std::vector<event> events;
    std::string error;
    if (!parseEventLines(req.body, events, error)) return reply(res, 400, error);
    const std::size_t count = events.size();
    switch (engine.submit(std::move(events))) {
      case submit_result::busy:
        return reply(
            res, 503,
            "engine busy: " + std::to_string(limits::eventsInFlight) + " events in flight");
      case submit_result::tooManyTypes:
        return reply(res, 400, "more than " + std::to_string(limits::eventTypes) + " event types");
      case submit_result::accepted:
        return reply(res, 200, "accepted " + std::to_string(count) + " events");
    }
  });
  server.route("PUT", "/status/user/*",
               [&engine](const request& req, response& res) {
                 const user_status_result result = engine.setUserStatus(req.wildcard, req.body);
                 if (result != user_status_result::set) return reply(res, 400, describe(result));
                 reply(res, 200, "user-" + req.wildcard + " set");
               },
               {.maxBody = limits::userValueLength, .quick = true});
  server.route(
      "DELETE", "/status/user/*",
      [&engine](const request& req, response& res) {
        if (!engine.removeUserStatus(req.wildcard)) {
          return reply(res, 404, "no user status " + com::orvex::printable(req.wildcard));
        }
        reply(res, 200, "user-" + req.wildcard + " removed");
      },
      quick);
}

}  // namespace ovengine
