// The build-time identity of vigilo and the three texts made from it. The pieces are joined at
// compile time, so the banner, the version line and the product line cannot drift apart.
#ifndef VIGILO_SRC_SUPPORT_VERSION_H_
#define VIGILO_SRC_SUPPORT_VERSION_H_

#include "support/build_info.h"

#define VIGILO_PRODUCT_WORD "Orvex"
#define VIGILO_PROGRAM_NAME "vigilo"
#define VIGILO_VERSION_DETAIL \
  VIGILO_VERSION " (build " VIGILO_BUILD_TAG " on " VIGILO_PLATFORM_TAG ")"

namespace vigilo {

inline constexpr char programName[] = VIGILO_PROGRAM_NAME;

// First line of the usage text.
inline constexpr char usageBanner[] =
    VIGILO_PRODUCT_WORD " " VIGILO_PROGRAM_NAME " v" VIGILO_VERSION_DETAIL;

// What -V writes.
inline constexpr char programVersionLine[] = VIGILO_PROGRAM_NAME " v" VIGILO_VERSION_DETAIL;

// What the watcher hands to the signal set-up, for the report of a fatal signal.
inline constexpr char productVersionLine[] = VIGILO_PRODUCT_WORD " " VIGILO_VERSION_DETAIL;

}  // namespace vigilo

#endif  // VIGILO_SRC_SUPPORT_VERSION_H_
