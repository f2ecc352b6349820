// The log of the common support library (libovcommon): one line per entry on stderr, with a
// timestamp and the level. Levels follow syslog; the default is warning, so a normal run logs
// nothing. Thread-safe: each line is one write.
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_LOG_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_LOG_H_

#include <string>
#include <string_view>

namespace com::orvex {

enum class LogLevel : int {
  emergency = 0,
  alert = 1,
  critical = 2,
  error = 3,
  warning = 4,
  notice = 5,
  info = 6,
  debug = 7,
};

// Throws EngineException for a level outside 0 to 7.
void setLogLevel(LogLevel level);
bool logEnabled(LogLevel level);
// Writes "2026-11-22 10:00:00.123 INFO  text" when the level is enabled.
void logLine(LogLevel level, const std::string& text);

// `text` fit for a log line or a terminal: control bytes are shown escaped ("\x1b"), not sent.
// Texts that other programs sent (an engine's status line, a client's request) go through it.
std::string printable(std::string_view text);

}  // namespace com::orvex

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_LOG_H_
