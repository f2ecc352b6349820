#include "platform/ov_utf8.h"

#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utf8.h"

namespace {

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
  const std::string codeset = environmentCodeset();
  if (isUtf8Codeset(codeset)) {
    if (!com::orvex::isStrictUtf8(text)) return nullptr;
    return strdup(text);
  }
  return convertWithIconv(text, codeset);
}
