// The exporter's command line, and the targets and rules it reads.
#include "exporter_options.h"

#include <gtest/gtest.h>

#include "exporter_routes.h"
#include "targets.h"
#include "testing/argument_vector.h"

namespace exporter {
namespace {

// Every target as it is read: its host and port, or the reason it is refused, before any lookup.
TEST(TargetsTest, ReadsAHostAndPortOrSaysWhyNot) {
  const std::string form = "expected HOST:PORT";
  const std::string name = "a host is an address or a name of letters, digits, '-' and '_'";
  const std::string full = "write an address in full, such as 127.0.0.1 or [::1]";
  const std::string label = "a label of a name is 1 to 63 bytes, not beginning with '-'";
  const std::string l63(63, 'a'), n253 = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'a');
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"127.0.0.1:15903", "127.0.0.1 15903"}, {"[::1]:1", "::1 1"},
      {"engine-3.example.org:65535", "engine-3.example.org 65535"},
      {"Engine_3.Example.ORG.:9", "engine_3.example.org 9"}, {n253 + ":1", n253 + " 1"},
      {"", form}, {"host", form}, {"host:", form}, {"host:0", form}, {"host:65536", form},
      {"host:8x", form}, {"host:-1", form}, {"::1:80", form}, {"[::1]", form}, {"[]:80", form},
      {"[::1:80", form}, {":80", "no host"}, {"[127.0.0.1]:1", "brackets hold an IPv6 address"},
      {"a b:80", name}, {"a/b:80", name}, {"x@127.0.0.2:1", name}, {std::string("a\0b:80", 6), name},
      {"a\x7f:80", name}, {"127.1:1", full}, {"2130706433:1", full}, {"0x7f000001:1", full},
      {"0x7f.1:1", full}, {"0177.0.0.1:1", full}, {std::string(64, 'a') + ".invalid:1", label},
      {"a..b:1", label}, {"a.-b:1", label}, {n253 + "a:1", "a name is at most 253 bytes"},
  };
  // clang-format on
  for (const auto& [text, outcome] : cases) {
    const target_parse t = parseTarget(text);
    EXPECT_EQ(t.parsed ? t.parsed->host + " " + std::to_string(t.parsed->port) : t.why, outcome)
        << text;
  }
}

// A target is allowed when a name rule names it, or when its address lies in a range; a name that
// no rule names is decided by the addresses a lookup finds, which the prober's tests hold.
TEST(TargetsTest, AllowsOnlyWhatTheRulesName) {
  const std::string e63(63, 'e'), name = e63 + ".invalid";
  struct allow_case {
    std::vector<std::string> rules;
    std::string target;
    bool allowed;
  };
  // clang-format off
  const allow_case cases[] = {
      // Without rules, loopback only; rules replace the default.
      {{}, "127.255.0.9:1", true}, {{}, "[::1]:1", true}, {{}, "10.0.0.1:15903", false},
      {{}, "[::2]:1", false}, {{}, "localhost:9", false},
      {{"10.0.0.0/8"}, "10.200.3.4:1", true}, {{"10.0.0.0/8"}, "11.0.0.1:1", false},
      {{"10.0.0.0/8"}, "127.0.0.1:1", false}, {{"192.168.1.0/25"}, "192.168.1.127:1", true},
      {{"192.168.1.0/25"}, "192.168.1.128:1", false}, {{"192.0.2.7"}, "192.0.2.7:1", true},
      {{"192.0.2.7"}, "192.0.2.8:1", false}, {{"0.0.0.0/0"}, "203.0.113.1:1", true},
      {{"2001:db8::/32"}, "[2001:db8:ffff::1]:1", true},
      {{"2001:db8::/32"}, "[2001:db9::1]:1", false},
      {{"2001:db8::/32"}, "32.1.13.184:1", false},  // the same leading bytes, another family
      // A name is allowed as it is written, whatever its case or root dot, on any port or the one
      // named.
      {{name}, std::string(63, 'E') + ".INVALID:9", true}, {{name + "."}, name + ":9", true},
      {{name}, name + ".:9", true}, {{name + ":9"}, name + ":9", true},
      {{name + ":9"}, name + ":10", false}, {{name}, e63 + ".b.invalid:9", false},
  };
  // clang-format on
  for (const allow_case& c : cases) {
    target_rules rules;
    for (const std::string& rule : c.rules) ASSERT_TRUE(rules.add(rule)) << rule;
    const target t = *parseTarget(c.target).parsed;
    const auto address = ovnet::address::parse(t.host);
    EXPECT_EQ(rules.named(t) || (address && rules.allowsAll({*address})), c.allowed) << c.target;
  }
  EXPECT_FALSE(target_rules().allowsAll({}));
  EXPECT_FALSE(target_rules().allowsAll(
      {*ovnet::address::parse("127.0.0.1"), *ovnet::address::parse("10.0.0.1")}));
}

