#include "ovcommon/ov_utf8.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

// Runs ov_CstrToUTF8 under the given LC_ALL, which nothing else in this program reads.
std::unique_ptr<char, decltype(&std::free)> convertIn(const char* lcAll, const char* text) {
  setenv("LC_ALL", lcAll, 1);
  return {ov_CstrToUTF8(text), &std::free};
}

// Under each locale, text the locale's encoding allows comes back unchanged, anything else is
// refused: UTF-8 strictly (no overlongs, surrogates or code points past U+10FFFF), ASCII in "C",
// and in a locale that does not exist.
TEST(CstrToUTF8Test, KeepsWhatTheLocaleAllowsAndRefusesTheRest) {
  // clang-format off
  // U+0080, U+07FF, U+0800, U+D7FF and U+E000 on either side of the surrogates, U+FFFF, U+10000,
  // U+10FFFF.
  const char* const utf8Valid[] = {"", "plain ascii", "\x7f", "caf\xc3\xa9", "\xc2\x80", "\xdf\xbf",
                                   "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf",
                                   "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"};
  // Stray, overlong, surrogates, past U+10FFFF, never used, truncated, a bad continuation.
  const char* const utf8Invalid[] = {"\x80", "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf",
                                     "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
                                     "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xfe", "\xc3",
                                     "\xe2\x82", "\xc3(", "\xe2\x28\xa1", "\xf0\x90\x80\x28"};
  // clang-format on
  for (const char* text : utf8Valid) EXPECT_STREQ(convertIn("C.UTF-8", text).get(), text) << text;
  for (const char* text : utf8Invalid) EXPECT_EQ(convertIn("C.UTF-8", text), nullptr) << text;
  for (const char* locale : {"C", "xx_NOWHERE.UTF-8"}) {
    EXPECT_STREQ(convertIn(locale, "--hostname").get(), "--hostname");
    EXPECT_EQ(convertIn(locale, "caf\xc3\xa9"), nullptr);
  }
  EXPECT_EQ(ov_CstrToUTF8(nullptr), nullptr);
}

}  // namespace
