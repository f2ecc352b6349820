#include "testing/fake_engine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace vigilo::test_support {

namespace {

void sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;  // the client went away; nothing more to say
    sent += static_cast<std::size_t>(n);
  }
}

}  // namespace

fake_reply httpReply(int status, const std::string& reason, const std::string& body,
                     const std::string& extraHeaders) {
  return {"HTTP/1.1 " + std::to_string(status) + " " + reason +
              "\r\nContent-Type: application/json\r\nContent-Length: " +
              std::to_string(body.size()) + "\r\n" + extraHeaders + "\r\n" + body,
          false, false};
}

fake_reply statusReply(const std::vector<std::pair<std::string, std::string>>& pairs) {
  nlohmann::json document = {{"status", nlohmann::json::array()}};
  for (const auto& [key, value] : pairs) document["status"].push_back({key, value});
  return httpReply(200, "OK", document.dump());
}

fake_engine::fake_engine(script answer, const std::string& address) : answer(std::move(answer)) {
  const bool v6 = address.find(':') != std::string::npos;
  listenFd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd < 0) throw std::runtime_error("socket");
  sockaddr_storage storage{};
  socklen_t length;
  if (v6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&storage);
    a->sin6_family = AF_INET6;
    inet_pton(AF_INET6, address.c_str(), &a->sin6_addr);
    const int only = 1;
    setsockopt(listenFd, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
    length = sizeof *a;
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&storage);
    a->sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &a->sin_addr);
    length = sizeof *a;
  }
  if (bind(listenFd, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      listen(listenFd, 16) != 0) {
    throw std::runtime_error(std::string("bind/listen: ") + std::strerror(errno));
  }
  getsockname(listenFd, reinterpret_cast<sockaddr*>(&storage), &length);
  listenPort = ntohs(v6 ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                        : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  if (pipe2(wakeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  thread = std::thread([this] { run(); });
}

fake_engine::~fake_engine() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  (void)!write(wakeFds[1], "s", 1);
  thread.join();
  close(listenFd);
  close(wakeFds[0]);
  close(wakeFds[1]);
}

void fake_engine::closeConnections() {
  std::unique_lock<std::mutex> lock(mutex);
  const int ticket = ++closeRequests;
  (void)!write(wakeFds[1], "c", 1);
  done.wait(lock, [&] { return closesDone >= ticket; });
}

void fake_engine::run() {
  std::map<int, std::string> clients;  // fd -> bytes of the request being read
  for (;;) {
    std::vector<pollfd> fds = {{listenFd, POLLIN, 0}, {wakeFds[0], POLLIN, 0}};
    for (const auto& [fd, pending] : clients) fds.push_back({fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[1].revents) {
      char c;
      (void)!read(wakeFds[0], &c, 1);
      std::lock_guard<std::mutex> lock(mutex);
      if (stopping) break;
      if (closesDone < closeRequests) {
        for (const auto& [fd, pending] : clients) close(fd);
        clients.clear();
        closesDone = closeRequests;
        done.notify_all();
      }
      continue;
    }
    if (fds[0].revents) {
      const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) {
        clients[fd];
        ++accepted;
      }
    }
    for (std::size_t i = 2; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      const int fd = fds[i].fd;
      char buffer[4096];
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) {
        close(fd);
        clients.erase(fd);
        continue;
      }
      std::string& pending = clients[fd];
      pending.append(buffer, static_cast<std::size_t>(n));
      std::size_t end;
      while ((end = pending.find("\r\n\r\n")) != std::string::npos) {
        const std::string head = pending.substr(0, end);
        pending.erase(0, end + 4);
        const auto firstSpace = head.find(' ');
        const auto secondSpace = head.find(' ', firstSpace + 1);
        const std::string path = head.substr(firstSpace + 1, secondSpace - firstSpace - 1);
        const fake_reply reply = answer(path, requests++);
        if (reply.silent) continue;
        sendAll(fd, reply.bytes);
        if (reply.closeAfter) {
          close(fd);
          clients.erase(fd);
          break;
        }
      }
    }
  }
  for (const auto& [fd, pending] : clients) close(fd);
}

}  // namespace vigilo::test_support
