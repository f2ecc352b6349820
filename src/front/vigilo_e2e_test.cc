// The real vigilo binary against a real engine process and against a scripted engine on
// loopback: whole outputs, exit statuses, real signals, files, pipes and /dev/full.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "status/status_catalogue.h"
#include "testing/engine_process.h"
#include "testing/expected_outputs.h"
#include "testing/fake_engine.h"
#include "testing/param_name.h"
#include "testing/process.h"

namespace {

using namespace std::chrono_literals;
using vigilo::test_support::child_process;
using vigilo::test_support::fake_engine;
using vigilo::test_support::fake_reply;
using vigilo::test_support::httpReply;
using vigilo::test_support::raw7;
using vigilo::test_support::rawHeading;
using vigilo::test_support::runProcess;
using vigilo::test_support::statusReply;
using vigilo::test_support::text7;
using pairs = std::vector<std::pair<std::string, std::string>>;

const auto bound = 20s;

// A status document with 7 for every number, "t" for every text, the given processed count and
// the user pairs after the catalogue.
fake_reply catalogueDocument(std::uint64_t processed, const pairs& users = {}) {
  pairs document;
  for (const auto& key : com::orvex::engine::statusCatalogue) {
    std::string value = key.kind == com::orvex::engine::value_kind::text ? "t" : "7";
    if (&key == &com::orvex::engine::processedRow) value = std::to_string(processed);
    document.emplace_back(key.key, value);
  }
  document.insert(document.end(), users.begin(), users.end());
  return statusReply(document);
}

// Answers /ping, then each status request with `status(n)`, n counted from 0.
fake_engine::script engineScript(std::function<fake_reply(int)> status) {
  auto statusRequests = std::make_shared<std::atomic<int>>(0);
  return [status, statusRequests](const std::string& path, int) {
    if (path == "/ping") return httpReply(200, "OK", "pong");
    return status((*statusRequests)++);
  };
}

std::vector<std::string> vigilo(unsigned short port, std::vector<std::string> args) {
  std::vector<std::string> argv = {VIGILO_BINARY, "-n", "127.0.0.1", "-p", std::to_string(port)};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

std::string where(unsigned short port) { return "127.0.0.1:" + std::to_string(port); }

const pairs users = {{"user-a", "A"}, {"x-user-b", "B,b"}, {"numContexts", "9"}};

struct mode_case {
  const char* name;
  std::vector<std::string> args;
  std::string out;
};

class OnceTest : public ::testing::TestWithParam<mode_case> {};

TEST_P(OnceTest, WritesOnePollInItsMode) {
  fake_engine engine(engineScript([](int) { return catalogueDocument(100, users); }));
  const auto result = runProcess(vigilo(engine.port(), GetParam().args), {}, bound);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, OnceTest,
    ::testing::Values(
        mode_case{"human", {"-o"}, text7("100") + "\nEvent rate over last interval: -\n\n"},
        mode_case{"human_title_ignored",
                  {"-o", "-t"},
                  text7("100") + "\nEvent rate over last interval: -\n\n"},
        mode_case{"human_all",
                  {"-o", "-a"},
                  text7("100") + "user-a:                         A\n"
                                 "x-user-b:                       B,b\n"
                                 "\nEvent rate over last interval: -\n\n"},
        mode_case{"raw", {"-o", "-r"}, raw7("100") + "\n"},
        mode_case{"raw_all", {"-o", "-r", "-a"}, raw7("100") + ",A,B,b\n"},
        mode_case{"raw_title", {"-o", "-r", "-t"}, rawHeading + "\n" + raw7("100") + "\n"},
        mode_case{"raw_title_all",
                  {"--once", "--raw", "--title", "--all"},
                  rawHeading + ",user-a,x-user-b\n" + raw7("100") + ",A,B,b\n"}),
    vigilo::test_support::param_name());

std::string serverError(unsigned short port) {
  return "Status monitor failed: Status request to engine at " + where(port) +
         " failed: GET /status answered 500 Internal Server Error\n";
}

TEST(VigiloTest, RatesFollowTheProcessedCount) {
  fake_engine engine(engineScript([](int n) {
    return n < 3 ? catalogueDocument(1000 * n) : httpReply(500, "Internal Server Error", "");
  }));
  const auto result = runProcess(vigilo(engine.port(), {"-i", "100"}), {}, bound);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Control-C to exit...\n" + serverError(engine.port()));
  EXPECT_EQ(result.out, text7("0") + "\nEvent rate over last interval: -\n\n" +  //
                            text7("1000") + "\nEvent rate over last interval: 10000.00 ev/s\n\n" +
                            text7("2000") + "\nEvent rate over last interval: 10000.00 ev/s\n\n");
}

TEST(VigiloTest, HeadingOnceWhileUserColumnsGrow) {
  fake_engine engine(engineScript([](int n) {
    pairs grown;
    for (int i = 0; i < n; ++i)
      grown.emplace_back("user-" + std::to_string(i), "v" + std::to_string(i));
    return n < 4 ? catalogueDocument(n, grown) : httpReply(500, "Internal Server Error", "");
  }));
  const auto result = runProcess(vigilo(engine.port(), {"-r", "-t", "-a", "-i", "0"}), {}, bound);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Control-C to exit...\n" + serverError(engine.port()));
  // The heading came from the first snapshot, which had no user values.
  EXPECT_EQ(result.out, rawHeading + "\n" + raw7("1") + ",v0\n" + raw7("2") + ",v0,v1\n" +
                            raw7("3") + ",v0,v1,v2\n");
}

// A stop signal during the wait ends the watch at once, without another poll.
TEST(VigiloTest, StopSignalDuringAWaitEndsAtOnce) {
  for (const std::vector<int>& signals : {std::vector<int>{SIGINT}, std::vector<int>{SIGTERM},
                                          std::vector<int>{SIGINT, SIGINT, SIGINT}}) {
    SCOPED_TRACE(strsignal(signals[0]) + std::string(" x") + std::to_string(signals.size()));
    std::atomic<int> statusRequests{0};
    fake_engine engine([&](const std::string& path, int) {
      if (path == "/ping") return httpReply(200, "OK", "");
      ++statusRequests;
      return catalogueDocument(5);
    });
    child_process watch(vigilo(engine.port(), {"-r", "-i", "60000"}));
    ASSERT_TRUE(watch.waitForOut("\n", bound)) << watch.err();
    // A signal that comes while the poll is still being written is seen only after the next
    // wait has run its course; this one is meant for the wait itself.
    ASSERT_TRUE(watch.waitUntilSleeping(bound));
    const auto sent = std::chrono::steady_clock::now();
    for (const int sig : signals) watch.signal(sig);
    const auto result = watch.finish(bound);
    const auto exitMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - sent)
                            .count();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "Control-C to exit...\n");
    EXPECT_EQ(result.out, raw7("5") + "\n");
    EXPECT_EQ(statusRequests, 1);
    EXPECT_LT(exitMs, 5000) << "the wait was not cut short";
    RecordProperty("exit_ms", static_cast<int>(exitMs));
  }
}

