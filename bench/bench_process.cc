#include "bench_process.h"

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
#include <stdexcept>

extern char** environ;

namespace vigilo::bench {

child_process::child_process(const std::vector<std::string>& argv) {
  int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  // Default dispositions and an empty mask, whatever the test runner has set up.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const int rc = posix_spawn(&child, argv[0].c_str(), &actions, &attr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(outPipe[1]);
  close(errPipe[1]);
  fds[0] = outPipe[0];
  fds[1] = errPipe[0];
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
  for (int fd : fds) close(fd);  // a negative descriptor is refused harmlessly
}

bool child_process::waitFor(const std::function<bool(const std::string&, const std::string&)>& done,
                            std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done(outText, errText)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || (fds[0] < 0 && fds[1] < 0)) return done(outText, errText);
    // At most 5 ms at a time: `done` may look beyond the pipes. Negative descriptors are skipped.
    pollfd readable[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(readable, 2, static_cast<int>(std::min<long>(left.count(), 5))) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (readable[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t got = read(fds[i], buffer, sizeof buffer);
      if (got > 0) {
        (i == 0 ? outText : errText).append(buffer, static_cast<std::size_t>(got));
      } else {
        close(fds[i]);
        fds[i] = -1;
      }
    }
  }
  return true;
}

bool child_process::waitForOut(const std::string& text, std::chrono::milliseconds timeout) {
  return waitFor([&](const std::string& out,
                     const std::string&) { return out.find(text) != std::string::npos; },
                 timeout);
}

bool child_process::waitUntilSleeping(std::chrono::milliseconds timeout) {
  const std::string statPath = "/proc/" + std::to_string(child) + "/stat";
  return waitFor(
      [&](const std::string&, const std::string&) {
        // "PID (name) STATE ...": the state follows the last parenthesis.
        std::ifstream file(statPath);
        const std::string stat((std::istreambuf_iterator<char>(file)), {});
        const auto end = stat.rfind(") ");
        return end != std::string::npos && stat.compare(end + 2, 1, "S") == 0;
      },
      timeout);
}

void child_process::signal(int sig) {
  if (child > 0) kill(child, sig);
}

void child_process::closeStdout() {
  close(fds[0]);
  fds[0] = -1;
}

run_result child_process::finish(std::chrono::milliseconds timeout) {
  waitFor([this](const std::string&, const std::string&) { return fds[0] < 0 && fds[1] < 0; },
          timeout);
  if (fds[0] >= 0 || fds[1] >= 0) kill(child, SIGKILL);  // still writing past the bound
  int wstatus = 0;
  rusage usage{};
  wait4(child, &wstatus, 0, &usage);
  child = -1;
  const int status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  return {outText, errText, status, usage.ru_maxrss};
}

run_result runProcess(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
  return child_process(argv).finish(timeout);
}

bench_arguments readArguments(int argc, char** argv) {
  bench_arguments read;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.starts_with("--baseline=")) {
      read.baseline = arg.substr(11);
    } else {
      read.rest.push_back(arg);
    }
  }
  return read;
}

std::vector<std::string> redirected(const std::string& redirect, std::vector<std::string> argv) {
  argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\" " + redirect, "sh"});
  return argv;
}

std::vector<std::string> underValgrind(const std::string& valgrind, std::vector<std::string> argv) {
  argv.insert(argv.begin(), {valgrind, "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite"});
  return argv;
}

server_process::server_process(const std::vector<std::string>& argv, const std::string& name,
                               std::chrono::milliseconds timeout)
    : child_process(argv) {
  const std::string banner = name + " listening on 127.0.0.1:";
  const auto named = [&](const std::string& out, const std::string&) {
    const auto at = out.find(banner);
    if (at == std::string::npos || out.find('\n', at) == std::string::npos) return false;
    listenPort = static_cast<unsigned short>(std::stoi(out.substr(at + banner.size())));
    return true;
  };
  if (!waitFor(named, timeout)) throw std::runtime_error(name + " did not start: " + err());
}

engine_process::engine_process(const std::string& binary, const std::vector<std::string>& extra)
    : server_process(
          [&] {
            std::vector<std::string> argv = {binary, "--port", "0"};
            argv.insert(argv.end(), extra.begin(), extra.end());
            return argv;
          }(),
          "ovengine") {}

}  // namespace vigilo::bench
