#include "testing/raw_http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vigilo::test_support {

int connectTo(unsigned short port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval fiveSeconds{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &fiveSeconds, sizeof fiveSeconds);
  (void)!connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  return fd;
}

std::string request(const std::string& method, const std::string& path, const std::string& body,
                    const std::string& headers) {
  return method + " " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers +
         (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" +
         body;
}

std::string answerOn(int fd) {
  std::string in;
  char buffer[65536];
  for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) in.append(buffer, n);
  close(fd);
  const auto head = in.find("\r\n\r\n");
  return head == std::string::npos ? in : in.substr(9, 4) + in.substr(head + 4);
}

std::string rawExchange(unsigned short port, const std::string& bytes) {
  const int fd = connectTo(port);
  (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return answerOn(fd);
}

std::string many(const std::string& text, int count) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

}  // namespace vigilo::test_support
