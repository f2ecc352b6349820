#include "utf8.h"

#include <cstdint>

namespace com::orvex {

bool isStrictUtf8(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  while (i < n) {
    const auto lead = static_cast<std::uint8_t>(text[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    // The lead byte fixes the length and, through the allowed range of the second byte, rules out
    // overlong forms (E0, F0), surrogates (ED) and code points past U+10FFFF (F4).
    size_t length = 0;
    std::uint8_t low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (n - i < length) return false;
    const auto second = static_cast<std::uint8_t>(text[i + 1]);
    if (second < low || second > high) return false;
    for (size_t k = 2; k < length; ++k) {
      const auto next = static_cast<std::uint8_t>(text[i + k]);
      if (next < 0x80 || next > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

}  // namespace com::orvex
