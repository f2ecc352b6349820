#include "front/options.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "front/settings.h"
#include "testing/argument_vector.h"

namespace vigilo {
namespace {

// Every setting that differs from its initial value, so that a row states the whole outcome.
std::string changedSettings() {
  std::ostringstream s;
  if (numLoops != defaultNumLoops) s << " loops=" << numLoops;
  if (interval != defaultInterval) s << " interval=" << interval;
  if (port != defaultPort) s << " port=" << port;
  if (std::string(host) != defaultHost) s << " host=" << host;
  if (filename != nullptr) s << " file=" << filename;
  const std::pair<bool, const char*> flags[] = {{raw, "raw"},
                                                {raw_header, "title"},
                                                {userStat, "all"},
                                                {verbose, "verbose"},
                                                {debug, "debug"}};
  for (const auto& [flag, name] : flags) {
    if (flag) s << " " << name;
  }
  return s.str().empty() ? "" : s.str().substr(1);
}

// The outcome of parsing `args` ("usage error:", "help:" or "version:", unless parsing may
// proceed) and every setting that differs from its initial value.
std::string parse(std::vector<std::string> args) {
  resetSettings();
  args.insert(args.begin(), "vigilo");
  // The settings point into the arguments, which must live until they are read.
  static std::unique_ptr<test_support::argument_vector> kept;
  kept = std::make_unique<test_support::argument_vector>(std::move(args));
  const parse_outcome outcome = parseOptions(kept->argc(), kept->argv());
  const std::string settings = changedSettings();
  switch (outcome) {
    case parse_outcome::proceed:
      return settings;
    case parse_outcome::usageError:
      return "usage error: " + settings;
    case parse_outcome::help:
      return "help: " + settings;
    case parse_outcome::version:
      return "version: " + settings;
  }
  return "?";
}

TEST(ParseOptionsTest, LeavesExactlyTheseSettings) {
  // clang-format off
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, ""},
      // Joined and separate values, short and long forms; numbers as strtol reads them, the last
      // one given kept.
      {{"-p8080"}, "port=8080"}, {{"-p", "8080"}, "port=8080"}, {{"--port", "8080"}, "port=8080"},
      {{"-p80abc"}, "port=80"}, {{"-p", " +42", "-p", "65535"}, "port=65535"},
      {{"-nengine.example"}, "host=engine.example"}, {{"--hostname", "::1"}, "host=::1"},
      {{"-f", "-r"}, "file=-r"}, {{"--filename", "--raw"}, "file=--raw"},
      {{"-i", "250"}, "interval=250"}, {{"--interval", "soon"}, "interval=0"},
      {{"-i", "9223372036854775807"}, "interval=9223372036854775807"},
      // Flags.
      {{"-r", "-a", "-t", "-o"}, "loops=1 raw title all"},
      {{"--raw", "--all", "--title", "--once"}, "loops=1 raw title all"},
      {{"-v"}, "verbose"}, {{"-v", "--verbose", "-v"}, "verbose debug"},
      // Usage errors stop at once; what came before stays applied.
      {{"-vv"}, "usage error: "}, {{"-ra"}, "usage error: "}, {{""}, "usage error: "},
      {{"positional"}, "usage error: "}, {{"--port=8080"}, "usage error: "},
      {{"-r", "-x", "-a"}, "usage error: raw"}, {{"-p"}, "usage error: "},
      {{"-p", "0", "-r"}, "usage error: port=0"}, {{"-p", "http"}, "usage error: port=0"},
      {{"-i", "-1"}, "usage error: "},
      // Out-of-range ports are kept, and fail only after the last argument.
      {{"-p", "65536", "-r"}, "usage error: port=65536 raw"}, {{"-p", "70000", "-p", "80"}, "port=80"},
      // Beyond 32 bits the port saturates rather than wrap into range (4294967297 would be 1).
      {{"-p", "4294967297"}, "usage error: port=2147483647"},
      {{"-p", "-4294967295"}, "usage error: port=-2147483648"},
      // -h and -V act when met and leave later arguments unexamined.
      {{"-r", "-h", "-x"}, "help: raw"}, {{"-h", "-r"}, "help: "}, {{"--help"}, "help: "},
      {{"-p", "70000", "-V", "-x"}, "version: port=70000"}, {{"--version"}, "version: "},
  };
  // clang-format on
  for (const auto& [args, outcome] : cases) {
    EXPECT_EQ(parse(args), outcome) << ::testing::PrintToString(args);
  }
}

}  // namespace
}  // namespace vigilo
