#include "http_api.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "event_lines.h"

namespace ovengine {

namespace {

using json = nlohmann::json;

void reply(httplib::Response& res, int status, const std::string& text) {
  res.status = status;
  res.set_content(text + "\n", "text/plain");
}

bool validUserKey(const std::string& key) {
  if (key.empty() || key.size() > 128) return false;
  for (const char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') {
      return false;
    }
  }
  return true;
}

// Known paths answer every other method with 405 and the methods they allow.
void allowOnly(httplib::Server& server, const std::string& pattern, const std::string& allow) {
  const auto refuse = [allow](const httplib::Request& req, httplib::Response& res) {
    res.set_header("Allow", allow);
    reply(res, 405, "method " + req.method + " not allowed on " + req.path);
  };
  if (allow.find("GET") == std::string::npos) server.Get(pattern, refuse);
  if (allow.find("POST") == std::string::npos) server.Post(pattern, refuse);
  if (allow.find("PUT") == std::string::npos) server.Put(pattern, refuse);
  if (allow.find("DELETE") == std::string::npos) server.Delete(pattern, refuse);
  server.Patch(pattern, refuse);
}

}  // namespace

void configureServer(httplib::Server& server) {
  // A poller sends one small request after another on one connection: without TCP_NODELAY each
  // reply waits on a delayed ACK, and the default request count per connection is tiny.
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(1'000'000'000);
  server.set_keep_alive_timeout(30);
  server.set_payload_max_length(maxRequestBody);
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };
}

void installRoutes(httplib::Server& server, event_engine& engine, int port) {
  server.Get("/ping",
             [](const httplib::Request&, httplib::Response& res) { reply(res, 200, "pong"); });
  server.Get("/info", [&engine, port](const httplib::Request&, httplib::Response& res) {
    const json info = {{"name", "ovengine"},
                       {"version", "1.0.0"},
                       {"port", port},
                       {"pid", static_cast<long>(getpid())},
                       {"uptime", engine.uptimeMs()}};
    res.set_content(info.dump() + "\n", "application/json");
  });
  server.Get("/status", [&engine](const httplib::Request&, httplib::Response& res) {
    json pairs = json::array();
    for (auto& [key, value] : engine.snapshot()) pairs.push_back({key, value});
    res.set_content(json{{"status", std::move(pairs)}}.dump(), "application/json");
  });
  server.Post("/events", [&engine](const httplib::Request& req, httplib::Response& res) {
    std::vector<event> events;
    std::string error;
    if (!parseEventLines(req.body, events, error)) return reply(res, 400, error);
    const std::size_t count = events.size();
    if (!engine.submit(std::move(events))) return reply(res, 503, "input queue full");
    reply(res, 200, "accepted " + std::to_string(count) + " events");
  });
  server.Put(
      R"(/status/user/([^/]*))", [&engine](const httplib::Request& req, httplib::Response& res) {
        const std::string key = req.matches[1];
        if (!validUserKey(key)) {
          return reply(res, 400, "user status key must be 1 to 128 of A-Z a-z 0-9 _ - .");
        }
        if (req.body.size() > maxUserValue) {
          return reply(res, 413,
                       "user status value exceeds " + std::to_string(maxUserValue) + " bytes");
        }
        engine.setUserStatus(key, req.body);
        reply(res, 200, "user-" + key + " set");
      });
  server.Delete(R"(/status/user/([^/]*))",
                [&engine](const httplib::Request& req, httplib::Response& res) {
                  const std::string key = req.matches[1];
                  if (!engine.removeUserStatus(key))
                    return reply(res, 404, "no user status " + key);
                  reply(res, 200, "user-" + key + " removed");
                });

  allowOnly(server, "/ping", "GET");
  allowOnly(server, "/info", "GET");
  allowOnly(server, "/status", "GET");
  allowOnly(server, "/events", "POST");
  allowOnly(server, R"(/status/user/([^/]*))", "PUT, DELETE");

  // Whatever reaches no route, and refusals by the server itself, get a reason too.
  server.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        if (res.status == 404)
          reply(res, 404, "no such resource " + req.path);
        else if (res.status == 413) {
          reply(res, 413, "request body exceeds " + std::to_string(maxRequestBody) + " bytes");
        } else
          reply(res, res.status, "bad request");
        return httplib::Server::HandlerResponse::Handled;
      }));
}

}  // namespace ovengine
