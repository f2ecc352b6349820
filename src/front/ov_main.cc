#include "front/ov_main.h"

#include <iostream>

#include "platform/Platform.h"
#include "front/options.h"
#include "front/usage.h"
#include "front/version.h"

using com::orvex::Platform;

int ov_main(int argc, char** argv) {
  switch (vigilo::parseOptions(argc, argv)) {
    case vigilo::parse_outcome::usage_error:
      vigilo::printUsage();
      return 2;
    case vigilo::parse_outcome::help:
      vigilo::printUsage();
      Platform::doExit(0, 0);
    case vigilo::parse_outcome::version:
      std::cerr << vigilo::programVersionLine << std::endl;
      Platform::doExit(0, 0);
    case vigilo::parse_outcome::proceed:
      break;
  }
  return 0;
}
