// ov_main and the watch in process, over a link-time fake of the engine client library: the order
// of release, every failure row with its message and status, the log level, the one-time heading,
// the framing of human-readable polls with their event rate, and Control-C during a fetch.
#include "front/ov_main.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "front/settings.h"
#include "ovcommon/EngineException.h"
#include "ovcommon/log.h"
#include "testing/expected_outputs.h"
#include "testing/fake_client.h"
#include "testing/param_name.h"
#include "testing/process.h"

namespace {

using com::orvex::EngineException;
using vigilo::test_support::fake_client;
using vigilo::test_support::fake_fetch;
using vigilo::test_support::fakeClient;
using vigilo::test_support::raw7;
using vigilo::test_support::rawHeading;
using vigilo::test_support::run_result;
using vigilo::test_support::text7;
using calls = std::vector<std::string>;

// Runs ov_main with `args`, with std::cout and std::cerr captured. Each test runs one watch: its
// poll mutex, condition and shutdown handler are never released, by design, so a second watch in
// the same process would look like a leak.
run_result runVigilo(std::vector<std::string> args) {
  vigilo::resetSettings();
  static std::unique_ptr<vigilo::test_support::argument_vector> kept;  // the settings point here
  args.insert(args.begin(), "vigilo");
  kept = std::make_unique<vigilo::test_support::argument_vector>(std::move(args));
  std::ostringstream out, err;
  std::streambuf* savedOut = std::cout.rdbuf(out.rdbuf());
  std::streambuf* savedErr = std::cerr.rdbuf(err.rdbuf());
  const int status = ov_main(kept->argc(), kept->argv());
  std::cout.rdbuf(savedOut);
  std::cerr.rdbuf(savedErr);
  return {out.str(), err.str(), status};
}

fake_fetch good(std::uint64_t processed,
                std::vector<std::pair<std::string, std::string>> users = {}) {
  fake_fetch fetch{vigilo::test_support::snapshot7(processed)};
  for (auto& [key, value] : users) fetch.snapshot->pairs.emplace_back(key, value);
  return fetch;
}

fake_fetch failing(const std::string& text) { return {std::nullopt, text}; }

std::function<void()> throwing(const char* text) {
  return [text] { throw EngineException(text); };
}

class OvMainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeClient() = fake_client{};
    com::orvex::setLogLevel(com::orvex::LogLevel::warning);
  }
  // Every snapshot handed out was deleted exactly once.
  void TearDown() override {
    EXPECT_EQ(fakeClient().statusLog.deletes, fakeClient().snapshotsHandedOut);
  }
};

const calls fullRun = {"init vigilo", "connect localhost:15903", "fetch", "disconnect", "shutdown"};

TEST_F(OvMainTest, ReleasesFileThenWatcherThenConnectionThenLibrary) {
  const std::string path = ::testing::TempDir() + "/vigilo_release_order.csv";
  fakeClient().fetches = {good(42)};
  std::string fileAtDisconnect, errAtDisconnect;
  fakeClient().onDisconnect = [&] {
    std::ifstream file(path);
    fileAtDisconnect.assign(std::istreambuf_iterator<char>(file), {});
    errAtDisconnect = static_cast<std::stringbuf*>(std::cerr.rdbuf())->str();
  };
  const auto result = runVigilo({"-v", "-o", "-r", "-f", path});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "vigilo starting...\nvigilo done\n");
  EXPECT_EQ(fakeClient().calls, fullRun);
  EXPECT_EQ(fileAtDisconnect, raw7("42") + "\n");
  EXPECT_EQ(errAtDisconnect, result.err);
  std::remove(path.c_str());
}

struct level_case {
  const char* name;
  std::vector<std::string> args;
  bool info, debug;
};

class LogLevelTest : public OvMainTest, public ::testing::WithParamInterface<level_case> {};

