#include "bounded_server.h"

// Before Asio: Boost 1.74's awaitable.hpp uses std::exchange without including <utility>.
#include <utility>
//
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <cctype>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_set>

#include "ovcommon/log.h"
#include "request_reader.h"
#include "resolver.h"
#include "route_table.h"
#include "worker_pool.h"

namespace ovhttp {

namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr std::size_t readChunk = 16 * 1024;
// Chunk sizes, extensions and trailers around a body of the largest size.
constexpr std::size_t framingAllowance = 64 * 1024;
// How long a refused or finished connection is drained before it closes, so that the client
// reads the response rather than a reset.
constexpr std::chrono::milliseconds lingerTime{1000};
// How long accepting pauses when the process has no descriptor or memory left for a client.
constexpr std::chrono::milliseconds acceptPauseTime{50};
// How long the name of the address to listen on may take to look up.
constexpr std::chrono::seconds bindLookupTime{5};

const char continueLine[] = "HTTP/1.1 100 Continue\r\n\r\n";

class connection;

}  // namespace

struct bounded_server::state {
  explicit state(server_limits limits) : limits(limits), workers(limits.maxConnections) {}

  void accept();
  void closeAll();

  const server_limits limits;
  route_table routes;
  std::atomic<bool> stopping{false};
  std::atomic<std::size_t> open{0};  // counted connections, whose sockets are open
  // The rest belongs to the serving thread.
  std::size_t refusing = 0;  // connections refused at the cap, still being answered
  std::unordered_set<connection*> live;
  bool acceptFailed = false;
  // Destroyed before the members above: what the context still holds may reach them.
  asio::io_context io{1};
  tcp::acceptor acceptor{io};
  asio::steady_timer acceptPause{io};
  worker_pool workers;
};

namespace {

using server_state = bounded_server::state;

// One client connection: its requests one after another, each read whole before its handler runs,
// and its answer written before the next is read. Lives on the serving thread; a handler that runs
// on a worker holds it, and hands its response back to the serving thread.
class connection : public std::enable_shared_from_this<connection> {
 public:
  // A connection refused at the cap is not `counted` among the open ones.
  connection(server_state& server, tcp::socket socket, bool counted)
      : server(server), socket(std::move(socket)), timer(server.io), counted(counted) {
    server.live.insert(this);
    if (!counted) ++server.refusing;
  }
  ~connection() { close(); }

  void start() { readRequest(); }
  // Answers with `status` and `why` before any handler has seen the request, then closes.
  void refuse(int status, const std::string& why);
  void refuse(const refusal& why) { refuse(why.status, why.reason); }
  void close();

 private:
  enum class phase { waiting, reading, handling, writing, lingering, closed };

  void readRequest();
  void readMore();
  void parse();
  void refuseRequest(error_code ec);
  void handle();
  void respond(response res);
  void write(response res, bool closeAfter);
  void linger();
  void drain();
  void arm(std::chrono::milliseconds after);
  void onTimeout();

