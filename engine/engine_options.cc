#include "engine_options.h"

#include <cstdlib>

namespace ovengine {

const char* const engineUsage =
    "Usage: ovengine [--port=N] [--bind=ADDR] [--contexts=N] [--load=EVENTS_PER_S]\n"
    "                [--user-status=KEY=VALUE]... [-h | --help] [--version]\n"
    "\n"
    "An event-processing engine to watch with vigilo. It takes events on POST /events (one\n"
    "Type(fields) per line) and serves its status on GET /status. An option's value follows\n"
    "it after '=' or as the next argument.\n"
    "\n"
    "    --port=N                 port to listen on (default 15903; 0 picks a free one)\n"
    "    --bind=ADDR              address to listen on (default 127.0.0.1)\n"
    "    --contexts=N             processing contexts, 1 to 64 (default 4)\n"
    "    --load=EVENTS_PER_S      generate events at this steady rate (default 0)\n"
    "    --user-status=KEY=VALUE  set the user status user-KEY (repeatable)\n"
    "    -h, --help               this message\n"
    "    --version                the version\n";

namespace {

// A number of the whole text, from `low` to `high`, whole unless `fraction`.
bool number(const std::string& text, double low, double high, bool fraction, double& out) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value >= low && value <= high) ||
      (!fraction && value != static_cast<long>(value))) {
    return false;
  }
  out = value;
  return true;
}

}  // namespace

ovhttp::command_line parseEngineOptions(int argc, char** argv, engine_options& options,
                                        std::string& error) {
  double n = 0;
  return ovhttp::readCommandLine(
      argc, argv,
      {{"--port", "a port, 0 to 65535 (0 picks a free one)",
        [&](const std::string& v) {
          return number(v, 0, 65535, false, n) && (options.port = static_cast<int>(n), true);
        }},
       {"--bind", "an address or a host name",
        [&](const std::string& v) { return !v.empty() && (options.bind = v, true); }},
       {"--contexts", "a whole number, 1 to 64",
        [&](const std::string& v) {
          return number(v, 1, 64, false, n) && (options.contexts = static_cast<int>(n), true);
        }},
       {"--load", "events per second, 0 to 10000000",
        [&](const std::string& v) {
          return number(v, 0, 10'000'000, true, n) && (options.load = n, true);
        }},
       {"--user-status", "KEY=VALUE",
        [&](const std::string& v) {
          const auto eq = v.find('=');
          if (eq == std::string::npos || eq == 0) return false;
          options.userStatus.emplace_back(v.substr(0, eq), v.substr(eq + 1));
          return true;
        }}},
      error);
}

}  // namespace ovengine
