#include "http_api.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "engine_limits.h"
#include "event_lines.h"
#include "support/build_info.h"

namespace ovengine {

namespace {

using json = nlohmann::json;
using ovhttp::allowOnly;
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
  server.Get("/ping",
             [](const httplib::Request&, httplib::Response& res) { reply(res, 200, "pong"); });
  server.Get("/info", [&engine, port](const httplib::Request&, httplib::Response& res) {
    const json info = {{"name", "ovengine"},
                       {"version", VIGILO_VERSION},
                       {"port", port},
                       {"pid", static_cast<long>(getpid())},
                       {"uptime", engine.uptimeMs()},
                       {"dropped", engine.droppedEvents()}};
    res.set_content(info.dump() + "\n", "application/json");
  });
  server.Get("/status", [&engine](const httplib::Request&, httplib::Response& res) {
    json pairs = json::array();
    for (auto& [key, value] : engine.snapshot()) pairs.push_back({key, value});
    // Every text was checked on the way in; replacing what cannot be encoded keeps the document
    // servable whatever happens.
    res.set_content(
        json{{"status", std::move(pairs)}}.dump(-1, ' ', false, json::error_handler_t::replace),
        "application/json");
  });
  server.Post("/events", [&engine](const httplib::Request&, httplib::Response& res,
                                   const httplib::ContentReader& reader) {
    std::string body;
    if (!ovhttp::readBody(reader, limits::requestBody, body, res)) return;
    std::vector<event> events;
    std::string error;
    if (!parseEventLines(body, events, error)) return reply(res, 400, error);
    const std::size_t count = events.size();
    switch (engine.submit(std::move(events))) {
      case submit_result::busy:
        res.set_header("Retry-After", "1");
        return reply(
            res, 503,
            "engine busy: " + std::to_string(limits::eventsInFlight) + " events in flight");
      case submit_result::tooManyTypes:
        return reply(res, 400, "more than " + std::to_string(limits::eventTypes) + " event types");
      case submit_result::accepted:
        return reply(res, 200, "accepted " + std::to_string(count) + " events");
    }
  });
  server.Put(R"(/status/user/([^/]*))",
             [&engine](const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& reader) {
               std::string value;
               if (!ovhttp::readBody(reader, limits::userValueLength, value, res)) return;
               const std::string key = req.matches[1];
               const user_status_result result = engine.setUserStatus(key, value);
               if (result != user_status_result::set) return reply(res, 400, describe(result));
               reply(res, 200, "user-" + key + " set");
             });
  server.Delete(R"(/status/user/([^/]*))",
                [&engine](const httplib::Request& req, httplib::Response& res) {
                  const std::string key = req.matches[1];
                  if (!engine.removeUserStatus(key)) {
                    return reply(res, 404, "no user status " + key);
                  }
                  reply(res, 200, "user-" + key + " removed");
                });

  allowOnly(server, "/ping", "GET");
  allowOnly(server, "/info", "GET");
  allowOnly(server, "/status", "GET");
  allowOnly(server, "/events", "POST");
  allowOnly(server, R"(/status/user/([^/]*))", "PUT, DELETE");
}

}  // namespace ovengine
