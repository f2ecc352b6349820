// Test support: runs a real program as a child process with its standard output and error on
// pipes, so tests can compare whole outputs and exit statuses, wait for output with a bound
// instead of sleeping, and send real signals.
#ifndef VIGILO_TESTING_PROCESS_H_
#define VIGILO_TESTING_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace vigilo::test_support {

// An argument vector for code that takes (argc, argv), or an environment: owns its texts, and
// argv() ends with a null pointer. The texts stay in place while the object lives, so settings
// may point into them.
class argument_vector {
 public:
  explicit argument_vector(std::vector<std::string> texts);
  argument_vector(const argument_vector&) = delete;
  argument_vector& operator=(const argument_vector&) = delete;

  int argc() const { return static_cast<int>(texts.size()); }
  char** argv() { return pointers.data(); }

 private:
  std::vector<std::string> texts;
  std::vector<char*> pointers;
};

struct run_result {
  std::string out;
  std::string err;
  int status = -1;    // exit status, or 128 + signal number when killed by a signal
  long maxRssKb = 0;  // the child's peak resident memory
};

class child_process {
 public:
  struct options {
    std::vector<std::string> env;  // "NAME=value" entries added to (or replacing) the environment
    std::string stdoutPath;        // when set, stdout goes to this file instead of a pipe
  };

  // Starts argv[0] (a path) with argv. Fails the test if it cannot be started.
  explicit child_process(const std::vector<std::string>& argv, const options& opts);
  explicit child_process(const std::vector<std::string>& argv) : child_process(argv, options{}) {}
  ~child_process();  // kills the child if it still runs
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  pid_t pid() const { return child; }

  // Reads output until `done(out, err)` holds or `timeout` passes; returns whether it held.
  bool waitFor(const std::function<bool(const std::string& out, const std::string& err)>& done,
               std::chrono::milliseconds timeout);
  bool waitForErr(const std::string& text, std::chrono::milliseconds timeout);
  bool waitForOut(const std::string& text, std::chrono::milliseconds timeout);

  // Waits until the child's main thread sleeps, as /proc shows its state; false after
  // `timeout`. Once vigilo has written a poll, that is the wait before the next one.
  bool waitUntilSleeping(std::chrono::milliseconds timeout);

  void signal(int sig);
  // Closes our end of the child's stdout pipe, as a reader that goes away would.
  void closeStdout();

  // Reads the rest of the output and waits for the exit; kills the child after `timeout`.
  run_result finish(std::chrono::milliseconds timeout = std::chrono::seconds(20));

  const std::string& out() const { return outText; }
  const std::string& err() const { return errText; }

 private:
  void pump(int timeoutMs);

  pid_t child = -1;
  int outFd = -1;
  int errFd = -1;
  std::string outText;
  std::string errText;
};

// Runs a program to its end and returns what it wrote and its status.
run_result runProcess(const std::vector<std::string>& argv, const child_process::options& opts = {},
                      std::chrono::milliseconds timeout = std::chrono::seconds(20));

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_PROCESS_H_
