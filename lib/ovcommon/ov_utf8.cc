#include "ovcommon/ov_utf8.h"

#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <strings.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

namespace {

// Well-formed UTF-8 under the strict rules: no overlong forms, no surrogates (U+D800 to U+DFFF),
// no code points beyond U+10FFFF, no truncated sequences.
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

// The codeset that setlocale(LC_CTYPE, "") would select, found without touching the process's
// locale (other threads may be using it). An unknown locale falls back to "C", as setlocale does.
std::string environmentCodeset() {
  locale_t locale = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
  if (locale == static_cast<locale_t>(nullptr)) {
    locale = newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
  }
  if (locale == static_cast<locale_t>(nullptr)) return "ANSI_X3.4-1968";
  std::string codeset = nl_langinfo_l(CODESET, locale);
  freelocale(locale);
  return codeset;
}

// environmentCodeset(), found again only when the variables that choose the locale change:
// finding it loads the locale's character data, and a program converts all its arguments at once.
std::string currentCodeset() {
  static std::mutex mutex;
  static std::string chosenBy, codeset;
  std::string variables;
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(name);
    variables.append(value != nullptr ? value : "").push_back('\0');
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (codeset.empty() || variables != chosenBy) {
    chosenBy = variables;
    codeset = environmentCodeset();
  }
  return codeset;
}

// Text of ISO C's basic characters only (letters, digits, space and 29 marks), which every locale
// encodes as ASCII does: it needs neither the locale's codeset, whose finding loads the locale's
// character data and is the costliest step of a start, nor a conversion.
bool isPortable(const char* text) {
  for (; *text != '\0'; ++text) {
    const unsigned char c = static_cast<unsigned char>(*text);
    if (c < 0x20 || c > 0x7e || c == '$' || c == '@' || c == '`') return false;
  }
  return true;
}

bool isUtf8Codeset(const std::string& codeset) {
  return strcasecmp(codeset.c_str(), "UTF-8") == 0 || strcasecmp(codeset.c_str(), "UTF8") == 0;
}

char* convertWithIconv(const char* text, const std::string& codeset) {
  iconv_t cd = iconv_open("UTF-8", codeset.c_str());
  if (cd == reinterpret_cast<iconv_t>(-1)) return nullptr;
  size_t inLeft = std::strlen(text);
  // No codeset needs more than four UTF-8 bytes per input byte.
  const size_t capacity = inLeft * 4 + 1;
  char* result = static_cast<char*>(std::malloc(capacity));
  if (result == nullptr) {
    iconv_close(cd);
    return nullptr;
  }
  char* in = const_cast<char*>(text);
  char* out = result;
  size_t outLeft = capacity - 1;
  const bool ok = iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1) &&
                  iconv(cd, nullptr, nullptr, &out, &outLeft) != static_cast<size_t>(-1);
  iconv_close(cd);
  if (!ok) {
    std::free(result);
    return nullptr;
  }
  *out = '\0';
  return result;
}

}  // namespace

char* ov_CstrToUTF8(const char* text) {
  if (text == nullptr) return nullptr;
  if (isPortable(text)) return strdup(text);
  const std::string codeset = currentCodeset();
  if (isUtf8Codeset(codeset)) {
    if (!isStrictUtf8(text)) return nullptr;
    return strdup(text);
  }
  return convertWithIconv(text, codeset);
}
