// The command line of a program built on this server (ovengine, vigilo-exporter), read the way
// Prometheus's own programs read theirs: --name=value or --name value, -h or --help, --version.
// A refusal says what was wrong and, for a bad value, what a good one looks like.
#ifndef VIGILO_LIB_OVHTTP_PROGRAM_OPTIONS_H_
#define VIGILO_LIB_OVHTTP_PROGRAM_OPTIONS_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ovhttp {

struct program_option {
  std::string name;   // "--port"
  std::string valid;  // what a good value looks like: "a port, 0 to 65535"
  // Takes a value; false when it is a bad one. Called once per occurrence.
  std::function<bool(const std::string& value)> take;
};

enum class command_line { run, help, version, refused };

// Reads argv[1..]; on `refused`, `error` says why ("unknown option --bogus").
command_line readCommandLine(int argc, char** argv, const std::vector<program_option>& options,
                             std::string& error);

// What a program says of itself: its name, its usage text and its version detail.
struct program_text {
  const char* name;
  const char* usage;
  const char* version;
};

// Ends a program's reading of its command line as both programs end it: help or version on
// standard output and status 0, a refusal and the usage on standard error and status 2. The exit
// status, or nullopt when the program is to run.
std::optional<int> endOfCommandLine(command_line outcome, const std::string& error,
                                    const program_text& program);

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_PROGRAM_OPTIONS_H_
