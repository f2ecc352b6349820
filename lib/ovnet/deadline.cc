#include "deadline.h"

#include <algorithm>
#include <cerrno>

namespace ovnet {

int msLeft(deadline until) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(until - clock_type::now()).count();
  return left < 0 ? 0 : static_cast<int>(std::min<long long>(left, 1 << 30));
}

std::string timedOutAfter(int ms) { return "timed out after " + std::to_string(ms) + " ms"; }

wait_end waitReady(std::span<pollfd> fds, deadline until, const std::atomic<bool>* abandon) {
  for (;;) {
    if (abandoned(abandon)) return wait_end::abandoned;
    const int left = msLeft(until);
    if (left == 0) return wait_end::timedOut;
    const int ready =
        poll(fds.data(), fds.size(), abandon ? std::min<int>(left, checkInterval.count()) : left);
    if (ready > 0 || (ready < 0 && errno != EINTR)) return wait_end::ready;
  }
}

}  // namespace ovnet