TEST(VigiloTest, FileIsTruncatedAndHoldsThePoll) {
  const std::string path = ::testing::TempDir() + "/vigilo_e2e_out.csv";
  std::ofstream(path) << "an older and much longer content that must go\nsecond line\n";
  fake_engine engine(engineScript([](int) { return catalogueDocument(3); }));
  const auto result = runProcess(vigilo(engine.port(), {"-o", "-r", "-f", path}), {}, bound);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  std::ifstream file(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), raw7("3") + "\n");
  std::remove(path.c_str());
}

TEST(VigiloTest, FileInAMissingDirectory) {
  fake_engine engine(engineScript([](int) { return catalogueDocument(3); }));
  const auto result =
      runProcess(vigilo(engine.port(), {"-o", "-f", "/nonexistent-vigilo/out"}), {}, bound);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "Failed to open file: /nonexistent-vigilo/out\n");
}

TEST(VigiloTest, FullDeviceAsFileAndAsStdout) {
  fake_engine engine(engineScript([](int) { return catalogueDocument(3); }));
  const auto asFile = runProcess(vigilo(engine.port(), {"-r", "-f", "/dev/full"}), {}, bound);
  EXPECT_EQ(asFile.status, 0);
  EXPECT_EQ(asFile.err, "Control-C to exit...\nFailed to write status to output.\n");
  const auto asStdout = runProcess(vigilo(engine.port(), {"-o"}), {{}, "/dev/full"}, bound);
  EXPECT_EQ(asStdout.status, 0);
  EXPECT_EQ(asStdout.err, "Failed to write status to output.\n");
}

TEST(VigiloTest, ReaderThatClosesThePipe) {
  fake_engine engine(engineScript([](int) { return catalogueDocument(3); }));
  child_process watch(vigilo(engine.port(), {"-r", "-i", "0"}));
  ASSERT_TRUE(watch.waitForOut("\n", bound));
  watch.closeStdout();
  const auto result = watch.finish(bound);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Control-C to exit...\nFailed to write status to output.\n");
}

