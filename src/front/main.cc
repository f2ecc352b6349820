// Process entry of vigilo: converts the arguments to UTF-8 and hands them to ov_main.

#include <fcntl.h>

#include <cstdio>

#include "front/ov_main.h"
#include "ovcommon/ov_utf8.h"

namespace {

// The converted arguments live until the process ends: the settings point into them.
char** convertedArgv = nullptr;

}  // namespace

int main(int argc, char** argv) {
  // A standard descriptor that was closed gets a placeholder, so that no socket or file opened
  // later takes its number: output meant for a closed stdout must fail, not reach the engine.
  // Opened read-only, the placeholder refuses every write.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
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
