#include "testing/engine_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace vigilo::test_support {

engine_process::engine_process(const std::string& binary, const std::vector<std::string>& extra) {
  std::vector<std::string> argv = {binary, "--port", "0"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  child = std::make_unique<child_process>(argv);
  const std::string banner = "ovengine listening on 127.0.0.1:";
  const bool started = child->waitFor(
      [&](const std::string& out, const std::string&) {
        const auto at = out.find(banner);
        return at != std::string::npos && out.find('\n', at) != std::string::npos;
      },
      std::chrono::seconds(10));
  if (!started) throw std::runtime_error("ovengine did not start: " + child->err());
  const std::string& out = child->out();
  listenPort = static_cast<unsigned short>(std::stoi(out.substr(out.find(banner) + banner.size())));
}

unsigned short closedLoopbackPort() {
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(probe, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);
  return ntohs(address.sin_port);
}

}  // namespace vigilo::test_support
