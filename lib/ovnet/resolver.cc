#include "resolver.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

namespace ovnet {

namespace {

// One request to glibc, in memory that stays put while glibc may write to it.
struct request {
  std::string host, service;
  addrinfo hints{};
  gaicb control{};
  ~request() {
    if (control.ar_result != nullptr) freeaddrinfo(control.ar_result);
  }
};

// Requests given up while glibc was working on them, freed once it is done.
std::mutex leftMutex;
std::vector<std::unique_ptr<request>> left;

void freeFinished() {
  std::lock_guard<std::mutex> lock(leftMutex);
  std::erase_if(left, [](const auto& r) { return gai_error(&r->control) != EAI_INPROGRESS; });
}

}  // namespace

lookup_result system_resolver::resolve(const std::string& host, unsigned short port, deadline until,
                                       const std::atomic<bool>* abandon) const {
  if (const auto numeric = address::parse(host, port)) return {{*numeric}, ""};
  freeFinished();
  auto r = std::make_unique<request>();
  r->host = host;
  r->service = std::to_string(port);
  r->hints.ai_family = AF_UNSPEC;
  r->hints.ai_socktype = SOCK_STREAM;
  r->control.ar_name = r->host.c_str();
  r->control.ar_service = r->service.c_str();
  r->control.ar_request = &r->hints;
  gaicb* list[] = {&r->control};
  if (const int rc = getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr); rc != 0) {
    return {{}, gai_strerror(rc)};
  }
  int rc = EAI_INPROGRESS;
  for (wait_end end = wait_end::ready; (rc = gai_error(&r->control)) == EAI_INPROGRESS;) {
    if (abandoned(abandon)) end = wait_end::abandoned;
    if (msLeft(until) == 0) end = wait_end::timedOut;
    if (end != wait_end::ready) {
      if (gai_cancel(&r->control) != EAI_CANCELED) {
        std::lock_guard<std::mutex> lock(leftMutex);
        left.push_back(std::move(r));
      }
      return {{}, "", end};
    }
    // Woken by the answer, or at the end of a slice to look at the flag and the deadline.
    const int ms =
        std::min<int>(msLeft(until), abandon != nullptr ? checkInterval.count() : 1 << 30);
    const timespec slice{ms / 1000, (ms % 1000) * 1'000'000L};
    gai_suspend(list, 1, &slice);
  }
  if (rc != 0) return {{}, rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc)};
  lookup_result found;
  for (const addrinfo* a = r->control.ar_result; a != nullptr; a = a->ai_next) {
    found.addresses.push_back(address::of(a->ai_addr, a->ai_addrlen));
  }
  return found;
}

}  // namespace ovnet
