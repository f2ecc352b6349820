#include "front/settings.h"

namespace vigilo {

std::int32_t numLoops = defaultNumLoops;
std::uint64_t interval = defaultInterval;
std::int32_t port = defaultPort;
const char* host = defaultHost;
const char* filename = nullptr;
bool raw = false;
bool raw_header = false;
bool userStat = false;
bool verbose = false;
bool debug = false;

bool portInRange() { return port >= 1 && port <= 65535; }

void resetSettings() {
  numLoops = defaultNumLoops;
  interval = defaultInterval;
  port = defaultPort;
  host = defaultHost;
  filename = nullptr;
  raw = raw_header = userStat = verbose = debug = false;
}

}  // namespace vigilo
