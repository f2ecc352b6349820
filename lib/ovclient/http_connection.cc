#include "http_connection.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace com::orvex::client {

namespace {

int positiveFromEnvironment(const char* name, int fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value <= 0 || value > 24L * 3600 * 1000) return fallback;
  return static_cast<int>(value);
}

int msLeft(clock_type::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

std::string timedOut(int ms) { return "timed out after " + std::to_string(ms) + " ms"; }

std::string whereOf(const std::string& host, unsigned short port) {
  const bool ipv6Literal = host.find(':') != std::string::npos;
  return (ipv6Literal ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

// How often a wait looks at the caller's abandon flag.
constexpr int abandonCheckMs = 50;

bool abandoned(const engine::EngineLimits& limits) {
  return limits.abandon != nullptr && limits.abandon->load(std::memory_order_relaxed);
}

// Whether the deadline has passed or the caller has abandoned the wait.
bool givenUp(clock_type::time_point deadline, const engine::EngineLimits& limits) {
  return clock_type::now() >= deadline || abandoned(limits);
}

// Waits until `fd` is ready for `events`; false once the deadline has passed, however many bytes
// keep arriving before it, or once the caller abandons the wait.
bool waitFor(int fd, short events, clock_type::time_point deadline,
             const engine::EngineLimits& limits) {
  for (;;) {
    if (givenUp(deadline, limits)) return false;
    pollfd p{fd, events, 0};
    const int ready = poll(&p, 1, std::min(msLeft(deadline), abandonCheckMs));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;  // let the next call report the error
  }
}

// The resolver's answer, shared with the thread that waits for it, which may outlive the wait.
struct resolution {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  int rc = 0;
  int error = 0;
  addrinfo* found = nullptr;
  ~resolution() {
    if (found != nullptr) freeaddrinfo(found);
  }
};

// Every address of host:port, within the deadline: a name server may take longer than the
// connect limit allows, so a name is resolved on a thread of its own and given up on at the
// deadline. A numeric address needs no resolver.
std::shared_ptr<resolution> resolve(const std::string& host, unsigned short port,
                                    clock_type::time_point deadline,
                                    const engine::EngineLimits& limits) {
  auto answer = std::make_shared<resolution>();
  const std::string service = std::to_string(port);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  if (getaddrinfo(host.c_str(), service.c_str(), &hints, &answer->found) == 0) return answer;
  answer->found = nullptr;
  std::thread([answer, host, service, hints]() mutable {
    hints.ai_flags = 0;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
    const int error = errno;
    std::lock_guard<std::mutex> lock(answer->mutex);
    answer->rc = rc;
    answer->error = error;
    answer->found = found;
    answer->finished = true;
    answer->done.notify_one();
  }).detach();
  std::unique_lock<std::mutex> lock(answer->mutex);
  while (!answer->finished) {
    if (givenUp(deadline, limits)) return nullptr;
    answer->done.wait_until(
        lock, std::min(deadline, clock_type::now() + std::chrono::milliseconds(abandonCheckMs)));
  }
  if (answer->rc != 0) {
    throw std::runtime_error(answer->rc == EAI_SYSTEM ? std::strerror(answer->error)
                                                      : gai_strerror(answer->rc));
  }
  return answer;
}

}  // namespace

engine::EngineLimits timeoutsFromEnvironment() {
  engine::EngineLimits t;
  t.connectMs = positiveFromEnvironment("OVCLIENT_CONNECT_TIMEOUT_MS", t.connectMs);
  t.responseMs = positiveFromEnvironment("OVCLIENT_RESPONSE_TIMEOUT_MS", t.responseMs);
  return t;
}

struct http_connection::exchange_result {
  bool ok = false;
  bool receivedAnything = false;
  bool timedOut = false;
  std::string error;
};

http_connection::http_connection(std::string host, unsigned short port,
                                 engine::EngineLimits timeouts, std::string userAgent)
    : host(std::move(host)),
      port(port),
      timeouts(timeouts),
      userAgent(std::move(userAgent)),
      location(whereOf(this->host, port)) {}

http_connection::~http_connection() { closeSocket(); }

void http_connection::shrink(std::size_t bytes) {
  reader.shrink(bytes);
  if (response.body.capacity() > bytes) std::string().swap(response.body);
}

std::string http_connection::ended(int limitMs) const {
  return abandoned(timeouts) ? "abandoned" : timedOut(limitMs);
}

void http_connection::closeSocket() {
  if (fd >= 0) close(fd);
  fd = -1;
}

void http_connection::open() {
  if (fd >= 0) return;
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeouts.connectMs);
  const std::shared_ptr<resolution> addresses = resolve(host, port, deadline, timeouts);
  if (addresses == nullptr) throw std::runtime_error(ended(timeouts.connectMs));
  int left = 0;
  for (addrinfo* a = addresses->found; a != nullptr; a = a->ai_next) ++left;
  std::string cause = "no address";
  for (addrinfo* a = addresses->found; a != nullptr && fd < 0; a = a->ai_next, --left) {
    // Each address gets its share of the time that is left, so that one that never answers
    // leaves time for the next.
    const auto now = clock_type::now();
    if (givenUp(deadline, timeouts)) break;
    const auto until = now + (deadline - now) / left;
    const int candidate =
        socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
    int error = candidate < 0 ? errno : 0;
    if (candidate >= 0 && connect(candidate, a->ai_addr, a->ai_addrlen) != 0) {
      error = errno;
      if (error == EINPROGRESS) {
        error = ETIMEDOUT;
        if (waitFor(candidate, POLLOUT, until, timeouts)) {
          socklen_t length = sizeof error;
          getsockopt(candidate, SOL_SOCKET, SO_ERROR, &error, &length);
        }
      }
    }
    if (error != 0) {
      cause = error == ETIMEDOUT ? ended(timeouts.connectMs) : std::strerror(error);
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
    const timeval slice{0, 50'000};
    setsockopt(candidate, SOL_SOCKET, SO_RCVTIMEO, &slice, sizeof slice);
    setsockopt(candidate, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice);
    fd = candidate;
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
                                                           clock_type::time_point deadline) {
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
    } else if (givenUp(deadline, timeouts)) {
      result.timedOut = true;
      result.error = ended(timeouts.responseMs);
      return result;
    }
  }

  reader.reset();
  char buffer[65536];
  while (reader.current() == http_response_reader::state::reading) {
    if (givenUp(deadline, timeouts)) {
      result.timedOut = true;
      result.receivedAnything = reader.receivedAnything();
      result.error = ended(timeouts.responseMs);
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
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeouts.responseMs);
  for (int attempt = 0;; ++attempt) {
    bool reused = fd >= 0;
    // A connection that has just answered is still open; one that has waited may have been
    // closed by the engine meanwhile.
    if (reused && clock_type::now() - lastAnswer > std::chrono::milliseconds(100) && peerClosed()) {
      closeSocket();
      reused = false;
    }
    open();
    exchange_result r = exchange(path, deadline);
    if (r.ok) {
      lastAnswer = clock_type::now();
      return response;
    }
    closeSocket();
    // The engine may close a kept-alive connection just as a request goes out: that request got
    // no answer at all and is safe to send once more on a new connection.
    if (reused && attempt == 0 && !r.receivedAnything && !r.timedOut) continue;
    // "GET /status: Connection reset by peer", "GET /status timed out after 300 ms".
    throw std::runtime_error("GET " + path + (r.timedOut ? " " : ": ") + r.error);
  }
}

}  // namespace com::orvex::client
