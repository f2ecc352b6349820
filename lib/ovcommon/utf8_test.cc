#include "utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace com::orvex {
namespace {

struct utf8_case {
  std::string text;
  bool valid;
};

class StrictUtf8Test : public ::testing::TestWithParam<utf8_case> {};

TEST_P(StrictUtf8Test, Classifies) {
  EXPECT_EQ(isStrictUtf8(GetParam().text), GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, StrictUtf8Test,
    ::testing::Values(
        utf8_case{"", true}, utf8_case{"plain ascii", true},
        utf8_case{"\x7f", true},
        utf8_case{"\xc2\x80", true},              // U+0080, smallest two-byte
        utf8_case{"\xdf\xbf", true},              // U+07FF
        utf8_case{"\xe0\xa0\x80", true},          // U+0800, smallest three-byte
        utf8_case{"\xed\x9f\xbf", true},          // U+D7FF, just below the surrogates
        utf8_case{"\xee\x80\x80", true},          // U+E000, just above them
        utf8_case{"\xef\xbf\xbf", true},          // U+FFFF
        utf8_case{"\xf0\x90\x80\x80", true},      // U+10000, smallest four-byte
        utf8_case{"\xf4\x8f\xbf\xbf", true},      // U+10FFFF, the last code point
        utf8_case{"caf\xc3\xa9", true},
        utf8_case{"\x80", false},                 // continuation without a lead
        utf8_case{"\xc0\xaf", false},             // overlong '/'
        utf8_case{"\xc1\xbf", false},             // overlong
        utf8_case{"\xe0\x9f\xbf", false},         // overlong three-byte
        utf8_case{"\xf0\x8f\xbf\xbf", false},     // overlong four-byte
        utf8_case{"\xed\xa0\x80", false},         // U+D800, a surrogate
        utf8_case{"\xed\xbf\xbf", false},         // U+DFFF
        utf8_case{"\xf4\x90\x80\x80", false},     // U+110000
        utf8_case{"\xf5\x80\x80\x80", false},
        utf8_case{"\xff", false}, utf8_case{"\xfe", false},
        utf8_case{"\xc3", false},                 // truncated at the end
        utf8_case{"\xe2\x82", false},
        utf8_case{"\xc3(", false},                // bad continuation
        utf8_case{"\xe2\x28\xa1", false},
        utf8_case{"\xf0\x90\x80\x28", false}));

}  // namespace
}  // namespace com::orvex
