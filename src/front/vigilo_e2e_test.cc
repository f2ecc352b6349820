// The real vigilo binary against a scripted engine and a real ovengine on loopback: the whole
// path from the socket to the output, exit statuses, real signals, files, pipes and /dev/full.
// What each rendering holds is tested at the status record; here, that it arrives.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "testing/expected_outputs.h"
#include "testing/fake_engine.h"
#include "testing/process.h"

namespace {

using namespace std::chrono_literals;
using namespace vigilo::test_support;

const auto bound = 20s;

// The status document of the shared snapshot, with `users` after it.
fake_reply document(std::uint64_t processed = 3, const text_pairs& users = {}) {
  text_pairs pairs = snapshot(processed);
  pairs.insert(pairs.end(), users.begin(), users.end());
  return statusReply(pairs);
}

// A scripted engine that answers /ping and every status request with `reply`.
struct scripted_engine : fake_engine {
  explicit scripted_engine(fake_reply reply = document())
      : fake_engine([reply](const std::string& path, int) {
          return path == "/ping" ? httpReply(200, "OK", "pong") : reply;
        }) {}
};

std::vector<std::string> vigilo(unsigned short port, std::vector<std::string> args) {
  // VIGILO_UNDER_TEST names another vigilo, such as an installed one, to run the suite against.
  const char* binary = std::getenv("VIGILO_UNDER_TEST");
  args.insert(args.begin(), {binary != nullptr ? binary : VIGILO_BINARY, "-n", "127.0.0.1", "-p",
                             std::to_string(port)});
  return args;
}

std::string where(unsigned short port) { return "127.0.0.1:" + std::to_string(port); }

const std::string failedWrite = "Control-C to exit...\nFailed to write status to output.\n";

// One poll through the whole path into a file, which is truncated first; with -v, the tool's
// start and end among the library's log lines.
TEST(VigiloTest, OnePollReachesTheFile) {
  // Its own file: the tracking run of this test may run beside it.
  const std::string path = ::testing::TempDir() + "/vigilo_e2e_" + std::to_string(getpid());
  std::ofstream(path) << "an older and much longer content that must go\n" << std::string(900, 'x');
  scripted_engine engine(document(100, {{"user-a", "A"}, {"x-user-b", "B,b"}}));
  const auto result = runProcess(vigilo(engine.port(), {"-o", "-r", "-t", "-a", "-v", "-f", path}));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(
      std::regex_replace(
          result.err,
          std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )", std::regex::multiline), "T "),
      "T INFO  engine client initialised for vigilo\nT INFO  connected to engine at " +
          where(engine.port()) + "\nvigilo starting...\nvigilo done\n" +
          "T INFO  disconnected from engine at " + where(engine.port()) +
          "\nT INFO  engine client shut down\n");
  std::ifstream file(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            rawHeading + ",user-a,x-user-b\n" + rawLine(100) + ",A,B,b\n");
  std::remove(path.c_str());
}

// A stop signal during the wait ends the watch at once, without another poll.
TEST(VigiloTest, StopSignalDuringAWaitEndsAtOnce) {
  for (const std::vector<int>& signals : {std::vector<int>{SIGINT}, std::vector<int>{SIGTERM},
                                          std::vector<int>{SIGINT, SIGINT, SIGINT}}) {
    SCOPED_TRACE(strsignal(signals[0]) + std::string(" x") + std::to_string(signals.size()));
    std::atomic<int> statusRequests{0};
    fake_engine engine([&](const std::string& path, int) {
      return path == "/ping" ? httpReply(200, "OK", "") : (++statusRequests, document(5));
    });
    child_process watch(vigilo(engine.port(), {"-r", "-i", "60000"}));
    ASSERT_TRUE(watch.waitForOut("\n", bound)) << watch.err();
    // A signal that comes while a poll is being written is seen only after the next wait has run
    // its course; this one is meant for the wait itself.
    ASSERT_TRUE(watch.waitUntilSleeping(bound));
    const auto sent = std::chrono::steady_clock::now();
    for (const int sig : signals) watch.signal(sig);
    const auto result = watch.finish(bound);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "Control-C to exit...\n");
    EXPECT_EQ(result.out, rawLine(5) + "\n");
    EXPECT_EQ(statusRequests, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 5s) << "the wait was not cut short";
  }
}

