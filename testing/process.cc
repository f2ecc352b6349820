#include "testing/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

extern char** environ;

namespace vigilo::test_support {

namespace {

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& extra) {
  std::map<std::string, std::string> vars;
  auto add = [&vars](const std::string& entry) {
    const auto eq = entry.find('=');
    vars[entry.substr(0, eq)] = entry;
  };
  for (char** e = environ; *e != nullptr; ++e) add(*e);
  for (const auto& e : extra) add(e);
  std::vector<std::string> result;
  for (auto& [name, entry] : vars) result.push_back(entry);
  return result;
}

}  // namespace

argument_vector::argument_vector(std::vector<std::string> texts) : texts(std::move(texts)) {
  for (std::string& text : this->texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
}

child_process::child_process(const std::vector<std::string>& argv, const options& opts) {
  int outPipe[2] = {-1, -1};
  int errPipe[2];
  if (opts.stdoutPath.empty() && pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  if (pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (opts.stdoutPath.empty()) {
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  } else {
    posix_spawn_file_actions_addopen(&actions, 1, opts.stdoutPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);

  // The child starts with default signal dispositions and an empty mask, whatever the test
  // runner has set up.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  argument_vector args(argv);
  argument_vector env(mergedEnvironment(opts.env));
  const int rc = posix_spawn(&child, argv[0].c_str(), &actions, &attr, args.argv(), env.argv());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (opts.stdoutPath.empty()) close(outPipe[1]);
  close(errPipe[1]);
  outFd = outPipe[0];
  errFd = errPipe[0];
  if (rc != 0) {
    child = -1;
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }
}

child_process::~child_process() {
  if (child > 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  if (outFd >= 0) close(outFd);
  if (errFd >= 0) close(errFd);
}

void child_process::pump(int timeoutMs) {
  pollfd fds[2];
  int n = 0;
  if (outFd >= 0) fds[n++] = {outFd, POLLIN, 0};
  if (errFd >= 0) fds[n++] = {errFd, POLLIN, 0};
  if (n == 0) return;
  if (poll(fds, n, timeoutMs) <= 0) return;
  for (int i = 0; i < n; ++i) {
    if (fds[i].revents == 0) continue;
    char buffer[65536];
    const ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
    const bool isOut = fds[i].fd == outFd;
    if (got > 0) {
      (isOut ? outText : errText).append(buffer, static_cast<size_t>(got));
    } else {
      close(fds[i].fd);
      (isOut ? outFd : errFd) = -1;
    }
  }
}

bool child_process::waitFor(const std::function<bool(const std::string&, const std::string&)>& done,
                            std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done(outText, errText)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (outFd < 0 && errFd < 0) return done(outText, errText);
    pump(static_cast<int>(left.count()));
  }
  return true;
}

bool child_process::waitForErr(const std::string& text, std::chrono::milliseconds timeout) {
  return waitFor([&](const std::string&,
                     const std::string& err) { return err.find(text) != std::string::npos; },
                 timeout);
}

bool child_process::waitForOut(const std::string& text, std::chrono::milliseconds timeout) {
  return waitFor([&](const std::string& out,
                     const std::string&) { return out.find(text) != std::string::npos; },
                 timeout);
}

bool child_process::waitUntilSleeping(std::chrono::milliseconds timeout) {
  const std::string statPath = "/proc/" + std::to_string(child) + "/stat";
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    // "PID (name) STATE ...": the name may hold blanks and parentheses, the state follows the
    // last parenthesis.
    std::ifstream file(statPath);
    const std::string stat((std::istreambuf_iterator<char>(file)), {});
    const auto close = stat.rfind(')');
    if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S') {
      return true;
    }
    pump(1);
  }
  return false;
}

void child_process::signal(int sig) {
  if (child > 0) kill(child, sig);
}

void child_process::closeStdout() {
  if (outFd >= 0) close(outFd);
  outFd = -1;
}

run_result child_process::finish(std::chrono::milliseconds timeout) {
  waitFor([this](const std::string&, const std::string&) { return outFd < 0 && errFd < 0; },
          timeout);
  run_result result;
  int wstatus = 0;
  if (outFd >= 0 || errFd >= 0) kill(child, SIGKILL);  // still writing past the bound
  rusage usage{};
  wait4(child, &wstatus, 0, &usage);
  child = -1;
  result.maxRssKb = usage.ru_maxrss;
  result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  result.out = outText;
  result.err = errText;
  return result;
}

run_result runProcess(const std::vector<std::string>& argv, const child_process::options& opts,
                      std::chrono::milliseconds timeout) {
  child_process child(argv, opts);
  return child.finish(timeout);
}

}  // namespace vigilo::test_support
