#include "targets.h"

#include <gtest/gtest.h>

namespace exporter {
namespace {

TEST(TargetsTest, ParsesHostAndPortOnly) {
  const std::pair<std::string, std::string> good[] = {
      {"127.0.0.1:15903", "127.0.0.1 15903"},
      {"[::1]:1", "::1 1"},
      {"engine-3.example.org:65535", "engine-3.example.org 65535"}};
  for (const auto& [text, parsed] : good) {
    const auto t = parseTarget(text);
    EXPECT_EQ(t ? t->host + " " + std::to_string(t->port) : "refused", parsed);
  }
  // clang-format off
  const std::string bad[] = {"", "host", ":80", "host:", "host:0", "host:65536", "host:8x",
                             "host:-1", "::1:80", "[::1]", "[]:80", "[::1:80", "a b:80", "a/b:80",
                             std::string(254, 'a') + ":80"};
  // clang-format on
  for (const std::string& text : bad) EXPECT_FALSE(parseTarget(text)) << text;
}

struct allow_case {
  std::vector<std::string> rules;
  std::string target;
  std::vector<std::string> connectTo;  // empty: refused
};

TEST(TargetsTest, AllowsOnlyWhatTheRulesName) {
  const std::string label(64, 'e');
  const std::string shout(64, 'E');
  const allow_case cases[] = {
      // Without rules, loopback only.
      {{}, "127.0.0.1:15903", {"127.0.0.1"}},
      {{}, "127.255.0.9:1", {"127.255.0.9"}},
      {{}, "[::1]:1", {"::1"}},
      {{}, "10.0.0.1:15903", {}},
      {{}, "[::2]:1", {}},
      // Rules replace the default.
      {{"10.0.0.0/8"}, "10.200.3.4:1", {"10.200.3.4"}},
      {{"10.0.0.0/8"}, "11.0.0.1:1", {}},
      {{"10.0.0.0/8"}, "127.0.0.1:1", {}},
      {{"192.168.1.0/25"}, "192.168.1.127:1", {"192.168.1.127"}},
      {{"192.168.1.0/25"}, "192.168.1.128:1", {}},
      {{"192.0.2.7"}, "192.0.2.7:1", {"192.0.2.7"}},
      {{"192.0.2.7"}, "192.0.2.8:1", {}},
      {{"0.0.0.0/0"}, "203.0.113.1:1", {"203.0.113.1"}},
      {{"2001:db8::/32"}, "[2001:db8:ffff::1]:1", {"2001:db8:ffff::1"}},
      {{"2001:db8::/32"}, "[2001:db9::1]:1", {}},
      {{"2001:db8::/32"}, "32.1.13.184:1", {}},  // the same leading bytes, another family
      // A name is allowed as it is written, and connected to by name. A name that no rule
      // names is resolved; these have a 64-byte label, which the resolver refuses at once.
      {{label + ".invalid"}, shout + ".invalid:9", {shout + ".invalid"}},
      {{label + ".invalid:9"}, label + ".invalid:9", {label + ".invalid"}},
      {{label + ".invalid:9"}, label + ".invalid:10", {}},
      {{label + ".invalid"}, label + ".b.invalid:9", {}},
  };
  for (const allow_case& c : cases) {
    target_rules rules;
    for (const std::string& rule : c.rules) ASSERT_TRUE(rules.add(rule)) << rule;
    EXPECT_EQ(rules.allow(*parseTarget(c.target)), c.connectTo) << c.target;
  }
}

TEST(TargetsTest, RefusesMalformedRules) {
  for (const char* rule : {"", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "::1/129", "host/8",
                           "-rf", "a b", "host:0", "host:80:80"}) {
    EXPECT_FALSE(target_rules().add(rule)) << rule;
  }
}

}  // namespace
}  // namespace exporter