  server_state& server;
  tcp::socket socket;
  asio::steady_timer timer;
  unsigned timerRound = 0;  // a wait of an earlier round is stale
  boost::beast::flat_buffer buffer;
  std::optional<request_reader> reader;
  std::size_t taken = 0;  // bytes of the buffer that this request has taken
  bool continueSent = false;
  std::unique_ptr<http::response<http::string_body>> outgoing;
  phase now = phase::waiting;
  const bool counted;
};

void connection::close() {
  if (now == phase::closed) return;
  now = phase::closed;
  ++timerRound;
  timer.cancel();
  error_code ignored;
  socket.close(ignored);
  server.live.erase(this);
  if (counted) {
    --server.open;
  } else {
    --server.refusing;
  }
}

void connection::arm(std::chrono::milliseconds after) {
  timer.expires_after(after);
  timer.async_wait([self = shared_from_this(), round = ++timerRound](error_code ec) {
    if (!ec && round == self->timerRound) self->onTimeout();
  });
}

void connection::onTimeout() {
  if (now == phase::reading) {
    return refuse(408, "request not complete within " +
                           std::to_string(server.limits.requestTimeout.count()) + " ms");
  }
  close();  // idle, a client that does not read its answer, or the end of a linger
}

void connection::readRequest() {
  reader.emplace(server.limits, server.routes);
  taken = 0;
  continueSent = false;
  if (buffer.size() == 0) {
    now = phase::waiting;
    arm(server.limits.idleTimeout);
    return readMore();
  }
  // A request that came right behind the last one is read at once.
  now = phase::reading;
  arm(server.limits.requestTimeout);
  parse();
}

void connection::readMore() {
  socket.async_read_some(
      buffer.prepare(readChunk), [self = shared_from_this()](error_code ec, std::size_t n) {
        if (self->now == phase::closed) return;
        if (ec) return self->close();  // the client has gone, or left a request unfinished
        self->buffer.commit(n);
        if (self->now == phase::waiting) {
          self->now = phase::reading;  // the time of a request runs from its first byte
          self->arm(self->server.limits.requestTimeout);
        }
        self->parse();
      });
}

void connection::parse() {
  request_reader& r = *reader;
  const server_limits& limits = server.limits;
  while (buffer.size() > 0 && !r.is_done()) {
    const bool headRead = r.is_header_done();
    error_code ec;
    const std::size_t used = r.put(buffer.data(), ec);
    buffer.consume(used);
    taken += used;
    if (ec == http::error::need_more) break;
    if (ec) return refuseRequest(ec);
    // The parser bounds the request line and the fields each on their own; the head as a whole
    // is bounded here. It has just been taken whole, and nothing after it.
    if (!headRead && r.is_header_done() && taken > limits.maxHeadBytes) {
      return refuse(headTooLong(limits));
    }
  }
  if (r.is_done()) return handle();
  // What is known to be too long is refused as it arrives, not once it is complete.
  if (!r.requestLineSeen && buffer.size() >= limits.maxRequestLine &&
      std::string_view(static_cast<const char*>(buffer.data().data()), limits.maxRequestLine)
              .find("\r\n") == std::string_view::npos) {
    return refuse(requestLineTooLong(limits));
  }
  if (!r.is_header_done() && taken + buffer.size() > limits.maxHeadBytes) {
    return refuse(headTooLong(limits));
  }
  if (taken + buffer.size() > limits.maxHeadBytes + r.bodyLimit + framingAllowance) {
    return refuse(bodyTooLong(r.bodyLimit));
  }
  if (r.is_header_done() && r.expectsContinue && !continueSent) {
    continueSent = true;
    return asio::async_write(socket, asio::buffer(continueLine, sizeof continueLine - 1),
                             [self = shared_from_this()](error_code ec, std::size_t) {
                               if (self->now == phase::closed) return;
                               if (ec) return self->close();
                               self->readMore();
                             });
  }
  readMore();
}

void connection::refuseRequest(error_code ec) {
  const request_reader& r = *reader;
  const server_limits& limits = server.limits;
  if (r.refusalStatus != 0) return refuse(r.refusalStatus, r.refusalReason);
  if (ec == http::error::body_limit) return refuse(bodyTooLong(r.bodyLimit));
  if (ec == http::error::header_limit) {
    return refuse(r.requestLineSeen ? headTooLong(limits) : requestLineTooLong(limits));
  }
  refuse(400, "bad request");
}

void runHandler(const route_entry& route, const request& req, response& res) {
  try {
    route.serve(req, res);
  } catch (const std::exception& e) {
    res = {};
    reply(res, 500, "internal error: " + com::orvex::printable(e.what()));
  }
}

void connection::handle() {
  now = phase::handling;
  ++timerRound;
  timer.cancel();
  request_reader& r = *reader;
  response res;
  if (r.target.route == nullptr) {
    if (r.target.status == 405) {
      res.headers.emplace_back("Allow", r.target.allow);
      reply(res, 405,
            "method " + com::orvex::printable(r.taken.method) + " not allowed on " +
                com::orvex::printable(r.taken.path));
    } else {
      reply(res, 404, "no such resource " + com::orvex::printable(r.taken.path));
    }
    return respond(std::move(res));
  }
  if (r.target.route->options.quick) {
    runHandler(*r.target.route, r.taken, res);
    return respond(std::move(res));
  }
  server.workers.run(
      [self = shared_from_this(), &route = *r.target.route, req = std::move(r.taken)]() mutable {
        response res;
        runHandler(route, req, res);
        server_state& server = self->server;
        asio::post(server.io, [self = std::move(self), res = std::move(res)]() mutable {
          self->respond(std::move(res));
        });
      });
}

void connection::respond(response res) {
  if (now == phase::closed) return;
  const bool closeAfter = res.close || !reader->keep_alive() || server.stopping;
  write(std::move(res), closeAfter);
}

void connection::refuse(int status, const std::string& why) {
  response res;
  reply(res, status, why);
  write(std::move(res), true);
}

void connection::write(response res, bool closeAfter) {
  const bool headOnly = reader && reader->requestLineSeen && reader->taken.method == "HEAD";
  outgoing = std::make_unique<http::response<http::string_body>>(
      static_cast<http::status>(res.status), reader ? reader->version : 11);
  http::response<http::string_body>& message = *outgoing;
  message.set(http::field::content_type, res.contentType);
  for (const auto& [name, value] : res.headers) message.set(name, value);
  if (res.status == 503) message.set(http::field::retry_after, "1");
  message.body() = std::move(res.body);
  message.prepare_payload();
  if (headOnly) message.body().clear();  // its length stays announced
  message.keep_alive(!closeAfter);
  now = phase::writing;
  arm(server.limits.requestTimeout);
  http::async_write(socket, message,
                    [self = shared_from_this(), closeAfter](error_code ec, std::size_t) {
                      if (self->now == phase::closed) return;
                      self->outgoing.reset();
                      if (ec) return self->close();
                      if (closeAfter) return self->linger();
                      self->readRequest();
                    });
}

void connection::linger() {
  now = phase::lingering;
  error_code ignored;
  socket.shutdown(tcp::socket::shutdown_send, ignored);
  arm(lingerTime);
  buffer.clear();
  drain();
}

void connection::drain() {
  socket.async_read_some(buffer.prepare(readChunk),
                         [self = shared_from_this()](error_code ec, std::size_t) {
                           if (self->now == phase::closed) return;
                           if (ec) return self->close();
                           self->drain();
                         });
}

bool resourceShortage(const error_code& ec) {
  return ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
         ec == asio::error::no_memory || ec.value() == ENFILE;
}

}  // namespace

