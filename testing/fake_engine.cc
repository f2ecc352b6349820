#include "testing/fake_engine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
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

struct client {
  std::string pending;  // bytes of the request being read
  std::string trickle;
};

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
      listen(listenFd, 64) != 0 || pipe2(wakeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot listen on " + address + ": " + std::strerror(errno));
  }
  getsockname(listenFd, reinterpret_cast<sockaddr*>(&storage), &length);
  listenPort = ntohs(v6 ? a6->sin6_port : a4->sin_port);
  thread = std::thread([this] { run(); });
}

fake_engine::~fake_engine() {
  stopping = true;
  (void)!write(wakeFds[1], "s", 1);
  thread.join();
  close(listenFd);
  close(wakeFds[0]);
  close(wakeFds[1]);
}

void fake_engine::closeConnections() {
  int ticket;
  {
    std::lock_guard<std::mutex> lock(mutex);
    ticket = ++closeRequests;
  }
  (void)!write(wakeFds[1], "c", 1);
  while (closesDone < ticket) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void fake_engine::run() {
  std::map<int, client> clients;
  auto drop = [&clients](int fd) {
    close(fd);
    clients.erase(fd);
  };
  auto nextTrickle = std::chrono::steady_clock::now();
  while (!stopping) {
    std::vector<pollfd> fds = {{listenFd, POLLIN, 0}, {wakeFds[0], POLLIN, 0}};
    for (const auto& [fd, c] : clients) fds.push_back({fd, POLLIN, 0});
    poll(fds.data(), fds.size(), 10);
    if (fds[1].revents != 0) {
      char c;
      (void)!read(wakeFds[0], &c, 1);
      std::lock_guard<std::mutex> lock(mutex);
      if (closesDone < closeRequests) {
        for (const auto& [fd, c] : clients) close(fd);
        clients.clear();
        closesDone = closeRequests;
      }
      continue;
    }
    if (fds[0].revents != 0) {
      const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) clients[fd], ++accepted;
    }
    for (std::size_t i = 2; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      const int fd = fds[i].fd;
      char buffer[4096];
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) {
        drop(fd);
        continue;
      }
      std::string& pending = clients[fd].pending;
      pending.append(buffer, static_cast<std::size_t>(n));
      for (std::size_t end; (end = pending.find("\r\n\r\n")) != std::string::npos;) {
        // "GET /path HTTP/1.1": the path lies between the first two blanks.
        const std::size_t start = pending.find(' ') + 1;
        const std::string path = pending.substr(start, pending.find(' ', start) - start);
        pending.erase(0, end + 4);
        const fake_reply reply = answer(path, requests++);
        if (reply.silent) continue;
        clients[fd].trickle = reply.trickle;
        if (!sendAll(fd, reply.bytes) || reply.closeAfter) {
          drop(fd);
          break;
        }
      }
    }
    if (std::chrono::steady_clock::now() >= nextTrickle) {
      nextTrickle = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
      for (auto it = clients.begin(); it != clients.end();) {
        const int fd = (it++)->first;
        if (!clients[fd].trickle.empty() && !sendAll(fd, clients[fd].trickle)) drop(fd);
      }
    }
  }
  for (const auto& [fd, c] : clients) close(fd);
}

}  // namespace vigilo::test_support
