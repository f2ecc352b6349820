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

#include "status/status_catalogue.h"
#include "testing/expected_outputs.h"
#include "testing/fake_engine.h"
#include "testing/process.h"

namespace {

using namespace std::chrono_literals;
using vigilo::test_support::child_process;
using vigilo::test_support::engine_process;
using vigilo::test_support::fake_engine;
using vigilo::test_support::fake_reply;
using vigilo::test_support::httpReply;
using vigilo::test_support::raw7;
using vigilo::test_support::rawHeading;
using vigilo::test_support::runProcess;
using vigilo::test_support::text7;
using pairs = std::vector<std::pair<std::string, std::string>>;

const auto bound = 20s;

// The document behind the expected outputs: 7 for every number, "t" for every text, the given
// processed count, then the user pairs.
fake_reply document7(std::uint64_t processed, const pairs& users = {}) {
  pairs document;
  for (const auto& row : com::orvex::engine::statusCatalogue) {
    document.emplace_back(row.key, row.kind == com::orvex::engine::value_kind::text ? "t" : "7");
  }
  document[&com::orvex::engine::processedRow - com::orvex::engine::statusCatalogue].second =
      std::to_string(processed);
  document.insert(document.end(), users.begin(), users.end());
  return vigilo::test_support::statusReply(document);
}

// A scripted engine that answers /ping and every status request with `reply`.
struct scripted_engine : fake_engine {
  explicit scripted_engine(fake_reply reply = document7(3))
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

TEST(VigiloTest, OnePollInEachFormReachesTheOutput) {
  scripted_engine engine(
      document7(100, {{"user-a", "A"}, {"x-user-b", "B,b"}, {"numContexts", "9"}}));
  const auto human = runProcess(vigilo(engine.port(), {"-o", "-a"}));
  EXPECT_EQ(human.status, 0);
  EXPECT_EQ(human.err, "");
  EXPECT_EQ(human.out, text7("100") +
                           "user-a:                         A\n"
                           "x-user-b:                       B,b\n"
                           "\nEvent rate over last interval: -\n\n");
  const auto raw = runProcess(vigilo(engine.port(), {"--once", "--raw", "--title", "--all"}));
  EXPECT_EQ(raw.status, 0);
  EXPECT_EQ(raw.err, "");
  EXPECT_EQ(raw.out, rawHeading + ",user-a,x-user-b\n" + raw7("100") + ",A,B,b\n");
}

// A stop signal during the wait ends the watch at once, without another poll.
TEST(VigiloTest, StopSignalDuringAWaitEndsAtOnce) {
  for (const std::vector<int>& signals : {std::vector<int>{SIGINT}, std::vector<int>{SIGTERM},
                                          std::vector<int>{SIGINT, SIGINT, SIGINT}}) {
    SCOPED_TRACE(strsignal(signals[0]) + std::string(" x") + std::to_string(signals.size()));
    std::atomic<int> statusRequests{0};
    fake_engine engine([&](const std::string& path, int) {
      return path == "/ping" ? httpReply(200, "OK", "") : (++statusRequests, document7(5));
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
    EXPECT_EQ(result.out, raw7("5") + "\n");
    EXPECT_EQ(statusRequests, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 5s) << "the wait was not cut short";
  }
}

TEST(VigiloTest, FileIsTruncatedAndHoldsThePoll) {
  // Its own file: the tracking run of this test may run beside it.
  const std::string path = ::testing::TempDir() + "/vigilo_e2e_" + std::to_string(getpid());
  std::ofstream(path) << "an older and much longer content that must go\nsecond line\n";
  scripted_engine engine;
  const auto result = runProcess(vigilo(engine.port(), {"-o", "-r", "-f", path}));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
  std::ifstream file(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), raw7("3") + "\n");
  std::remove(path.c_str());
}

// Output that can no longer be written ends the watch with status 0: a full device as the file
// or as stdout, a stdout closed from the start, and a reader that goes away.
TEST(VigiloTest, FailedWritesEndTheWatch) {
  scripted_engine engine;
  const auto asFile = runProcess(vigilo(engine.port(), {"-r", "-f", "/dev/full"}));
  EXPECT_EQ(asFile.status, 0);
  EXPECT_EQ(asFile.err, failedWrite);
  for (const char* stdoutPath : {"/dev/full", "-"}) {
    const auto asStdout = runProcess(vigilo(engine.port(), {"-o", "-r"}), {{}, stdoutPath});
    EXPECT_EQ(asStdout.status, 0) << stdoutPath;
    EXPECT_EQ(asStdout.err, "Failed to write status to output.\n") << stdoutPath;
  }
  child_process watch(vigilo(engine.port(), {"-r", "-i", "0"}));
  ASSERT_TRUE(watch.waitForOut("\n", bound));
  watch.closeStdout();
  const auto closedPipe = watch.finish(bound);
  EXPECT_EQ(closedPipe.status, 0);
  EXPECT_EQ(closedPipe.err, failedWrite);
}

TEST(VigiloTest, NoEngineListening) {
  const unsigned short port = vigilo::test_support::closedLoopbackPort();
  const auto result = runProcess(vigilo(port, {"-o"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "Failed to connect to engine: Could not connect to engine at " +
                            where(port) + ": Connection refused\n");
}

TEST(VigiloTest, VerboseAnnouncesStartAndEndAmongTheLibraryLog) {
  scripted_engine engine;
  const auto result = runProcess(vigilo(engine.port(), {"-o", "-r", "-v"}));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(
      std::regex_replace(
          result.err,
          std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )", std::regex::multiline), "T "),
      "T INFO  engine client initialised for vigilo\n"
      "T INFO  connected to engine at " +
          where(engine.port()) +
          "\n"
          "vigilo starting...\n"
          "vigilo done\n"
          "T INFO  disconnected from engine at " +
          where(engine.port()) +
          "\n"
          "T INFO  engine client shut down\n");
}

// Uptime, 15 numbers, five persistence texts, processed, context name, number, receiver, number.
const std::string realRawLine =
    R"(\d+(,\d+){15},0,never,0\.0,0\.0,0\.0,\d+,context-\d+,\d+,receiver-1,\d+)";

TEST(VigiloTest, WatchesARealEngineUntilItDies) {
  engine_process engine(OVENGINE_BINARY, {"--load", "2000", "--user-status", "region=emea"});
  const auto once = runProcess(vigilo(engine.port(), {"-o", "-r", "-t", "-a"}));
  EXPECT_EQ(once.status, 0);
  EXPECT_EQ(once.err, "");
  const std::string heading = std::regex_replace(rawHeading, std::regex(R"([()#])"), R"(\$&)");
  EXPECT_TRUE(
      std::regex_match(once.out, std::regex(heading + ",user-region\n" + realRawLine + ",emea\n")))
      << once.out;

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
             : n <= polls    ? document7(n, {{"user-a", "A"}})
                             : httpReply(500, "Internal Server Error", "");
    });
    args.insert(args.end(), {"-v", "-v", "-r", "-a", "-t", "-i", "0"});
    const auto result = runProcess(vigilo(engine.port(), args), {{"ORVEX_MEMORY_TRACKING=1"}});
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

#ifdef VIGILO_VALGRIND
// The whole path, from argument conversion through polls and Control-C to the last release,
// without a memory error or a definite leak (valgrind's -q prints nothing when clean).
TEST(VigiloTest, CleanUnderValgrind) {
  engine_process engine(OVENGINE_BINARY, {"--load", "1000", "--user-status", "k=v"});
  std::vector<std::string> argv = vigilo(engine.port(), {"-r", "-a", "-t", "-i", "20"});
  argv.insert(argv.begin(), {VIGILO_VALGRIND, "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite"});
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
}
#endif

}  // namespace