void bounded_server::state::accept() {
  acceptor.async_accept([this](error_code ec, tcp::socket socket) {
    if (stopping || ec == asio::error::operation_aborted) return;
    if (resourceShortage(ec)) {
      acceptPause.expires_after(acceptPauseTime);
      acceptPause.async_wait([this](error_code waited) {
        if (!waited) accept();
      });
      return;
    }
    if (ec == asio::error::bad_descriptor) {
      acceptFailed = true;
      return;
    }
    if (!ec) {
      error_code ignored;
      // A reply goes out in one piece rather than waiting on a delayed ACK.
      socket.set_option(tcp::no_delay(true), ignored);
      if (open < limits.maxConnections) {
        ++open;
        std::make_shared<connection>(*this, std::move(socket), true)->start();
      } else if (refusing < limits.maxConnections) {
        std::make_shared<connection>(*this, std::move(socket), false)
            ->refuse(503, "too many connections");
      }
    }
    accept();
  });
}

void bounded_server::state::closeAll() {
  error_code ignored;
  acceptor.close(ignored);
  acceptPause.cancel();
  const std::vector<connection*> all(live.begin(), live.end());
  for (connection* c : all) c->close();
}

void reply(response& res, int status, const std::string& text) {
  res.status = status;
  res.contentType = "text/plain";
  res.body = text + "\n";
}

bounded_server::bounded_server(server_limits limits) : self(std::make_unique<state>(limits)) {}

bounded_server::~bounded_server() { shutdown(); }

void bounded_server::route(const std::string& method, const std::string& path, handler h,
                           route_options options) {
  self->routes.add({method, path, false, std::move(h), options});
}

int bounded_server::bindTo(const std::string& host, unsigned short port, std::string& error) {
  // No host is every interface: IPv6's, which takes IPv4 too, or IPv4's on a machine without
  // IPv6.
  if (host.empty()) {
    const int bound = bindTo("::", port, error);
    return bound != 0 ? bound : bindTo("0.0.0.0", port, error);
  }
  // A name is looked up as the machine's users would look it up, within a bound.
  const ovnet::lookup_result found = ovnet::system_resolver().resolve(
      host, port, ovnet::clock_type::now() + bindLookupTime, nullptr);
  if (found.addresses.empty()) {
    error = found.error;
    return 0;
  }
  tcp::endpoint endpoint;
  const ovnet::address& address = found.addresses.front();
  std::memcpy(endpoint.data(), address.data(), address.size());
  endpoint.resize(address.size());
  error_code ec;
  tcp::acceptor& acceptor = self->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (!ec) return acceptor.local_endpoint().port();
  error_code ignored;
  acceptor.close(ignored);
  if (ec == asio::error::address_in_use) {
    error = "address in use";
  } else {
    error = ec.message();
    if (!error.empty()) {
      error[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(error[0])));
    }
  }
  return 0;
}

bool bounded_server::serve() {
  if (self->stopping) return true;
  self->accept();
  self->io.run();
  self->workers.stop();
  // Handlers that ended meanwhile hand their answers to connections already closed.
  self->io.restart();
  self->io.poll();
  return !self->acceptFailed;
}

void bounded_server::shutdown() {
  if (self->stopping.exchange(true)) return;
  asio::post(self->io, [s = self.get()] { s->closeAll(); });
}

std::size_t bounded_server::openConnections() const { return self->open; }

std::string bounded_server::boundTo() const {
  error_code ignored;
  const tcp::endpoint local = self->acceptor.local_endpoint(ignored);
  return ovnet::host_port{ovnet::address::of(local.data(), local.size()).text(), local.port()}
      .text();
}

}  // namespace ovhttp
