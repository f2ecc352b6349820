#include "ovcommon/Platform.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

namespace com::orvex {

AllocatorTable Platform::tracking = {nullptr, nullptr, nullptr};
bool Platform::determined_optimal_allocator = false;

void Platform::doExit(int status, unsigned long /*reserved*/) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  std::exit(status);
}

std::uint64_t Platform::sysTime() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

std::ofstream* Platform::openOFStreamUTF8(const char* name, bool truncate, bool binary) {
  std::ios::openmode mode = std::ios::out | (truncate ? std::ios::trunc : std::ios::app);
  if (binary) mode |= std::ios::binary;
  return new std::ofstream(name, mode);
}

// The process's own allocation entry points: they count memory when tracking is on, so the
// library's objects are counted with everything else.
void Platform::doDetermineAllocator() {
  tracking = {&::malloc, &::realloc, &::free};
  determined_optimal_allocator = true;
}

}  // namespace com::orvex
