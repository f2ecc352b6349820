#include "front/options.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "front/settings.h"

namespace vigilo {

namespace {

enum class option_id {
  verbose,
  version,
  help,
  raw,
  all,
  title,
  once,
  port,
  hostname,
  filename,
  interval
};

struct option_form {
  const char* shortForm;
  const char* longForm;
  bool takesValue;
  option_id id;
};

// In the order in which an argument is tested against them; the first match wins.
constexpr option_form optionTable[] = {
    {"-v", "--verbose", false, option_id::verbose},
    {"-V", "--version", false, option_id::version},
    {"-h", "--help", false, option_id::help},
    {"-r", "--raw", false, option_id::raw},
    {"-a", "--all", false, option_id::all},
    {"-t", "--title", false, option_id::title},
    {"-o", "--once", false, option_id::once},
    {"-p", "--port", true, option_id::port},
    {"-n", "--hostname", true, option_id::hostname},
    {"-f", "--filename", true, option_id::filename},
    {"-i", "--interval", true, option_id::interval},
};

// strtol's result held in the 32-bit port: numbers beyond its range saturate, so that they fail
// the range check instead of wrapping into it.
std::int32_t saturate(long value) {
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<std::int32_t>(value);
}

}  // namespace

parse_outcome parseOptions(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    const option_form* match = nullptr;
    const char* value = nullptr;
    for (const option_form& option : optionTable) {
      const bool longMatch = std::strcmp(arg, option.longForm) == 0;
      // The short forms of value options match on their first two characters; the rest of the
      // argument, if any, is the value.
      const bool shortMatch = option.takesValue ? std::strncmp(arg, option.shortForm, 2) == 0
                                                : std::strcmp(arg, option.shortForm) == 0;
      if (!shortMatch && !longMatch) continue;
      match = &option;
      if (option.takesValue) {
        if (shortMatch && arg[2] != '\0') {
          value = arg + 2;
        } else if (i + 1 < argc) {
          value = argv[++i];  // taken whatever it looks like, even "-r"
        } else {
          return parse_outcome::usageError;
        }
      }
      break;
    }
    if (match == nullptr) return parse_outcome::usageError;

    switch (match->id) {
      case option_id::verbose:
        if (verbose) {
          debug = true;
        } else {
          verbose = true;
        }
        break;
      case option_id::version:
        return parse_outcome::version;
      case option_id::help:
        return parse_outcome::help;
      case option_id::raw:
        raw = true;
        break;
      case option_id::all:
        userStat = true;
        break;
      case option_id::title:
        raw_header = true;
        break;
      case option_id::once:
        numLoops = 1;
        break;
      case option_id::port: {
        port = saturate(std::strtol(value, nullptr, 10));
        // Stored before the test, so that the usage text reports the port as out of range.
        if (port == 0) return parse_outcome::usageError;
        break;
      }
      case option_id::hostname:
        host = value;
        break;
      case option_id::filename:
        filename = value;
        break;
      case option_id::interval: {
        const long number = std::strtol(value, nullptr, 10);
        if (number < 0) return parse_outcome::usageError;
        interval = static_cast<std::uint64_t>(number);
        break;
      }
    }
  }
  return portInRange() ? parse_outcome::proceed : parse_outcome::usageError;
}

}  // namespace vigilo
