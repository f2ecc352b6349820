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
                             std::string(254, 'a') + ":80", std::string("a\0b:80", 6), "a\x7f:80",
                             "a\x01:80"};
  // clang-format on
  for (const std::string& text : bad) EXPECT_FALSE(parseTarget(text)) << text;
}

struct allow_case {
  std::vector<std::string> rules;
  std::string target;
  bool allowed;
};

// A target is allowed when a name rule names it, or when its address lies in a range; a name that
// no rule names is decided by the addresses a lookup finds, which the prober's tests hold.
TEST(TargetsTest, AllowsOnlyWhatTheRulesName) {
  const std::string label(64, 'e');
  const std::string shout(64, 'E');
  const allow_case cases[] = {
      // Without rules, loopback only.
      {{}, "127.0.0.1:15903", true},
      {{}, "127.255.0.9:1", true},
      {{}, "[::1]:1", true},
      {{}, "10.0.0.1:15903", false},
      {{}, "[::2]:1", false},
      // Rules replace the default.
      {{"10.0.0.0/8"}, "10.200.3.4:1", true},
      {{"10.0.0.0/8"}, "11.0.0.1:1", false},
      {{"10.0.0.0/8"}, "127.0.0.1:1", false},
      {{"192.168.1.0/25"}, "192.168.1.127:1", true},
      {{"192.168.1.0/25"}, "192.168.1.128:1", false},
      {{"192.0.2.7"}, "192.0.2.7:1", true},
      {{"192.0.2.7"}, "192.0.2.8:1", false},
      {{"0.0.0.0/0"}, "203.0.113.1:1", true},
      {{"2001:db8::/32"}, "[2001:db8:ffff::1]:1", true},
      {{"2001:db8::/32"}, "[2001:db9::1]:1", false},
      {{"2001:db8::/32"}, "32.1.13.184:1", false},  // the same leading bytes, another family
      // A name is allowed as it is written, whatever its case, on any port or on the one named.
      {{label + ".invalid"}, shout + ".invalid:9", true},
      {{label + ".invalid:9"}, label + ".invalid:9", true},
      {{label + ".invalid:9"}, label + ".invalid:10", false},
      {{label + ".invalid"}, label + ".b.invalid:9", false},
      {{}, "localhost:9", false},
  };
  for (const allow_case& c : cases) {
    target_rules rules;
    for (const std::string& rule : c.rules) ASSERT_TRUE(rules.add(rule)) << rule;
    const target t = *parseTarget(c.target);
    EXPECT_EQ(rules.named(t) || rules.allowsAll({t.host}), c.allowed) << c.target;
  }
  EXPECT_FALSE(target_rules().allowsAll({}));
  EXPECT_FALSE(target_rules().allowsAll({"127.0.0.1", "10.0.0.1"}));
}

TEST(TargetsTest, RefusesMalformedRules) {
  for (const char* rule : {"", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "::1/129", "host/8",
                           "-rf", "a b", "host:0", "host:80:80"}) {
    EXPECT_FALSE(target_rules().add(rule)) << rule;
  }
}

}  // namespace
}  // namespace exporter