TEST(VigiloTest, NoEngineListening) {
  const unsigned short port = vigilo::test_support::closedLoopbackPort();
  const auto result = runProcess(vigilo(port, {"-o"}), {}, bound);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "Failed to connect to engine: Could not connect to engine at " +
                            where(port) + ": Connection refused\n");
}

TEST(VigiloTest, VerboseAnnouncesStartAndEndAmongTheLibraryLog) {
  fake_engine engine(engineScript([](int) { return catalogueDocument(3); }));
  const auto result = runProcess(vigilo(engine.port(), {"-o", "-r", "-v"}), {}, bound);
  EXPECT_EQ(result.status, 0);
  const std::string err = std::regex_replace(
      result.err, std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )", std::regex::multiline),
      "T ");
  EXPECT_EQ(err,
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

// The real engine: a started ovengine on an ephemeral port.
struct real_engine {
  explicit real_engine(const std::vector<std::string>& extra = {})
      : started(OVENGINE_BINARY, extra), port(started.port()) {}
  vigilo::test_support::engine_process started;
  unsigned short port;
};

// Uptime, 15 numbers, five persistence texts, processed, context name, number, receiver,
// number, then the user values.
const std::string realRawLine =
    R"(\d+(,\d+){15},0,never,0\.0,0\.0,0\.0,\d+,context-\d+,\d+,receiver-1,\d+)";

TEST(VigiloTest, WatchesARealEngine) {
  real_engine engine({"--load", "2000", "--user-status", "region=emea"});
  const auto result = runProcess(vigilo(engine.port, {"-o", "-r", "-t", "-a"}), {}, bound);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(std::regex_match(
      result.out, std::regex(std::regex_replace(rawHeading, std::regex(R"([()#])"), R"(\$&)") +
                             ",user-region\n" + realRawLine + ",emea\n")))
      << result.out;
}

TEST(VigiloTest, EngineDyingMidWatch) {
  real_engine engine;
  child_process watch(vigilo(engine.port, {"-r", "-i", "20"}));
  ASSERT_TRUE(watch.waitForOut("\n", bound));
  engine.started.process().signal(SIGKILL);
  const auto result = watch.finish(bound);
  EXPECT_EQ(result.status, 2);
  const std::string prefix =
      "Control-C to exit...\nStatus monitor failed: Status request to "
      "engine at " +
      where(engine.port) + " failed: ";
  const std::regex causes(
      "(Connection refused|GET /status: Connection reset by peer|GET /status: connection closed "
      "by the engine (before any|in the middle of the) response)\n");
  ASSERT_EQ(result.err.substr(0, prefix.size()), prefix) << result.err;
  EXPECT_TRUE(std::regex_match(result.err.substr(prefix.size()), causes)) << result.err;
  EXPECT_TRUE(std::regex_match(result.out, std::regex("(" + realRawLine + "\n)+"))) << result.out;
}

#ifdef VIGILO_OWN_ALLOCATOR
// With memory tracking, the bytes still held when the library shuts down are the same after one
// poll as after hundreds: nothing accumulates per poll.
TEST(VigiloTest, TrackedMemoryDoesNotGrowWithPolls) {
  auto heldAfter = [](int polls, std::vector<std::string> args) {
    fake_engine engine(engineScript([polls](int n) {
      return n < polls ? catalogueDocument(n, users) : httpReply(500, "Internal Server Error", "");
    }));
    args.insert(args.end(), {"-v", "-v", "-r", "-a", "-t", "-i", "0"});
    const auto result =
        runProcess(vigilo(engine.port(), args), {{"ORVEX_MEMORY_TRACKING=1"}, ""}, bound);
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
  real_engine engine({"--load", "1000", "--user-status", "k=v"});
  const std::vector<std::string> valgrind = {VIGILO_VALGRIND, "-q", "--error-exitcode=99",
                                             "--leak-check=full",
                                             "--errors-for-leak-kinds=definite"};
  std::vector<std::string> once = valgrind;
  for (const auto& a : vigilo(engine.port, {"-o", "-a"})) once.push_back(a);
  const auto human = runProcess(once, {}, 120s);
  EXPECT_EQ(human.status, 0);
  EXPECT_EQ(human.err, "");

  std::vector<std::string> watching = valgrind;
  for (const auto& a : vigilo(engine.port, {"-r", "-a", "-t", "-i", "20"})) watching.push_back(a);
  child_process watch(watching);
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
