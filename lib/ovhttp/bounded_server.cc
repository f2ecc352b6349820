#include "bounded_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string_view>

namespace ovhttp {

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t readChunk = 16 * 1024;
// Chunk sizes, extensions and trailers around a body of the largest size.
constexpr std::size_t framingAllowance = 64 * 1024;
// How long a refused or finished connection is drained before it closes, so that the client
// reads the response rather than a reset.
constexpr milliseconds lingerTime{1000};

thread_local bool closeRequested = false;

const char* reasonPhrase(int status) {
  switch (status) {
    case 408:
      return "Request Timeout";
    case 414:
      return "URI Too Long";
    case 431:
      return "Request Header Fields Too Large";
    default:
      return "Service Unavailable";
  }
}

// A refusal made before any handler has seen the request; the connection closes after it.
void sendRefusal(int fd, int status, const std::string& text) {
  const std::string bytes =
      "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) +
      "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(text.size() + 1) +
      "\r\n" + (status == 503 ? "Retry-After: 1\r\n" : "") + "Connection: close\r\n\r\n" + text +
      "\n";
  (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  shutdown(fd, SHUT_WR);
}

// Waits until `fd` is ready for `events`; false at the deadline or once the server stops.
bool waitReady(int fd, short events, int stopFd, clock_type::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<milliseconds>(deadline - clock_type::now()).count();
    if (left <= 0) return false;
    pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
    const int ready = poll(fds, 2, static_cast<int>(std::min<long>(left, 1000)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || fds[1].revents != 0) return false;
    if (ready > 0) return true;
  }
}

}  // namespace

namespace {

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

void blockStopSignals() {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool serveUntilStopSignal(bounded_server& server, const std::function<void()>& onStop) {
  std::thread stopper([&server, &onStop] {
    const sigset_t signals = stopSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    if (onStop) onStop();
    server.shutdown();
  });
  const bool served = server.serve();
  pthread_kill(stopper.native_handle(), SIGTERM);  // wakes the stopper if no signal came
  stopper.join();
  return served;
}

void reply(httplib::Response& res, int status, const std::string& text) {
  res.status = status;
  res.set_content(text + "\n", "text/plain");
}

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

void closeAfterResponse() { closeRequested = true; }

bool readBody(const httplib::ContentReader& reader, std::size_t limit, std::string& body,
              httplib::Response& res) {
  bool tooLarge = false;
  const bool whole = reader([&](const char* data, std::size_t length) {
    tooLarge = body.size() + length > limit;
    if (!tooLarge) body.append(data, length);
    return !tooLarge;
  });
  if (whole) return true;
  closeAfterResponse();
  if (tooLarge) {
    reply(res, 413, "request body exceeds " + std::to_string(limit) + " bytes");
  } else {
    reply(res, 400, "request body incomplete");
  }
  return false;
}

struct bounded_server::connection {
  explicit connection(int fd) : fd(fd) {}
  std::size_t pending() const { return buffer.size() - consumed; }

  const int fd;
  std::string buffer;         // bytes read from the client
  std::size_t consumed = 0;   // of them, those taken by requests already read
  std::size_t headBytes = 0;  // the head of the next request, once complete
  clock_type::time_point since = clock_type::now();  // idle since, or first byte of a request
  bool closing = false;  // answered and shut for writing: drained until the client closes
};

namespace {

// httplib's view of one request on a connection: the bytes already read first, then the socket,
// never more than the request may hold, never past its deadline or the server's stop.
class request_stream : public httplib::Stream {
 public:
  request_stream(int fd, std::string& buffer, std::size_t& consumed, std::size_t allowance,
                 clock_type::time_point deadline, milliseconds writeTimeout, int stopFd)
      : fd(fd),
        buffer(buffer),
        consumed(consumed),
        allowance(allowance),
        deadline(deadline),
        writeTimeout(writeTimeout),
        stopFd(stopFd) {}

  bool is_readable() const override {
    return consumed < buffer.size() || waitReady(fd, POLLIN, stopFd, deadline);
  }
  bool is_writable() const override {
    return waitReady(fd, POLLOUT, stopFd, clock_type::now() + writeTimeout);
  }

  ssize_t read(char* ptr, size_t size) override {
    if (taken >= allowance) return -1;
    while (consumed == buffer.size()) {
      buffer.clear();
      consumed = 0;
      if (!waitReady(fd, POLLIN, stopFd, deadline)) return -1;
      char chunk[readChunk];
      const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
      if (got == 0) return 0;
      if (got < 0 && errno != EAGAIN && errno != EINTR) return -1;
      if (got > 0) buffer.append(chunk, static_cast<std::size_t>(got));
    }
    const std::size_t length = std::min({size, buffer.size() - consumed, allowance - taken});
    std::memcpy(ptr, buffer.data() + consumed, length);
    consumed += length;
    taken += length;
    return static_cast<ssize_t>(length);
  }

  ssize_t write(const char* ptr, size_t size) override {
    for (std::size_t sent = 0; sent < size;) {
      const ssize_t n = send(fd, ptr + sent, size - sent, MSG_NOSIGNAL);
      if (n > 0) {
        sent += static_cast<std::size_t>(n);
      } else if ((errno != EAGAIN && errno != EINTR) ||
                 !waitReady(fd, POLLOUT, stopFd, clock_type::now() + writeTimeout)) {
        return -1;
      }
    }
    return static_cast<ssize_t>(size);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    address(getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    address(getsockname, ip, port);
  }
  socket_t socket() const override { return fd; }

 private:
  void address(int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (get(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return;
    char text[INET6_ADDRSTRLEN] = "";
    const bool v6 = storage.ss_family == AF_INET6;
    const auto* a4 = reinterpret_cast<const sockaddr_in*>(&storage);
    const auto* a6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(storage.ss_family, v6 ? static_cast<const void*>(&a6->sin6_addr) : &a4->sin_addr,
              text, sizeof text);
    ip = text;
    port = ntohs(v6 ? a6->sin6_port : a4->sin_port);
  }

  const int fd;
  std::string& buffer;
  std::size_t& consumed;
  const std::size_t allowance;
  std::size_t taken = 0;
  const clock_type::time_point deadline;
  const milliseconds writeTimeout;
  const int stopFd;
};

// Accepted connections are handed over at once: the server's own threads take it from there.
class hand_over_queue : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> fn) override { fn(); }
  void shutdown() override {}
};

}  // namespace

bounded_server::bounded_server(server_limits limits) : limits(limits) {
  if (pipe2(stopPipe, O_CLOEXEC) != 0 || pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(std::string("cannot create pipes: ") + std::strerror(errno));
  }
  new_task_queue = [] { return new hand_over_queue; };
  // The library's default also sets SO_REUSEPORT, with which a second server on a port shares its
  // requests with the first instead of failing.
  set_socket_options([](socket_t sock) {
    const int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  set_keep_alive_max_count(std::size_t{1} << 40);
  set_keep_alive_timeout(
      std::chrono::duration_cast<std::chrono::seconds>(limits.idleTimeout).count());
  set_payload_max_length(limits.maxBodyBytes);
  set_pre_routing_handler([limits](const httplib::Request& req, httplib::Response& res) {
    const std::string encoding = req.get_header_value("Content-Encoding");
    const std::string transfer = req.get_header_value("Transfer-Encoding");
    const std::string length = req.get_header_value("Content-Length");
    if (!encoding.empty() && strcasecmp(encoding.c_str(), "identity") != 0) {
      reply(res, 415, "request bodies are taken without a content encoding");
    } else if (!transfer.empty() && strcasecmp(transfer.c_str(), "chunked") != 0) {
      reply(res, 400, "unsupported Transfer-Encoding");
    } else if (!length.empty() &&
               std::strtoull(length.c_str(), nullptr, 10) > limits.maxBodyBytes) {
      reply(res, 413, "request body exceeds " + std::to_string(limits.maxBodyBytes) + " bytes");
    } else {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    closeAfterResponse();
    return httplib::Server::HandlerResponse::Handled;
  });
  // Whatever reaches no route, and refusals by the HTTP library itself, get a reason too. A
  // request the library could not read is left partly unread, so its connection ends with it.
  set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        if (res.status == 404) {
          reply(res, 404, "no such resource " + req.path);
        } else {
          reply(res, res.status, "bad request");
          closeAfterResponse();
        }
        return httplib::Server::HandlerResponse::Handled;
      }));
}

bounded_server::~bounded_server() {
  shutdown();
  for (int fd : {stopPipe[0], stopPipe[1], wakePipe[0], wakePipe[1]}) close(fd);
}

int bounded_server::bindTo(const std::string& host, unsigned short port, std::string& error) {
  errno = 0;
  const int bound = port == 0 ? bind_to_any_port(host) : bind_to_port(host, port) ? port : -1;
  if (bound > 0) return bound;
  if (errno == EADDRINUSE) {
    error = "address in use";
  } else {
    error = errno == 0 ? "cannot resolve or bind" : std::strerror(errno);
    error[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(error[0])));
  }
  return 0;
}

bool bounded_server::serve() {
  bool start = false;
  {
    std::lock_guard<std::mutex> lock(startMutex);
    serving = true;
    start = !stopping;
    // The library listens with a backlog of 5: a burst of new clients would wait on SYN retries.
    // Listening again on the bound socket only raises the backlog.
    if (start) ::listen(svr_sock_, SOMAXCONN);
  }
  bool accepted = true;
  if (start) {
    watcher = std::thread([this] { watch(); });
    accepted = listen_after_bind();
  }
  serving = false;
  shutdown();
  if (watcher.joinable()) watcher.join();
  workAvailable.notify_all();
  for (std::thread& worker : workers) worker.join();
  for (auto& conn : handedToWatcher) closeConnection(std::move(conn));
  for (auto& conn : readyForWorkers) closeConnection(std::move(conn));
  return accepted;
}

void bounded_server::shutdown() {
  if (!stopping.exchange(true)) {
    (void)!write(stopPipe[1], "s", 1);
    std::lock_guard<std::mutex> lock(mutex);
    workAvailable.notify_all();
  }
  { std::lock_guard<std::mutex> lock(startMutex); }  // serve() has listened, or never will
  // A stop that came before the server listens would find nothing to stop.
  while (serving && !is_running()) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  stop();
}

bool bounded_server::process_and_close_socket(socket_t sock) {
  if (stopping || open >= limits.maxConnections) {
    if (!stopping) sendRefusal(sock, 503, "too many connections");
    close(sock);
    return false;
  }
  ++open;
  fcntl(sock, F_SETFL, fcntl(sock, F_GETFL) | O_NONBLOCK);
  const int one = 1;  // a reply goes out in one piece rather than waiting on a delayed ACK
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  handBack(std::make_unique<connection>(sock));
  return true;
}

bounded_server::head_state bounded_server::examineHead(connection& conn) {
  const std::string_view bytes = std::string_view(conn.buffer).substr(conn.consumed);
  const std::size_t lineEnd = bytes.find("\r\n");
  const std::size_t headEnd = bytes.find("\r\n\r\n");
  const std::string_view head = bytes.substr(0, headEnd);
  // Every line of the head after the request line is a field; the last one may be unfinished.
  std::size_t fields = 0;
  std::size_t longestField = 0;  // line end included
  for (std::size_t at = head.find("\r\n"); at != std::string_view::npos;) {
    const std::size_t next = head.find("\r\n", at + 2);
    ++fields;
    longestField =
        std::max(longestField, (next == std::string_view::npos ? head.size() : next) - at);
    at = next;
  }
  int status = 0;
  std::string why;
  if ((lineEnd == std::string_view::npos ? bytes.size() : lineEnd) + 2 > limits.maxRequestLine) {
    status = 414;
    why = "request line exceeds " + std::to_string(limits.maxRequestLine) + " bytes";
  } else if (fields > limits.maxHeaderFields) {
    status = 431;
    why = "more than " + std::to_string(limits.maxHeaderFields) + " header fields";
  } else if (longestField > limits.maxFieldLine) {
    status = 431;
    why = "header field exceeds " + std::to_string(limits.maxFieldLine) + " bytes";
  } else if (head.size() + 4 > limits.maxHeadBytes) {
    status = 431;
    why = "request head exceeds " + std::to_string(limits.maxHeadBytes) + " bytes";
  } else if (headEnd == std::string_view::npos) {
    return head_state::incomplete;
  } else {
    conn.headBytes = headEnd + 4;
    return head_state::complete;
  }
  sendRefusal(conn.fd, status, why);
  conn.closing = true;
  conn.since = clock_type::now();
  return head_state::refused;
}

void bounded_server::watch() {
  std::map<int, connection_ptr> watched;
  while (!stopping) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      for (auto& conn : handedToWatcher) watched[conn->fd] = std::move(conn);
      handedToWatcher.clear();
    }
    std::vector<pollfd> fds = {{wakePipe[0], POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
    for (const auto& [fd, conn] : watched) fds.push_back({fd, POLLIN, 0});
    poll(fds.data(), fds.size(), 100);
    char drained[64];
    while (read(wakePipe[0], drained, sizeof drained) > 0) {
    }
    const auto now = clock_type::now();
    for (std::size_t i = 2; i < fds.size(); ++i) {
      connection& conn = *watched[fds[i].fd];
      const bool partial = conn.pending() > 0;
      if (fds[i].revents != 0) {
        char chunk[readChunk];
        const ssize_t got = recv(conn.fd, chunk, sizeof chunk, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
          closeConnection(std::move(watched[fds[i].fd]));
        } else if (got > 0 && !conn.closing) {
          if (!partial) conn.since = now;
          conn.buffer.append(chunk, static_cast<std::size_t>(got));
          if (examineHead(conn) == head_state::complete) dispatch(std::move(watched[fds[i].fd]));
        }
      } else if (conn.closing
                     ? now - conn.since > lingerTime
                     : now - conn.since > (partial ? limits.requestTimeout : limits.idleTimeout)) {
        if (partial && !conn.closing) {
          sendRefusal(conn.fd, 408,
                      "request not complete within " +
                          std::to_string(limits.requestTimeout.count()) + " ms");
        }
        closeConnection(std::move(watched[fds[i].fd]));
      }
    }
    std::erase_if(watched, [](const auto& entry) { return entry.second == nullptr; });
  }
  for (auto& [fd, conn] : watched) closeConnection(std::move(conn));
}

void bounded_server::dispatch(connection_ptr conn) {
  std::lock_guard<std::mutex> lock(mutex);
  readyForWorkers.push_back(std::move(conn));
  if (readyForWorkers.size() > idleWorkers && workers.size() < limits.maxConnections) {
    workers.emplace_back([this] { work(); });
  } else {
    workAvailable.notify_one();
  }
}

void bounded_server::work() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    ++idleWorkers;
    workAvailable.wait(lock, [this] { return stopping || !readyForWorkers.empty(); });
    --idleWorkers;
    if (readyForWorkers.empty()) return;
    connection_ptr conn = std::move(readyForWorkers.front());
    readyForWorkers.pop_front();
    lock.unlock();
    if (stopping) {
      closeConnection(std::move(conn));
    } else {
      serveRequests(std::move(conn));
    }
    lock.lock();
  }
}

void bounded_server::serveRequests(connection_ptr conn) {
  for (;;) {
    request_stream stream(conn->fd, conn->buffer, conn->consumed,
                          conn->headBytes + limits.maxBodyBytes + framingAllowance,
                          conn->since + limits.requestTimeout, limits.requestTimeout, stopPipe[0]);
    closeRequested = false;
    bool clientCloses = false;
    if (!process_request(stream, stopping, clientCloses, nullptr)) {
      closeConnection(std::move(conn));
      return;
    }
    conn->buffer.erase(0, conn->consumed);
    conn->consumed = 0;
    conn->since = clock_type::now();
    if (clientCloses || closeRequested || stopping) {
      ::shutdown(conn->fd, SHUT_WR);
      conn->closing = true;
      handBack(std::move(conn));
      return;
    }
    // A request that came right behind this one is served at once; anything else waits with
    // the idle connections.
    if (examineHead(*conn) != head_state::complete) {
      handBack(std::move(conn));
      return;
    }
  }
}

void bounded_server::handBack(connection_ptr conn) {
  if (stopping) {
    closeConnection(std::move(conn));
    return;
  }
  std::lock_guard<std::mutex> lock(mutex);
  handedToWatcher.push_back(std::move(conn));
  (void)!write(wakePipe[1], "w", 1);
}

void bounded_server::closeConnection(connection_ptr conn) {
  if (conn == nullptr) return;
  close(conn->fd);
  --open;
}

}  // namespace ovhttp
