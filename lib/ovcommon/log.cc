#include "ovcommon/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

#include "ovcommon/EngineException.h"

namespace com::orvex {

namespace {

std::atomic<int> currentLevel{static_cast<int>(LogLevel::warning)};

const char* const levelNames[] = {"EMERG", "ALERT", "CRIT ", "ERROR",
                                  "WARN ", "NOTE ", "INFO ", "DEBUG"};

}  // namespace

void setLogLevel(LogLevel level) {
  const int value = static_cast<int>(level);
  if (value < 0 || value > 7) {
    throw EngineException("invalid log level " + std::to_string(value));
  }
  currentLevel = value;
}

bool logEnabled(LogLevel level) { return static_cast<int>(level) <= currentLevel; }

void logLine(LogLevel level, const std::string& text) {
  if (!logEnabled(level)) return;
  timeval now;
  gettimeofday(&now, nullptr);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  const std::size_t length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char millis[24];
  std::snprintf(millis, sizeof millis, ".%03ld ", static_cast<long>(now.tv_usec / 1000));
  const std::string line =
      std::string(stamp, length) + millis + levelNames[static_cast<int>(level)] + " " + text + "\n";
  // One write, so that lines of several threads never interleave.
  (void)!write(STDERR_FILENO, line.data(), line.size());
}

std::string printable(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      shown += c;
    } else {
      static const char digits[] = "0123456789abcdef";
      shown += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return shown;
}

}  // namespace com::orvex
