#include "platform/ov_utf8.h"

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
