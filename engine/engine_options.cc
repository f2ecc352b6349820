#include "engine_options.h"

#include <cstdlib>
#include <cstring>

namespace ovengine {

const char* const engineUsage =
    "Usage: ovengine [--port N] [--bind ADDR] [--contexts N] [--load EVENTS_PER_S]\n"
    "                [--user-status KEY=VALUE]... [--help]\n"
    "\n"
    "An event-processing engine to watch with vigilo. It takes events on POST /events (one\n"
    "Type(fields) per line) and serves its status on GET /status.\n"
    "\n"
    "    --port N                 port to listen on (default 15903; 0 picks a free one)\n"
    "    --bind ADDR              address to listen on (default 127.0.0.1)\n"
    "    --contexts N             processing contexts, 1 to 64 (default 4)\n"
    "    --load EVENTS_PER_S      generate events at this steady rate (default 0)\n"
    "    --user-status KEY=VALUE  set the user status user-KEY (repeatable)\n"
    "    --help                   this message\n";

namespace {

bool number(const char* text, double low, double high, double& out) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(value >= low && value <= high)) return false;
  out = value;
  return true;
}

}  // namespace

bool parseEngineOptions(int argc, char** argv, engine_options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help") {
      options.help = true;
      return true;
    }
    if (i + 1 >= argc) {
      error = arg.rfind("--", 0) == 0 ? arg + " needs a value" : "unknown argument " + arg;
      return false;
    }
    const char* value = argv[++i];
    double n = 0;
    if (arg == "--port" && number(value, 0, 65535, n) && n == static_cast<int>(n)) {
      options.port = static_cast<int>(n);
    } else if (arg == "--bind" && *value != '\0') {
      options.bind = value;
    } else if (arg == "--contexts" && number(value, 1, 64, n) && n == static_cast<int>(n)) {
      options.contexts = static_cast<int>(n);
    } else if (arg == "--load" && number(value, 0, 10'000'000, n)) {
      options.load = n;
    } else if (arg == "--user-status" && std::strchr(value, '=') != nullptr && *value != '=') {
      const char* eq = std::strchr(value, '=');
      options.userStatus.emplace_back(std::string(value, eq), std::string(eq + 1));
    } else {
      error = arg == "--port" || arg == "--bind" || arg == "--contexts" || arg == "--load" ||
                      arg == "--user-status"
                  ? "bad value for " + arg + ": " + value
                  : "unknown argument " + arg;
      return false;
    }
  }
  return true;
}

}  // namespace ovengine
