#include "name_lookup.h"

#include <ares.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

namespace exporter {

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int abandonCheckMs = 50;

struct answer {
  bool done = false;
  int status = ARES_SUCCESS;
  std::vector<std::string> addresses;
  std::map<ares_socket_t, short> sockets;  // what the channel waits for on each of its sockets
};

void socketState(void* data, ares_socket_t fd, int readable, int writable) {
  auto& sockets = static_cast<answer*>(data)->sockets;
  const short events = static_cast<short>((readable ? POLLIN : 0) | (writable ? POLLOUT : 0));
  if (events == 0) {
    sockets.erase(fd);
  } else {
    sockets[fd] = events;
  }
}

void answered(void* arg, int status, int /*timeouts*/, ares_addrinfo* result) {
  auto* into = static_cast<answer*>(arg);
  into->done = true;
  into->status = status;
  if (result == nullptr) return;
  for (const ares_addrinfo_node* node = result->nodes; node != nullptr; node = node->ai_next) {
    const void* bytes =
        node->ai_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(node->ai_addr)->sin_addr)
            : &reinterpret_cast<sockaddr_in6*>(node->ai_addr)->sin6_addr;
    char text[INET6_ADDRSTRLEN] = "";
    if (inet_ntop(node->ai_family, bytes, text, sizeof text) != nullptr) {
      into->addresses.push_back(text);
    }
  }
  ares_freeaddrinfo(result);
}

bool numeric(const std::string& host) {
  in6_addr bytes;
  return inet_pton(AF_INET, host.c_str(), &bytes) == 1 ||
         inet_pton(AF_INET6, host.c_str(), &bytes) == 1;
}

}  // namespace

name_lookup::name_lookup(std::string servers) : servers(std::move(servers)) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { ares_library_init(ARES_LIB_INIT_ALL); });
}

lookup_result name_lookup::resolve(const std::string& host, clock_type::time_point deadline,
                                   const std::atomic<bool>& abandon) const {
  if (numeric(host)) return {{host}, ""};
  answer result;  // outlives the channel, whose end may still call back
  ares_channel raw = nullptr;
  ares_options options{};
  options.sock_state_cb = socketState;
  options.sock_state_cb_data = &result;
  if (const int status = ares_init_options(&raw, &options, ARES_OPT_SOCK_STATE_CB);
      status != ARES_SUCCESS) {
    return {{}, std::string("resolver: ") + ares_strerror(status)};
  }
  const std::unique_ptr<ares_channeldata, void (*)(ares_channel)> channel(raw, ares_destroy);
  if (!servers.empty() && ares_set_servers_ports_csv(raw, servers.c_str()) != ARES_SUCCESS) {
    return {{}, "resolver: bad name servers " + servers};
  }
  ares_addrinfo_hints hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  ares_getaddrinfo(raw, host.c_str(), nullptr, &hints, answered, &result);
  while (!result.done) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
    if (left.count() <= 0) return {{}, "no answer in time"};
    if (abandon.load(std::memory_order_relaxed)) return {{}, "abandoned"};
    std::vector<pollfd> fds;
    for (const auto& [fd, events] : result.sockets) fds.push_back({fd, events, 0});
    timeval longest{0, abandonCheckMs * 1000};
    timeval next{};
    const timeval* until = ares_timeout(raw, &longest, &next);
    const long ms = std::min<long>(left.count(), until->tv_sec * 1000 + until->tv_usec / 1000);
    if (poll(fds.data(), fds.size(), static_cast<int>(ms)) <= 0) {
      ares_process_fd(raw, ARES_SOCKET_BAD, ARES_SOCKET_BAD);  // its own time-outs
      continue;
    }
    for (const pollfd& fd : fds) {
      if (fd.revents == 0) continue;
      ares_process_fd(raw, fd.revents & (POLLIN | POLLERR | POLLHUP) ? fd.fd : ARES_SOCKET_BAD,
                      fd.revents & POLLOUT ? fd.fd : ARES_SOCKET_BAD);
    }
  }
  if (result.status != ARES_SUCCESS) return {{}, ares_strerror(result.status)};
  if (result.addresses.empty()) return {{}, "no address"};
  return {std::move(result.addresses), ""};
}

}  // namespace exporter
