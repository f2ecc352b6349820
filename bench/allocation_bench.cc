// malloc/free pairs per second through the process's entry points, beside the next allocator
// called directly, on the plain and on the tracking route. The route is fixed per process, so the
// program runs itself once per route and prints one table.
//
//   build/bin/allocation_bench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "support/allocation.h"

namespace {

void* volatile sink;

template <typename Alloc, typename Release>
double pairsPerSecond(Alloc allocate, Release release, std::size_t size) {
  constexpr int pairs = 5'000'000;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < pairs; ++i) {
    void* block = allocate(size);
    sink = block;
    release(block);
  }
  return pairs / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The best of several alternating rounds of each, so that a busy moment of the machine weighs
// on neither side.
std::pair<double, double> bestOfRounds(std::size_t size) {
  double entry = 0, next = 0;
  for (int round = 0; round < 7; ++round) {
    entry = std::max(entry, pairsPerSecond([](std::size_t n) { return malloc(n); },
                                           [](void* b) { free(b); }, size));
    next = std::max(next, pairsPerSecond([](std::size_t n) { return sysmalloc(n); },
                                         [](void* b) { sysfree(b); }, size));
  }
  return {entry, next};
}

// Runs this program for one route and returns its two figures.
bool measure(const char* self, const char* route, std::size_t size, double& entry, double& next) {
  const std::string command =
      std::string("VIGILO_BENCH_ROUTE=") + route +
      " ORVEX_MEMORY_TRACKING=" + (std::strcmp(route, "tracking") == 0 ? "1" : "0") + " " + self +
      " " + std::to_string(size);
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  const bool ok = std::fscanf(pipe, "%lf %lf", &entry, &next) == 2;
  return pclose(pipe) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("VIGILO_BENCH_ROUTE") != nullptr && argc > 1) {
    const std::size_t size = std::strtoul(argv[1], nullptr, 10);
    ov_installOutOfMemoryCatcher();
    const auto [entry, next] = bestOfRounds(size);
    std::printf("%.0f %.0f\n", entry, next);
    return 0;
  }
  std::printf("%-10s %6s %18s %18s %8s\n", "route", "bytes", "entry pairs/s", "next pairs/s",
              "ratio");
  for (const char* route : {"plain", "tracking"}) {
    for (const std::size_t size : {16, 64, 1024}) {
      double entry = 0, next = 0;
      if (!measure(argv[0], route, size, entry, next)) return 1;
      std::printf("%-10s %6zu %18.0f %18.0f %8.2f\n", route, size, entry, next, entry / next);
    }
  }
  return 0;
}
