// Conversion of command-line text to UTF-8 (libovcommon).
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_OV_UTF8_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_OV_UTF8_H_

// Converts `text`, encoded in the codeset of the environment's locale (LC_ALL, LC_CTYPE, LANG, as
// setlocale(LC_CTYPE, "") would choose it; the process's own locale is not changed), to UTF-8.
// In a UTF-8 locale the text is validated strictly: overlong forms, surrogates and code points
// beyond U+10FFFF are invalid. Returns a new NUL-terminated text allocated with malloc, owned by
// the caller, or null when `text` is null or holds characters that are invalid in the locale.
// Thread-safe.
char* ov_CstrToUTF8(const char* text);

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_OV_UTF8_H_
