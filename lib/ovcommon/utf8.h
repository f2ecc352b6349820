// Strict UTF-8 validation, shared by the command-line conversion and its tests.
#ifndef VIGILO_OVCOMMON_UTF8_H_
#define VIGILO_OVCOMMON_UTF8_H_

#include <string_view>

namespace com::orvex {

// True when `text` is well-formed UTF-8 under the strict rules: no overlong forms, no surrogates
// (U+D800 to U+DFFF), no code points beyond U+10FFFF, no truncated sequences.
bool isStrictUtf8(std::string_view text);

}  // namespace com::orvex

#endif  // VIGILO_OVCOMMON_UTF8_H_
