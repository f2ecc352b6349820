#include "platform/Platform.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace com::orvex {

void Platform::doExit(int status, unsigned long /*reserved*/) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  std::exit(status);
}

}  // namespace com::orvex
