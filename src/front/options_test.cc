#include "front/options.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "front/settings.h"
#include "testing/process.h"

namespace vigilo {
namespace {

// The settings a parse leaves, compared as a whole.
struct settings_snapshot {
  std::int32_t numLoops = defaultNumLoops;
  std::uint64_t interval = defaultInterval;
  std::int32_t port = defaultPort;
  std::string host = defaultHost;
  std::string filename = "<stdout>";
  bool raw = false, raw_header = false, userStat = false, verbose = false, debug = false;

  bool operator==(const settings_snapshot&) const = default;
};

void PrintTo(const settings_snapshot& s, std::ostream* os) {
  *os << "{loops " << s.numLoops << ", interval " << s.interval << ", port " << s.port << ", host "
      << s.host << ", file " << s.filename << ", raw " << s.raw << ", title " << s.raw_header
      << ", all " << s.userStat << ", verbose " << s.verbose << ", debug " << s.debug << "}";
}

settings_snapshot current() {
  return {numLoops, interval,   port,     host,    filename ? filename : "<stdout>",
          raw,      raw_header, userStat, verbose, debug};
}

parse_outcome parse(std::vector<std::string> args) {
  resetSettings();
  // The parser keeps pointers into the arguments: they must live until the settings are read.
  static std::unique_ptr<test_support::argument_vector> kept;
  args.insert(args.begin(), "vigilo");
  kept = std::make_unique<test_support::argument_vector>(std::move(args));
  return parseOptions(kept->argc(), kept->argv());
}

struct parse_case {
  std::vector<std::string> args;
  parse_outcome outcome;
  settings_snapshot settings;
};

settings_snapshot with(void (*change)(settings_snapshot&)) {
  settings_snapshot s;
  change(s);
  return s;
}

void PrintTo(const parse_case& c, std::ostream* os) {
  *os << "vigilo";
  for (const auto& a : c.args) *os << " '" << a << "'";
}

class ParseOptionsTest : public ::testing::TestWithParam<parse_case> {};

TEST_P(ParseOptionsTest, LeavesExactlyTheseSettings) {
  const parse_case& c = GetParam();
  EXPECT_EQ(parse(c.args), c.outcome);
  EXPECT_EQ(current(), c.settings);
}

using o = parse_outcome;

INSTANTIATE_TEST_SUITE_P(
    Values, ParseOptionsTest,
    ::testing::Values(
        parse_case{{}, o::proceed, {}},
        // Joined and separate values, short and long forms.
        parse_case{{"-p8080"}, o::proceed, with([](auto& s) { s.port = 8080; })},
        parse_case{{"-p", "8080"}, o::proceed, with([](auto& s) { s.port = 8080; })},
        parse_case{{"--port", "8080"}, o::proceed, with([](auto& s) { s.port = 8080; })},
        parse_case{{"-p80abc"}, o::proceed, with([](auto& s) { s.port = 80; })},
        parse_case{{"-p", " +42"}, o::proceed, with([](auto& s) { s.port = 42; })},
        parse_case{{"-p", "1", "-p", "65535"}, o::proceed, with([](auto& s) { s.port = 65535; })},
        parse_case{
            {"-nengine.example"}, o::proceed, with([](auto& s) { s.host = "engine.example"; })},
        parse_case{{"--hostname", "::1"}, o::proceed, with([](auto& s) { s.host = "::1"; })},
        parse_case{{"-f", "-r"}, o::proceed, with([](auto& s) { s.filename = "-r"; })},
        parse_case{
            {"--filename", "--raw"}, o::proceed, with([](auto& s) { s.filename = "--raw"; })},
        parse_case{{"-fout.csv"}, o::proceed, with([](auto& s) { s.filename = "out.csv"; })},
        parse_case{{"-i", "250"}, o::proceed, with([](auto& s) { s.interval = 250; })},
        parse_case{{"-i0"}, o::proceed, with([](auto& s) { s.interval = 0; })},
        parse_case{{"--interval", "soon"}, o::proceed, with([](auto& s) { s.interval = 0; })},
        parse_case{{"-i", "9223372036854775807"}, o::proceed, with([](auto& s) {
                     s.interval = 9223372036854775807ULL;
                   })},
        // Flags.
        parse_case{{"-r", "-a", "-t", "-o"}, o::proceed, with([](auto& s) {
                     s.raw = s.userStat = s.raw_header = true;
                     s.numLoops = 1;
                   })},
        parse_case{{"--raw", "--all", "--title", "--once"}, o::proceed, with([](auto& s) {
                     s.raw = s.userStat = s.raw_header = true;
                     s.numLoops = 1;
                   })},
        parse_case{{"-t"}, o::proceed, with([](auto& s) { s.raw_header = true; })},
        parse_case{{"-v"}, o::proceed, with([](auto& s) { s.verbose = true; })},
        parse_case{
            {"-v", "--verbose"}, o::proceed, with([](auto& s) { s.verbose = s.debug = true; })},
        parse_case{
            {"-v", "-v", "-v"}, o::proceed, with([](auto& s) { s.verbose = s.debug = true; })},
        // Usage errors stop at once; what came before stays applied.
        parse_case{{"-vv"}, o::usageError, {}}, parse_case{{"-ra"}, o::usageError, {}},
        parse_case{{""}, o::usageError, {}}, parse_case{{"positional"}, o::usageError, {}},
        parse_case{{"--port=8080"}, o::usageError, {}}, parse_case{{"--Raw"}, o::usageError, {}},
        parse_case{{"-r", "-x", "-a"}, o::usageError, with([](auto& s) { s.raw = true; })},
        parse_case{{"-p"}, o::usageError, {}}, parse_case{{"--port"}, o::usageError, {}},
        parse_case{{"-n"}, o::usageError, {}}, parse_case{{"--filename"}, o::usageError, {}},
        parse_case{{"-i"}, o::usageError, {}},
        parse_case{{"-p", "0", "-r"}, o::usageError, with([](auto& s) { s.port = 0; })},
        parse_case{{"-p", "http"}, o::usageError, with([](auto& s) { s.port = 0; })},
        parse_case{{"-port"}, o::usageError, with([](auto& s) { s.port = 0; })},
        parse_case{{"-i", "-5", "-r"}, o::usageError, {}},
        // Out-of-range ports are kept and fail only after the last argument.
        parse_case{{"-p", "70000", "-r"}, o::usageError, with([](auto& s) {
                     s.port = 70000;
                     s.raw = true;
                   })},
        parse_case{{"-p", "65536"}, o::usageError, with([](auto& s) { s.port = 65536; })},
        parse_case{{"-p", "-1"}, o::usageError, with([](auto& s) { s.port = -1; })},
        parse_case{{"-p", "70000", "-p", "80"}, o::proceed, with([](auto& s) { s.port = 80; })},
        // Beyond 32 bits the port saturates instead of wrapping into range (4294967297 would
        // otherwise become 1).
        parse_case{{"-p", "4294967297"}, o::usageError, with([](auto& s) { s.port = 2147483647; })},
        parse_case{
            {"-p", "-4294967295"}, o::usageError, with([](auto& s) { s.port = -2147483647 - 1; })},
        parse_case{{"-p", "99999999999999999999999"}, o::usageError, with([](auto& s) {
                     s.port = 2147483647;
                   })},
        // -h and -V act when met and leave later arguments unexamined.
        parse_case{{"-r", "-h", "-x"}, o::help, with([](auto& s) { s.raw = true; })},
        parse_case{{"-h", "-r"}, o::help, {}}, parse_case{{"--help"}, o::help, {}},
        parse_case{{"-p", "70000", "-V", "-x"}, o::version, with([](auto& s) { s.port = 70000; })},
        parse_case{{"--version"}, o::version, {}}));

}  // namespace
}  // namespace vigilo