// Output that can no longer be written ends the watch with status 0: a full device as the file
// or as stdout, a stdout closed from the start, and a reader that goes away.
TEST(VigiloTest, FailedWritesEndTheWatch) {
  scripted_engine engine;
  const auto asFile = runProcess(vigilo(engine.port(), {"-r", "-f", "/dev/full"}));
  EXPECT_EQ(asFile.status, 0);
  EXPECT_EQ(asFile.err, failedWrite);
  for (const char* redirect : {">/dev/full", ">&-"}) {
    const auto asStdout = runProcess(redirected(redirect, vigilo(engine.port(), {"-o", "-r"})));
    EXPECT_EQ(asStdout.status, 0) << redirect;
    EXPECT_EQ(asStdout.err, "Failed to write status to output.\n") << redirect;
  }
  child_process watch(vigilo(engine.port(), {"-r", "-i", "0"}));
  ASSERT_TRUE(watch.waitForOut("\n", bound));
  watch.closeStdout();
  const auto closedPipe = watch.finish(bound);
  EXPECT_EQ(closedPipe.status, 0);
  EXPECT_EQ(closedPipe.err, failedWrite);
}

// Uptime, 15 numbers, five persistence texts, processed, context name, number, receiver, number.
const std::string realRawLine =
    R"(\d+(,\d+){15},0,never,0\.0,0\.0,0\.0,\d+,context-\d+,\d+,receiver-1,\d+)";

// A real engine watched until Control-C, under valgrind where the build has it: every line holds
// the engine's figures, and the whole path, from argument conversion through polls and Control-C to
// the last release, has no memory error or definite leak.
TEST(VigiloTest, WatchesARealEngine) {
  engine_process engine(OVENGINE_BINARY, {"--load", "2000", "--user-status", "region=emea"});
  std::vector<std::string> argv = vigilo(engine.port(), {"-r", "-t", "-a", "-i", "20"});
#ifdef VIGILO_VALGRIND
  argv = underValgrind(VIGILO_VALGRIND, argv);
#endif
  child_process watch(argv);
  ASSERT_TRUE(watch.waitFor(
      [](const std::string& out, const std::string&) {
        return std::count(out.begin(), out.end(), '\n') >= 3;
      },
      120s))
      << watch.err();
  watch.signal(SIGINT);
  const auto result = watch.finish(120s);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Control-C to exit...\n");
  const std::string heading = std::regex_replace(rawHeading, std::regex(R"([()#])"), R"(\$&)");
  EXPECT_TRUE(std::regex_match(result.out,
                               std::regex(heading + ",user-region\n(" + realRawLine + ",emea\n)+")))
      << result.out;
}

TEST(VigiloTest, AnEngineThatDiesEndsTheWatch) {
  engine_process engine(OVENGINE_BINARY, {"--load", "2000"});
  child_process watch(vigilo(engine.port(), {"-r", "-i", "20"}));
  ASSERT_TRUE(watch.waitForOut("\n", bound));
  engine.signal(SIGKILL);
  const auto result = watch.finish(bound);
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(std::regex_match(
      result.err,
      std::regex("Control-C to exit...\nStatus monitor failed: Status request to engine at " +
                 where(engine.port()) +
                 " failed: (Connection refused|GET /status: Connection reset by peer|GET "
                 "/status: connection closed by the engine (before any|in the middle of the) "
                 "response)\n")))
      << result.err;
  EXPECT_TRUE(std::regex_match(result.out, std::regex("(" + realRawLine + "\n)+"))) << result.out;
}

#ifdef VIGILO_OWN_ALLOCATOR
// With memory tracking, the bytes still held when the library shuts down are the same after one
// poll as after hundreds: nothing accumulates per poll.
TEST(VigiloTest, TrackedMemoryDoesNotGrowWithPolls) {
  auto heldAfter = [](int polls, std::vector<std::string> args) {
    fake_engine engine([polls](const std::string& path, int n) {
      return path == "/ping" ? httpReply(200, "OK", "")
             : n <= polls    ? document(n, {{"user-a", "A"}})
                             : httpReply(500, "Internal Server Error", "");
    });
    args.insert(args.end(), {"-v", "-v", "-r", "-a", "-t", "-i", "0"});
    args = vigilo(engine.port(), args);
    args.insert(args.begin(), {"/usr/bin/env", "ORVEX_MEMORY_TRACKING=1"});
    const auto result = runProcess(args);
    std::smatch match;
    const std::regex line(R"(DEBUG memory: (\d+) bytes allocated, (\d+) freed, (\d+) still held)");
    EXPECT_TRUE(std::regex_search(result.err, match, line)) << result.err;
    if (match.empty()) return 0LL;
    EXPECT_EQ(std::stoull(match[1]) - std::stoull(match[2]), std::stoull(match[3]));
    EXPECT_GT(std::stoull(match[1]), 100000ULL * (polls > 1));  // the polls were counted
    return std::stoll(match[3]);
  };
  const long long once = heldAfter(1, {"-o"});
  const long long many = heldAfter(300, {});
  EXPECT_GT(once, 0);
  EXPECT_LT(std::llabs(many - once), 1024) << once << " then " << many;
}
#endif

}  // namespace
