#include "name_lookup.h"

#include <ares.h>
#include <poll.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

namespace exporter {

namespace {

struct answer {
  bool done = false;
  int status = ARES_SUCCESS;
  std::vector<ovnet::address> addresses;
  std::map<ares_socket_t, short> sockets;  // what the channel waits for on each of its sockets
};

void answered(void* arg, int status, int /*timeouts*/, ares_addrinfo* result) {
  auto* into = static_cast<answer*>(arg);
  into->done = true;
  into->status = status;
  if (result == nullptr) return;
  for (const ares_addrinfo_node* node = result->nodes; node != nullptr; node = node->ai_next) {
    into->addresses.push_back(ovnet::address::of(node->ai_addr, node->ai_addrlen));
  }
  ares_freeaddrinfo(result);
}

void socketState(void* data, ares_socket_t fd, int readable, int writable) {
  auto& sockets = static_cast<answer*>(data)->sockets;
  const short events = static_cast<short>((readable ? POLLIN : 0) | (writable ? POLLOUT : 0));
  if (events == 0) {
    sockets.erase(fd);
  } else {
    sockets[fd] = events;
  }
}

}  // namespace

name_lookup::name_lookup(std::string servers) : servers(std::move(servers)) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { ares_library_init(ARES_LIB_INIT_ALL); });
}

ovnet::lookup_result name_lookup::resolve(const std::string& host, unsigned short port,
                                          ovnet::deadline until,
                                          const std::atomic<bool>* abandon) const {
  if (const auto numeric = ovnet::address::parse(host, port)) return {{*numeric}, ""};
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
  const std::string service = std::to_string(port);
  ares_getaddrinfo(raw, host.c_str(), service.c_str(), &hints, answered, &result);
  while (!result.done) {
    // Until the deadline, or sooner when c-ares has a time-out of its own to keep.
    const int left = ovnet::msLeft(until);
    timeval longest{left / 1000, left % 1000 * 1000};
    timeval next{};
    const timeval* own = ares_timeout(raw, &longest, &next);
    const ovnet::deadline wake =
        std::min(until, ovnet::clock_type::now() + std::chrono::seconds(own->tv_sec) +
                            std::chrono::microseconds(own->tv_usec));
    std::vector<pollfd> fds;
    for (const auto& [fd, events] : result.sockets) fds.push_back({fd, events, 0});
    const ovnet::wait_end end = ovnet::waitReady(fds, wake, abandon);
    if (end == ovnet::wait_end::abandoned) return ovnet::givenUp(end);
    if (end == ovnet::wait_end::timedOut) {
      if (ovnet::msLeft(until) == 0) return ovnet::givenUp(end);
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
