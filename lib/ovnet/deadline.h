// Deadlines, and the wait for a socket that keeps them: every wait of a connection, a lookup or a
// probe ends by its deadline, or within 50 ms of its caller's abandon flag turning true.
#ifndef VIGILO_LIB_OVNET_DEADLINE_H_
#define VIGILO_LIB_OVNET_DEADLINE_H_

#include <poll.h>

#include <atomic>
#include <chrono>
#include <span>
#include <string>

namespace ovnet {

using clock_type = std::chrono::steady_clock;
using deadline = clock_type::time_point;

// How often a wait looks at its caller's abandon flag and its deadline.
inline constexpr std::chrono::milliseconds checkInterval{50};

// Milliseconds left before `until`, at least 0.
int msLeft(deadline until);

// "timed out after MS ms": how a limit of `ms` that ran out reads.
std::string timedOutAfter(int ms);

// Whether the caller's flag says to give up; a null flag never does.
inline bool abandoned(const std::atomic<bool>* abandon) {
  return abandon != nullptr && abandon->load(std::memory_order_relaxed);
}

enum class wait_end { ready, timedOut, abandoned };

// Waits until one of `fds` is ready for its events (their revents say which), until `until`, or
// until `abandon` turns true. A poll that a signal interrupts is taken up again; a poll that
// fails counts as ready, so that the caller's next call reports the error.
wait_end waitReady(std::span<pollfd> fds, deadline until, const std::atomic<bool>* abandon);

}  // namespace ovnet

#endif  // VIGILO_LIB_OVNET_DEADLINE_H_