TEST(TargetsTest, RefusesMalformedRules) {
  for (const char* rule : {"", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "::1/129", "host/8",
                           "-rf", "a b", "host:0", "host:80:80"}) {
    EXPECT_FALSE(target_rules().add(rule)) << rule;
  }
}

using std::chrono::milliseconds;

// "help", "version", the refusal, or what the options came to: where it listens, the probe's time
// in ms, and whether a target outside loopback is allowed.
std::string parse(std::vector<std::string> args) {
  args.insert(args.begin(), "vigilo-exporter");
  vigilo::test_support::argument_vector argv(args);
  exporter_options o;
  std::string error;
  switch (parseExporterOptions(argv.argc(), argv.argv(), o, error)) {
    case ovhttp::command_line::refused:
      return error;
    case ovhttp::command_line::help:
      return "help";
    case ovhttp::command_line::version:
      return "version";
    case ovhttp::command_line::run:
      break;
  }
  return o.listenHost + " " + std::to_string(o.listenPort) + " " +
         std::to_string(o.probeTimeout.count()) +
         (o.allowed.allowsAll({*ovnet::address::parse("10.1.1.1")}) ? " allows" : "");
}

// Both forms of a value, every interface as :PORT, and a refusal that says what a good value
// looks like.
TEST(ExporterOptionsTest, TakesBothFormsAndRefusesTheRest) {
  const std::string listen = " (expected HOST:PORT or :PORT, such as 127.0.0.1:9903 or :9903)",
                    rule = " (expected HOST, HOST:PORT or an address range such as 10.0.0.0/8)",
                    duration = "a duration such as 500ms, 10s or 2m, at most 60m";
  // clang-format off
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, "127.0.0.1 9903 10000"},
      {{"--web.listen-address=0.0.0.0:9100"}, "0.0.0.0 9100 10000"},
      {{"--web.listen-address", "[::1]:0"}, "::1 0 10000"},
      {{"--web.listen-address=:9903"}, " 9903 10000"},
      {{"--allow-target=10.0.0.0/8", "--allow-target", "engine-1"}, "127.0.0.1 9903 10000 allows"},
      {{"--probe.timeout=250ms"}, "127.0.0.1 9903 250"},
      {{"--probe.timeout", "2m"}, "127.0.0.1 9903 120000"},
      {{"-h", "--bogus"}, "help"}, {{"--help"}, "help"}, {{"--version"}, "version"},
      {{"--web.listen-address=9100"}, "bad value for --web.listen-address: 9100" + listen},
      {{"--web.listen-address=host:"}, "bad value for --web.listen-address: host:" + listen},
      {{"--allow-target=10.0.0.0/33"}, "bad value for --allow-target: 10.0.0.0/33" + rule},
      {{"--allow-target", "--probe.timeout=1s"},
       "bad value for --allow-target: --probe.timeout=1s" + rule},
      {{"--probe.timeout=10"}, "bad value for --probe.timeout: 10 (expected " + duration + ")"},
      {{"--probe.timeout=0s"}, "bad value for --probe.timeout: 0s (expected " + duration + ")"},
      {{"--probe.timeout=61m"}, "bad value for --probe.timeout: 61m (expected " + duration + ")"},
      {{"--probe.timeout"}, "--probe.timeout needs a value: " + duration},
      {{"--bogus"}, "unknown option --bogus"},
      {{"--web.listen_address=:1"}, "unknown option --web.listen_address"},
      {{"probe"}, "unexpected argument probe"},
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