TEST_P(LogLevelTest, IsSetBeforeTheLibraryStarts) {
  fakeClient().fetches = {good(0)};
  bool info = false, debug = false;
  fakeClient().onInit = [&] {
    info = com::orvex::logEnabled(com::orvex::LogLevel::info);
    debug = com::orvex::logEnabled(com::orvex::LogLevel::debug);
  };
  runVigilo(GetParam().args);
  EXPECT_EQ(info, GetParam().info);
  EXPECT_EQ(debug, GetParam().debug);
}

INSTANTIATE_TEST_SUITE_P(Verbosity, LogLevelTest,
                         ::testing::Values(level_case{"quiet", {"-o"}, false, false},
                                           level_case{"verbose", {"-o", "-v"}, true, false},
                                           level_case{"debug", {"-o", "-v", "-v"}, true, true}),
                         vigilo::test_support::paramName);

struct failure_row {
  const char* name;
  std::vector<std::string> args;
  void (*script)(fake_client&);
  int status;
  std::string err;
  calls seen;
  std::string out = "";
};

class FailureTest : public OvMainTest, public ::testing::WithParamInterface<failure_row> {};

TEST_P(FailureTest, ReportsAndReleasesWhatWasAcquired) {
  fakeClient().fetches = {good(0)};
  GetParam().script(fakeClient());
  const auto result = runVigilo(GetParam().args);
  EXPECT_EQ(result.status, GetParam().status);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(result.out, GetParam().out);
  EXPECT_EQ(fakeClient().calls, GetParam().seen);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Rows, FailureTest,
    ::testing::Values(
        failure_row{"init_throws", {"-o"},
                    [](fake_client& f) { f.onInit = throwing("no licence"); },
                    1, "Failed to initialise engine library: no licence\n", {"init vigilo"}},
        failure_row{"init_throws_other", {"-o"},
                    [](fake_client& f) { f.onInit = [] { throw std::runtime_error("x"); }; },
                    1, "Failed to initialise engine library: Caught non-engine exception in main()\n",
                    {"init vigilo"}},
        failure_row{"connect_throws", {"-o", "-p", "8080", "-n", "engine"},
                    [](fake_client& f) { f.onConnect = throwing("Connection refused"); },
                    1, "Failed to connect to engine: Connection refused\n",
                    {"init vigilo", "connect engine:8080", "shutdown"}},
        failure_row{"connect_returns_null", {"-o"},
                    [](fake_client& f) { f.connectReturnsNull = true; },
                    1, "Failed to connect to engine: Failed to connect to engine\n",
                    {"init vigilo", "connect localhost:15903", "shutdown"}},
        failure_row{"file_in_missing_directory", {"-o", "-f", "/nonexistent-dir/out.txt"},
                    [](fake_client&) {},
                    2, "Failed to open file: /nonexistent-dir/out.txt\n",
                    {"init vigilo", "connect localhost:15903", "disconnect", "shutdown"}},
        failure_row{"fetch_fails", {"-o", "-v"},
                    [](fake_client& f) { f.fetches = {failing("engine said no")}; },
                    2, "vigilo starting...\nvigilo done\nStatus monitor failed: engine said no\n",
                    fullRun},
        failure_row{"heading_fetch_fails_writes_nothing", {"-o", "-r", "-t"},
                    [](fake_client& f) { f.fetches = {failing("gone")}; },
                    2, "Status monitor failed: gone\n", fullRun},
        failure_row{"later_fetch_fails", {"-r", "-i", "0"},
                    [](fake_client& f) { f.fetches = {good(5), failing("lost")}; },
                    2, "Control-C to exit...\nStatus monitor failed: lost\n",
                    {"init vigilo", "connect localhost:15903", "fetch", "fetch", "disconnect",
                     "shutdown"},
                    raw7("5") + "\n"},
        failure_row{"disconnect_throws", {"-o", "-r"},
                    [](fake_client& f) { f.onDisconnect = throwing("socket stuck"); },
                    0, "Failed to disconnect from engine: socket stuck\n",
                    {"init vigilo", "connect localhost:15903", "fetch", "disconnect"},
                    raw7("0") + "\n"},
        failure_row{"shutdown_throws_other", {"-o", "-r"},
                    [](fake_client& f) { f.onShutdown = [] { throw std::logic_error("x"); }; },
                    0, "Failed to shutdown engine library: Caught non-engine exception in main()\n",
                    fullRun, raw7("0") + "\n"},
        failure_row{"fetch_and_disconnect_fail", {"-o"},
                    [](fake_client& f) {
                      f.fetches = {failing("boom")};
                      f.onDisconnect = throwing("stuck");
                    },
                    2, "Status monitor failed: boom\nFailed to disconnect from engine: stuck\n",
                    {"init vigilo", "connect localhost:15903", "fetch", "disconnect"}}),
    vigilo::test_support::paramName);
