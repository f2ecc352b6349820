#include "front/options.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "front/settings.h"
#include "testing/process.h"

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

struct parse_case {
  std::vector<std::string> args;
  parse_outcome outcome;
  std::string settings;
};

void PrintTo(const parse_case& c, std::ostream* os) {
  for (const auto& a : c.args) *os << " '" << a << "'";
}

class ParseOptionsTest : public ::testing::TestWithParam<parse_case> {};

TEST_P(ParseOptionsTest, LeavesExactlyTheseSettings) {
  resetSettings();
  std::vector<std::string> args = GetParam().args;
  args.insert(args.begin(), "vigilo");
  // The settings point into the arguments, which must live until they are read.
  static std::unique_ptr<test_support::argument_vector> kept;
  kept = std::make_unique<test_support::argument_vector>(std::move(args));
  EXPECT_EQ(parseOptions(kept->argc(), kept->argv()), GetParam().outcome);
  EXPECT_EQ(changedSettings(), GetParam().settings);
}

using o = parse_outcome;

INSTANTIATE_TEST_SUITE_P(
    Values, ParseOptionsTest,
    ::testing::Values(
        parse_case{{}, o::proceed, ""},
        // Joined and separate values, short and long forms; numbers as strtol reads them.
        parse_case{{"-p8080"}, o::proceed, "port=8080"},
        parse_case{{"-p", "8080"}, o::proceed, "port=8080"},
        parse_case{{"--port", "8080"}, o::proceed, "port=8080"},
        parse_case{{"-p80abc"}, o::proceed, "port=80"},
        parse_case{{"-p", " +42"}, o::proceed, "port=42"},
        parse_case{{"-p", "1", "-p", "65535"}, o::proceed, "port=65535"},
        parse_case{{"-nengine.example"}, o::proceed, "host=engine.example"},
        parse_case{{"--hostname", "::1"}, o::proceed, "host=::1"},
        parse_case{{"-f", "-r"}, o::proceed, "file=-r"},
        parse_case{{"--filename", "--raw"}, o::proceed, "file=--raw"},
        parse_case{{"-fout.csv"}, o::proceed, "file=out.csv"},
        parse_case{{"-i", "250"}, o::proceed, "interval=250"},
        parse_case{{"-i0"}, o::proceed, "interval=0"},
        parse_case{{"--interval", "soon"}, o::proceed, "interval=0"},
        parse_case{{"-i", "9223372036854775807"}, o::proceed, "interval=9223372036854775807"},
        // Flags.
        parse_case{{"-r", "-a", "-t", "-o"}, o::proceed, "loops=1 raw title all"},
        parse_case{{"--raw", "--all", "--title", "--once"}, o::proceed, "loops=1 raw title all"},
        parse_case{{"-v"}, o::proceed, "verbose"},
        parse_case{{"-v", "--verbose"}, o::proceed, "verbose debug"},
        parse_case{{"-v", "-v", "-v"}, o::proceed, "verbose debug"},
        // Usage errors stop at once; what came before stays applied.
        parse_case{{"-vv"}, o::usageError, ""}, parse_case{{"-ra"}, o::usageError, ""},
        parse_case{{""}, o::usageError, ""}, parse_case{{"positional"}, o::usageError, ""},
        parse_case{{"--port=8080"}, o::usageError, ""}, parse_case{{"--Raw"}, o::usageError, ""},
        parse_case{{"-r", "-x", "-a"}, o::usageError, "raw"}, parse_case{{"-p"}, o::usageError, ""},
        parse_case{{"--port"}, o::usageError, ""}, parse_case{{"-n"}, o::usageError, ""},
        parse_case{{"--filename"}, o::usageError, ""}, parse_case{{"-i"}, o::usageError, ""},
        parse_case{{"-p", "0", "-r"}, o::usageError, "port=0"},
        parse_case{{"-p", "http"}, o::usageError, "port=0"},
        parse_case{{"-port"}, o::usageError, "port=0"},
        parse_case{{"-i", "-5", "-r"}, o::usageError, ""},
        parse_case{{"-i", "-1"}, o::usageError, ""},
        // Out-of-range ports are kept, and fail only after the last argument.
        parse_case{{"-p", "70000", "-r"}, o::usageError, "port=70000 raw"},
        parse_case{{"-p", "65536"}, o::usageError, "port=65536"},
        parse_case{{"-p", "-1"}, o::usageError, "port=-1"},
        parse_case{{"-p", "70000", "-p", "80"}, o::proceed, "port=80"},
        // Beyond 32 bits the port saturates rather than wrap into range (4294967297 would be 1).
        parse_case{{"-p", "4294967297"}, o::usageError, "port=2147483647"},
        parse_case{{"-p", "-4294967295"}, o::usageError, "port=-2147483648"},
        // -h and -V act when met and leave later arguments unexamined.
        parse_case{{"-r", "-h", "-x"}, o::help, "raw"}, parse_case{{"-h", "-r"}, o::help, ""},
        parse_case{{"--help"}, o::help, ""},
        parse_case{{"-p", "70000", "-V", "-x"}, o::version, "port=70000"},
        parse_case{{"--version"}, o::version, ""}));

}  // namespace
}  // namespace vigilo
