// Everything ovengine holds is bounded: these are the bounds (docs/ovengine.md lists them with
// what a client gets when it reaches one). Connections and request heads are bounded by the
// HTTP server's own limits.
#ifndef VIGILO_ENGINE_ENGINE_LIMITS_H_
#define VIGILO_ENGINE_ENGINE_LIMITS_H_

#include <cstddef>

namespace ovengine::limits {

inline constexpr std::size_t eventsInFlight = 100'000;  // received and not yet sent, all queues
inline constexpr std::size_t eventTypes = 1'000;
inline constexpr std::size_t typeLength = 64;
inline constexpr std::size_t fieldsLength = 256;
inline constexpr std::size_t userValues = 100;
inline constexpr std::size_t userKeyLength = 128;
inline constexpr std::size_t userValueLength = 4096;
inline constexpr std::size_t requestBody = 1024 * 1024;

}  // namespace ovengine::limits

#endif  // VIGILO_ENGINE_ENGINE_LIMITS_H_
