#include "platform/memory.h"

#include <unistd.h>

#include <cstdlib>

void ov_outOfMemory() {
  static const char message[] = "Out of memory: cannot allocate, aborting\n";
  (void)!write(STDERR_FILENO, message, sizeof message - 1);
  std::abort();
}
