// The process-wide settings that the command line produces. The option parser writes them before
// any thread exists; everything else only reads them afterwards, so they need no lock.
#ifndef VIGILO_SRC_FRONT_SETTINGS_H_
#define VIGILO_SRC_FRONT_SETTINGS_H_

#include <cstdint>

namespace vigilo {

inline constexpr std::int32_t defaultNumLoops = -1;  // no limit
inline constexpr std::uint64_t defaultInterval = 1000;
inline constexpr std::int32_t defaultPort = 15903;
inline constexpr const char* defaultHost = "localhost";

extern std::int32_t numLoops;   // polls before the watcher stops; 0 or less: no limit
extern std::uint64_t interval;  // milliseconds between polls
extern std::int32_t port;       // valid from 1 to 65535
extern const char* host;        // points into the converted arguments, or at defaultHost
extern const char* filename;    // output file; null for standard output
extern bool raw;
extern bool raw_header;
extern bool userStat;
extern bool verbose;
extern bool debug;

// True when `port` lies in 1 to 65535.
bool portInRange();

// Puts every setting back to its initial value. For tests and the fuzzer, which parse many
// command lines in one process.
void resetSettings();

}  // namespace vigilo

#endif  // VIGILO_SRC_FRONT_SETTINGS_H_
