#include "exporter_options.h"

#include <gtest/gtest.h>

#include "exporter_routes.h"
#include "testing/argument_vector.h"

namespace exporter {
namespace {

using std::chrono::milliseconds;

std::string parse(std::vector<std::string> args) {
  args.insert(args.begin(), "vigilo-exporter");
  vigilo::test_support::argument_vector argv(args);
  exporter_options options;
  std::string error;
  if (!parseExporterOptions(argv.argc(), argv.argv(), options, error)) return error;
  std::string outcome;
  if (options.listenHost != "127.0.0.1" || options.listenPort != 9903) {
    outcome += "listen " + options.listenHost + " " + std::to_string(options.listenPort) + ";";
  }
  if (options.probeTimeout != milliseconds(10000)) {
    outcome += "timeout " + std::to_string(options.probeTimeout.count()) + ";";
  }
  if (options.allowed.allowsAll({"10.1.1.1"})) outcome += "allows 10.1.1.1;";
  if (options.help) outcome += "help;";
  if (options.version) outcome += "version;";
  return outcome;
}

TEST(ExporterOptionsTest, TakesBothFormsAndRefusesTheRest) {
  const std::string bad = "bad value for --";
  // clang-format off
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, ""},
      {{"--web.listen-address=0.0.0.0:9100"}, "listen 0.0.0.0 9100;"},
      {{"--web.listen-address", "[::1]:0"}, "listen ::1 0;"},
      {{"--allow-target=10.0.0.0/8", "--allow-target", "engine-1"}, "allows 10.1.1.1;"},
      {{"--probe.timeout=250ms"}, "timeout 250;"}, {{"--probe.timeout", "2m"}, "timeout 120000;"},
      {{"--help", "--bogus"}, "help;"}, {{"--version"}, "version;"},
      {{"--web.listen-address=9100"}, bad + "web.listen-address: 9100"},
      {{"--web.listen-address=host:"}, bad + "web.listen-address: host:"},
      {{"--allow-target=10.0.0.0/40"}, bad + "allow-target: 10.0.0.0/40"},
      {{"--allow-target", "--probe.timeout=1s"}, bad + "allow-target: --probe.timeout=1s"},
      {{"--probe.timeout=10"}, bad + "probe.timeout: 10"},
      {{"--probe.timeout=0s"}, bad + "probe.timeout: 0s"},
      {{"--probe.timeout=2h"}, bad + "probe.timeout: 2h"},
      {{"--probe.timeout=61m"}, bad + "probe.timeout: 61m"},
      {{"--probe.timeout"}, "--probe.timeout needs a value"},
      {{"--web.listen_address=:1"}, "unknown argument --web.listen_address"},
      {{"probe"}, "unknown argument probe"},
  };
  // clang-format on
  for (const auto& [args, outcome] : cases) {
    EXPECT_EQ(parse(args), outcome) << testing::PrintToString(args);
  }
}

TEST(ExporterOptionsTest, ScrapeTimeoutShortensTheProbe) {
  const std::pair<std::string, long> cases[] = {
      {"", 10000},  {"15", 10000}, {"10", 9500},   {"2.5", 2000}, {"0.8", 400},     {"0.001", 1},
      {"0", 10000}, {"-3", 10000}, {"nan", 10000}, {"5s", 10000}, {"1e300", 10000},
  };
  for (const auto& [header, ms] : cases) {
    EXPECT_EQ(probeTimeLimit(milliseconds(10000), header).count(), ms) << header;
  }
}

}  // namespace
}  // namespace exporter
