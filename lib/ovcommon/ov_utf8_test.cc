#include "ovcommon/ov_utf8.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

// Runs ov_CstrToUTF8 under the given LC_ALL and restores the environment afterwards.
std::unique_ptr<char, decltype(&std::free)> convertIn(const char* lcAll, const char* text) {
  const char* old = std::getenv("LC_ALL");
  const std::string saved = old ? old : "";
  setenv("LC_ALL", lcAll, 1);
  std::unique_ptr<char, decltype(&std::free)> result(ov_CstrToUTF8(text), &std::free);
  if (old) {
    setenv("LC_ALL", saved.c_str(), 1);
  } else {
    unsetenv("LC_ALL");
  }
  return result;
}

struct utf8_case {
  std::string text;
  bool valid;
};

class StrictUtf8Test : public ::testing::TestWithParam<utf8_case> {};

// In a UTF-8 locale, well-formed text comes back unchanged and anything else is refused.
TEST_P(StrictUtf8Test, Classifies) {
  const auto converted = convertIn("C.UTF-8", GetParam().text.c_str());
  if (GetParam().valid) {
    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(converted.get(), GetParam().text);
  } else {
    EXPECT_EQ(converted, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, StrictUtf8Test,
    ::testing::Values(utf8_case{"", true}, utf8_case{"plain ascii", true}, utf8_case{"\x7f", true},
                      utf8_case{"\xc2\x80", true},          // U+0080, smallest two-byte
                      utf8_case{"\xdf\xbf", true},          // U+07FF
                      utf8_case{"\xe0\xa0\x80", true},      // U+0800, smallest three-byte
                      utf8_case{"\xed\x9f\xbf", true},      // U+D7FF, just below the surrogates
                      utf8_case{"\xee\x80\x80", true},      // U+E000, just above them
                      utf8_case{"\xef\xbf\xbf", true},      // U+FFFF
                      utf8_case{"\xf0\x90\x80\x80", true},  // U+10000, smallest four-byte
                      utf8_case{"\xf4\x8f\xbf\xbf", true},  // U+10FFFF, the last code point
                      utf8_case{"caf\xc3\xa9", true},
                      utf8_case{"\x80", false},              // continuation without a lead
                      utf8_case{"\xc0\xaf", false},          // overlong '/'
                      utf8_case{"\xc1\xbf", false},          // overlong
                      utf8_case{"\xe0\x9f\xbf", false},      // overlong three-byte
                      utf8_case{"\xf0\x8f\xbf\xbf", false},  // overlong four-byte
                      utf8_case{"\xed\xa0\x80", false},      // U+D800, a surrogate
                      utf8_case{"\xed\xbf\xbf", false},      // U+DFFF
                      utf8_case{"\xf4\x90\x80\x80", false},  // U+110000
                      utf8_case{"\xf5\x80\x80\x80", false}, utf8_case{"\xff", false},
                      utf8_case{"\xfe", false}, utf8_case{"\xc3", false},  // truncated at the end
                      utf8_case{"\xe2\x82", false}, utf8_case{"\xc3(", false},  // bad continuation
                      utf8_case{"\xe2\x28\xa1", false}, utf8_case{"\xf0\x90\x80\x28", false}));

TEST(CstrToUTF8Test, Utf8LocaleKeepsValidTextAndRejectsInvalid) {
  auto ok = convertIn("C.UTF-8", "caf\xc3\xa9 -p 8080");
  ASSERT_NE(ok, nullptr);
  EXPECT_STREQ(ok.get(), "caf\xc3\xa9 -p 8080");
  EXPECT_EQ(convertIn("C.UTF-8", "\xc0\xaf"), nullptr);
  EXPECT_EQ(convertIn("C.UTF-8", "\xed\xa0\x80"), nullptr);
}

TEST(CstrToUTF8Test, AsciiLocaleRejectsHighBytes) {
  auto ok = convertIn("C", "--hostname");
  ASSERT_NE(ok, nullptr);
  EXPECT_STREQ(ok.get(), "--hostname");
  EXPECT_EQ(convertIn("C", "caf\xc3\xa9"), nullptr);
}

TEST(CstrToUTF8Test, UnknownLocaleBehavesAsC) {
  EXPECT_EQ(convertIn("xx_NOWHERE.UTF-8", "caf\xc3\xa9"), nullptr);
  auto ok = convertIn("xx_NOWHERE.UTF-8", "");
  ASSERT_NE(ok, nullptr);
  EXPECT_STREQ(ok.get(), "");
}

TEST(CstrToUTF8Test, NullGivesNull) { EXPECT_EQ(ov_CstrToUTF8(nullptr), nullptr); }

}  // namespace
