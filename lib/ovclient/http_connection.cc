#include "http_connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace com::orvex::client {

namespace {

using ovnet::clock_type;
using ovnet::wait_end;

}  // namespace

struct http_connection::exchange_result {
  bool ok = false;
  bool receivedAnything = false;
  bool timedOut = false;
  std::string error;
};

http_connection::http_connection(std::string where, std::vector<ovnet::address> addresses,
                                 connection_limits limits, std::string userAgent)
    : location(std::move(where)),
      addresses(std::move(addresses)),
      limits(limits),
      userAgent(std::move(userAgent)) {}

http_connection::~http_connection() { closeSocket(); }

void http_connection::shrink(std::size_t bytes) {
  reader.shrink(bytes);
  if (response.body.capacity() > bytes) std::string().swap(response.body);
}

std::string http_connection::ended(int limitMs) const {
  return ovnet::abandoned(limits.abandon) ? "abandoned" : ovnet::timedOutAfter(limitMs);
}

void http_connection::closeSocket() {
  if (fd >= 0) close(fd);
  fd = -1;
}

void http_connection::open(ovnet::deadline until) {
  if (fd >= 0) return;
  std::string cause = "no address";
  for (std::size_t i = 0; i < addresses.size() && fd < 0; ++i) {
    // Each address gets its share of the time that is left, so that one that never answers
    // leaves time for the next.
    if (ovnet::abandoned(limits.abandon) || ovnet::msLeft(until) == 0) {
      cause = ended(limits.connectMs);
      break;
    }
    const auto now = clock_type::now();
    const ovnet::deadline share = now + (until - now) / static_cast<long>(addresses.size() - i);
    const ovnet::address& a = addresses[i];
    const int candidate = socket(a.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int error = candidate < 0 ? errno : 0;
    if (candidate >= 0 && connect(candidate, a.data(), a.size()) != 0) {
      error = errno;
      if (error == EINPROGRESS) {
        error = ETIMEDOUT;
        pollfd writable{candidate, POLLOUT, 0};
        if (ovnet::waitReady({&writable, 1}, share, limits.abandon) == wait_end::ready) {
          socklen_t length = sizeof error;
          getsockopt(candidate, SOL_SOCKET, SO_ERROR, &error, &length);
        }
      }
    }
    if (error != 0) {
      cause = error == ETIMEDOUT ? ended(limits.connectMs) : std::strerror(error);
      if (candidate >= 0) close(candidate);
      continue;
    }
    // A request goes out in one piece; without this, a reply can wait on a delayed ACK.
    const int one = 1;
    setsockopt(candidate, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // From here on sends and receives block, for a slice of time at most, so that a response
    // costs one system call per read rather than a poll before each, and the deadline still
    // holds to within a slice.
    fcntl(candidate, F_SETFL, fcntl(candidate, F_GETFL) & ~O_NONBLOCK);
    const timeval slice{0, std::chrono::microseconds(ovnet::checkInterval).count()};
    setsockopt(candidate, SOL_SOCKET, SO_RCVTIMEO, &slice, sizeof slice);
    setsockopt(candidate, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice);
    fd = candidate;
    lastAnswer = clock_type::now();  // a new connection has not been left idle
  }
  if (fd < 0) throw std::runtime_error(cause);
}

// An idle kept-alive connection that has become readable was closed by the engine (or holds
// stray bytes): either way it cannot carry the next request.
bool http_connection::peerClosed() const {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 0) != 0;
}

http_connection::exchange_result http_connection::exchange(const std::string& path,
                                                           ovnet::deadline until) {
  exchange_result result;
  if (path != requestPath) {
    requestPath = path;
    request = "GET " + path + " HTTP/1.1\r\nHost: " + location + "\r\nUser-Agent: " + userAgent +
              "\r\nAccept: application/json\r\n\r\n";
  }
  std::size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
    } else if (errno != EAGAIN && errno != EINTR) {
      result.error = std::strerror(errno);
      return result;
    } else if (givenUp(until)) {
      result.timedOut = true;
      result.error = ended(limits.responseMs);
      return result;
    }
  }

  reader.reset();
  char buffer[65536];
  while (reader.current() == http_response_reader::state::reading) {
    if (givenUp(until)) {
      result.timedOut = true;
      result.receivedAnything = reader.receivedAnything();
      result.error = ended(limits.responseMs);
      return result;
    }
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n > 0) {
      reader.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
    } else if (n == 0) {
      reader.finish();
    } else if (errno != EAGAIN && errno != EINTR) {
      result.receivedAnything = reader.receivedAnything();
      result.error = std::strerror(errno);
      return result;
    }
  }
  result.receivedAnything = reader.receivedAnything();
  if (reader.current() == http_response_reader::state::failed) {
    result.error = reader.error();
    return result;
  }
  if (!reader.keepAlive()) closeSocket();
  result.ok = true;
  response.status = reader.statusCode();
  response.reason = reader.reason();
  reader.takeBody(response.body);
  return result;
}

const http_response& http_connection::get(const std::string& path) {
  // One limit for the whole response, a request sent once more included.
  const ovnet::deadline until = clock_type::now() + std::chrono::milliseconds(limits.responseMs);
  for (;;) {
    bool reused = fd >= 0;
    // A connection that has just answered is still open; one that has waited may have been
    // closed by the engine meanwhile.
    if (reused && clock_type::now() - lastAnswer > std::chrono::milliseconds(100) && peerClosed()) {
      closeSocket();
      reused = false;
    }
    if (fd < 0) open(clock_type::now() + std::chrono::milliseconds(limits.connectMs));
    exchange_result r = exchange(path, until);
    if (r.ok) {
      lastAnswer = clock_type::now();
      return response;
    }
    closeSocket();
    // The engine may close a kept-alive connection just as a request goes out: that request got
    // no answer at all and is safe to send once more on a new connection, which is never reused,
    // so the request goes out twice at most.
    if (reused && !r.receivedAnything && !r.timedOut) continue;
    // "GET /status: Connection reset by peer", "GET /status timed out after 300 ms".
    throw std::runtime_error("GET " + path + (r.timedOut ? " " : ": ") + r.error);
  }
}

}  // namespace com::orvex::client
