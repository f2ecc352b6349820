// The programs a benchmark measures, run as child processes with their standard output and error
// on pipes: waits for output have a bound, and no child outlives its object.
#ifndef VIGILO_BENCH_BENCH_PROCESS_H_
#define VIGILO_BENCH_BENCH_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace vigilo::bench {

struct run_result {
  std::string out;
  std::string err;
  int status = -1;    // exit status, or 128 + the signal that ended it
  long maxRssKb = 0;  // peak resident memory
};

class child_process {
 public:
  // Starts argv[0] (a path) with default signal dispositions, stdin from /dev/null and stdout and
  // stderr on pipes; throws when it cannot. An environment variable or another stdout is set by a
  // wrapper in argv: /usr/bin/env, or redirected() below.
  explicit child_process(const std::vector<std::string>& argv);
  ~child_process();  // kills the child if it still runs
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  pid_t pid() const { return child; }
  const std::string& err() const { return errText; }

  // Reads output until done(out, err) holds; false when `timeout` passes first.
  bool waitFor(const std::function<bool(const std::string& out, const std::string& err)>& done,
               std::chrono::milliseconds timeout);
  bool waitForOut(const std::string& text, std::chrono::milliseconds timeout);
  // Waits until the child's main thread sleeps, as /proc shows its state. Once vigilo has written
  // a poll, that is the wait before the next one.
  bool waitUntilSleeping(std::chrono::milliseconds timeout);

  void signal(int sig);
  // Closes our end of the child's stdout, as a reader that goes away does.
  void closeStdout();
  // Reads the rest of the output and reaps the child, killing it after `timeout`.
  run_result finish(std::chrono::milliseconds timeout = std::chrono::seconds(20));

 private:
  pid_t child = -1;
  int fds[2] = {-1, -1};  // our ends of its stdout and stderr
  std::string outText;
  std::string errText;
};

run_result runProcess(const std::vector<std::string>& argv,
                      std::chrono::milliseconds timeout = std::chrono::seconds(20));

// A benchmark's command line: another build's program to measure beside this one's, named by
// --baseline=PATH, and the other arguments in order.
struct bench_arguments {
  std::string baseline;
  std::vector<std::string> rest;
};
bench_arguments readArguments(int argc, char** argv);

// `argv` run with its stdout redirected by the shell, as in ">/dev/full", ">&-" or ">FILE"; the
// shell execs the program, so its pid is the program's.
std::vector<std::string> redirected(const std::string& redirect, std::vector<std::string> argv);

// `argv` run under `valgrind`, which fails the run with status 99 on a memory error or a definite
// leak and, being quiet, writes nothing else.
std::vector<std::string> underValgrind(const std::string& valgrind, std::vector<std::string> argv);

// A server started from `argv` that names its port on standard output as "`name` listening on
// 127.0.0.1:PORT"; the constructor returns once it has (`timeout` at most, else it throws).
class server_process : public child_process {
 public:
  server_process(const std::vector<std::string>& argv, const std::string& name,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10));
  unsigned short port() const { return listenPort; }

 private:
  unsigned short listenPort = 0;
};

// The ovengine at `binary`, started with --port 0 and `extra`.
class engine_process : public server_process {
 public:
  explicit engine_process(const std::string& binary, const std::vector<std::string>& extra = {});
};

}  // namespace vigilo::bench

#endif  // VIGILO_BENCH_BENCH_PROCESS_H_
