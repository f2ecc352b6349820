#include "testing/fake_engine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace vigilo::test_support {

namespace {

bool sendAll(int fd, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;  // the client went away
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

fake_reply httpReply(int status, const std::string& reason, const std::string& body,
                     const std::string& extraHeaders) {
  return {"HTTP/1.1 " + std::to_string(status) + " " + reason +
          "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\n" + extraHeaders + "\r\n" + body};
}

fake_reply statusReply(const std::vector<std::pair<std::string, std::string>>& pairs) {
  nlohmann::json document = {{"status", nlohmann::json::array()}};
  for (const auto& [key, value] : pairs) document["status"].push_back({key, value});
  return httpReply(200, "OK", document.dump());
}

fake_engine::fake_engine(script answer, const std::string& address) : answer(std::move(answer)) {
  const bool v6 = address.find(':') != std::string::npos;
  sockaddr_storage storage{};
  auto* a4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* a6 = reinterpret_cast<sockaddr_in6*>(&storage);
  socklen_t length = v6 ? sizeof *a6 : sizeof *a4;
  storage.ss_family = v6 ? AF_INET6 : AF_INET;
  inet_pton(storage.ss_family, address.c_str(),
            v6 ? static_cast<void*>(&a6->sin6_addr) : &a4->sin_addr);
  listenFd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (v6) setsockopt(listenFd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (bind(listenFd, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      listen(listenFd, 64) != 0) {
    close(listenFd);
    throw std::runtime_error("cannot listen on " + address + ": " + std::strerror(errno));
  }
  getsockname(listenFd, reinterpret_cast<sockaddr*>(&storage), &length);
  listenPort = ntohs(v6 ? a6->sin6_port : a4->sin_port);
  acceptor = std::thread([this] {
    // Ends when the destructor shuts the listening socket down.
    for (int fd; (fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++accepted;
      std::lock_guard<std::mutex> lock(mutex);
      clients.insert(fd);
      servers.emplace_back([this, fd] { serve(fd); });
    }
  });
}

fake_engine::~fake_engine() {
  shutdown(listenFd, SHUT_RDWR);
  acceptor.join();
  closeConnections();
  for (std::thread& server : servers) server.join();  // the acceptor has ended: no more start
  close(listenFd);
}

void fake_engine::closeConnections() {
  // Each connection's thread sees its end and closes the descriptor itself.
  std::lock_guard<std::mutex> lock(mutex);
  for (const int fd : clients) shutdown(fd, SHUT_RDWR);
}

void fake_engine::serve(int fd) {
  std::string pending;  // bytes of the request being read
  std::string trickle;
  for (bool open = true; open;) {
    pollfd readable = {fd, POLLIN, 0};
    if (poll(&readable, 1, trickle.empty() ? -1 : 50) == 0) {
      open = sendAll(fd, trickle);
      continue;
    }
    char buffer[4096];
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; open && (end = pending.find("\r\n\r\n")) != std::string::npos;) {
      // "GET /path HTTP/1.1": the path lies between the first two blanks.
      const std::size_t start = pending.find(' ') + 1;
      const std::string path = pending.substr(start, pending.find(' ', start) - start);
      pending.erase(0, end + 4);
      const fake_reply reply = answer(path, requests++);
      if (reply.silent) continue;
      trickle = reply.trickle;
      open = sendAll(fd, reply.bytes) && !reply.closeAfter;
    }
  }
  std::lock_guard<std::mutex> lock(mutex);
  clients.erase(fd);
  close(fd);
}

int loopbackSocket(int type, unsigned short& port) {
  const int fd = socket(AF_INET, type, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

unsigned short closedLoopbackPort() {
  unsigned short port = 0;
  close(loopbackSocket(SOCK_STREAM, port));
  return port;
}

}  // namespace vigilo::test_support
