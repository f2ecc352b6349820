// A long watch: vigilo -r -i 0 against ovengine --load 100000 for the given number of seconds.
// Prints the polls made and, for both processes, resident memory after the first tenth of the
// run and at its end, the peak, the growth between the two, and the open descriptors. Growth
// should be about nothing: whatever either process holds per poll or per event is released.
//
//   build/bin/soak_bench [seconds]
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench_process.h"

namespace {

struct sample {
  long rssKb = 0;
  long peakKb = 0;
  long descriptors = 0;
};

long statusField(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) return std::atol(line.c_str() + name.size() + 1);
  }
  return 0;
}

sample take(pid_t pid) {
  sample s{statusField(pid, "VmRSS"), statusField(pid, "VmHWM"), 0};
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    (void)entry;
    ++s.descriptors;
  }
  return s;
}

void print(const char* name, const sample& early, const sample& late) {
  std::printf("%-10s %12ld %12ld %12ld %12ld %8ld %8ld\n", name, early.rssKb, late.rssKb,
              late.peakKb, late.rssKb - early.rssKb, early.descriptors, late.descriptors);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace std::chrono;
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
  vigilo::bench::engine_process engine(OVENGINE_BINARY, {"--load", "100000"});

  // vigilo writes into a FIFO that this program drains and counts, so that a long run costs no
  // memory here.
  const std::string fifo = "/tmp/vigilo_soak_" + std::to_string(getpid());
  mkfifo(fifo.c_str(), 0600);
  std::atomic<long> lines{0};
  std::thread reader([&] {
    const int fd = open(fifo.c_str(), O_RDONLY);
    char buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
      for (ssize_t i = 0; i < n; ++i) lines += buffer[i] == '\n';
    }
    close(fd);
  });
  vigilo::bench::child_process watch(vigilo::bench::redirected(
      ">" + fifo, {VIGILO_BINARY, "-n", "127.0.0.1", "-p", std::to_string(engine.port()), "-r",
                   "-a", "-i", "0"}));

  const auto start = steady_clock::now();
  std::this_thread::sleep_for(duration<double>(seconds / 10));
  const sample vigiloEarly = take(watch.pid()), engineEarly = take(engine.pid());
  const long linesEarly = lines;
  const auto early = steady_clock::now();
  std::this_thread::sleep_until(start +
                                duration_cast<steady_clock::duration>(duration<double>(seconds)));
  const sample vigiloLate = take(watch.pid()), engineLate = take(engine.pid());
  const long linesLate = lines;
  const double measured = duration<double>(steady_clock::now() - early).count();

  watch.signal(SIGINT);
  const auto result = watch.finish(20s);
  reader.join();
  unlink(fifo.c_str());
  engine.signal(SIGTERM);
  engine.finish(10s);

  std::printf("%.0f s: %ld polls, %.0f polls/s after the first tenth; vigilo exit %d\n", seconds,
              linesLate, (linesLate - linesEarly) / measured, result.status);
  std::printf("%-10s %12s %12s %12s %12s %8s %8s\n", "process", "RSS early KiB", "RSS end KiB",
              "peak KiB", "growth KiB", "fds early", "fds end");
  print("vigilo", vigiloEarly, vigiloLate);
  print("ovengine", engineEarly, engineLate);
  return result.status;
}
