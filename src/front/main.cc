// Process entry of vigilo: converts the arguments to UTF-8 and hands them to ov_main.

#include <cstdio>

#include "front/ov_main.h"
#include "ovcommon/ov_utf8.h"

namespace {

// The converted arguments live until the process ends: the settings point into them.
char** convertedArgv = nullptr;

}  // namespace

int main(int argc, char** argv) {
  convertedArgv = new char*[argc + 1];
  convertedArgv[argc] = nullptr;
  for (int i = 0; i < argc; ++i) {
    convertedArgv[i] = ov_CstrToUTF8(argv[i]);
    if (convertedArgv[i] == nullptr) {
      std::fputs("Invalid characters for this locale on command line... exiting\n", stderr);
      return 1;
    }
  }
  return ov_main(argc, convertedArgv);
}