// clang-format on

// The heading comes from a snapshot of its own and is never repeated; the values lines follow
// the user columns of their own snapshots.
TEST_F(OvMainTest, HeadingIsWrittenOnce) {
  fakeClient().fetches = {good(0, {{"user-a", "A0"}}), good(1, {{"user-a", "A1"}}),
                          good(2, {{"user-a", "A2"}, {"my-user-b", "B2"}}), failing("end")};
  const auto result = runVigilo({"-r", "-t", "-a", "-i", "0"});
  EXPECT_EQ(result.out, rawHeading + ",user-a\n" + raw7("1") + ",A1\n" + raw7("2") + ",A2,B2\n");
  EXPECT_EQ(result.status, 2);
}

TEST_F(OvMainTest, HeadingNeedsRawMode) {
  fakeClient().fetches = {good(9)};
  EXPECT_EQ(runVigilo({"-t", "-o"}).out, text7("9") + "\nEvent rate over last interval: -\n\n");
  EXPECT_EQ(fakeClient().calls, fullRun);
}

// A human-readable poll is its text, the user lines, an empty line, the rate line and another
// empty line; with an interval of 0 there is never a rate.
TEST_F(OvMainTest, HumanReadablePollsWithoutInterval) {
  fakeClient().fetches = {good(0, {{"user-x", "5"}}), good(10), failing("end")};
  EXPECT_EQ(runVigilo({"-a", "-i", "0"}).out,
            text7("0") +
                "user-x:                         5\n\nEvent rate over last interval: -\n\n" +
                text7("10") + "\nEvent rate over last interval: -\n\n");
}

// The rate is taken over the configured interval (1000 events in 50 ms: 20000.00), not over the
// time that passed; a count that went backwards wraps around; the first poll has none.
TEST_F(OvMainTest, EventRateOverTheConfiguredInterval) {
  fakeClient().fetches = {good(0), good(1000), good(500), failing("end")};
  EXPECT_EQ(runVigilo({"-i", "50"}).out,
            text7("0") + "\nEvent rate over last interval: -\n\n" + text7("1000") +
                "\nEvent rate over last interval: 20000.00 ev/s\n\n" + text7("500") +
                "\nEvent rate over last interval: 368934881474191032320.00 ev/s\n\n");
}

// Control-C while a poll is being fetched: that poll is still written, the wait after it runs to
// its deadline, and no further poll is made. Pressing it three times changes nothing.
class ControlCTest : public OvMainTest, public ::testing::WithParamInterface<int> {};

TEST_P(ControlCTest, DuringAFetchEndsAfterTheNextWait) {
  fake_fetch second = good(2);
  second.before = [presses = GetParam()] {
    for (int i = 0; i < presses; ++i) raise(SIGINT);
  };
  fakeClient().fetches = {good(1), second, good(3)};
  const auto result = runVigilo({"-r", "-i", "200"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Control-C to exit...\n");
  EXPECT_EQ(result.out, raw7("1") + "\n" + raw7("2") + "\n");
}

INSTANTIATE_TEST_SUITE_P(Presses, ControlCTest, ::testing::Values(1, 3));

}  // namespace
