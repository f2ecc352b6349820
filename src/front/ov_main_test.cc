// The watch as ov_main runs it, in process, over a link-time fake of the engine client library:
// the order of release, every failure row with its message and status, the one-time heading,
// the event rate, and Control-C.
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
using vigilo::test_support::fake_status_script;
using vigilo::test_support::fakeClient;
using vigilo::test_support::raw7;
using vigilo::test_support::rawHeading;
using vigilo::test_support::text7;
using vigilo::test_support::uniformSnapshot;

struct run_result {
  int status;
  std::string out;
  std::string err;
};

// Runs ov_main with `args` after resetting the settings, with std::cout and std::cerr captured
// (or std::cout replaced by `out` when given).
run_result runVigilo(std::vector<std::string> args, std::streambuf* out = nullptr) {
  vigilo::resetSettings();
  static std::unique_ptr<vigilo::test_support::argument_vector> kept;  // the settings point into it
  args.insert(args.begin(), "vigilo");
  kept = std::make_unique<vigilo::test_support::argument_vector>(std::move(args));
  std::ostringstream captureOut, captureErr;
  std::streambuf* savedOut = std::cout.rdbuf(out != nullptr ? out : captureOut.rdbuf());
  std::streambuf* savedErr = std::cerr.rdbuf(captureErr.rdbuf());
  const int status = ov_main(kept->argc(), kept->argv());
  std::cout.rdbuf(savedOut);
  std::cerr.rdbuf(savedErr);
  std::cout.clear();
  return {status, captureOut.str(), captureErr.str()};
}

fake_status_script snapshot(std::uint64_t processed,
                            std::vector<std::pair<std::string, std::string>> users = {}) {
  fake_status_script s = uniformSnapshot(7, "t");
  s.integers["numProcessed"] = processed;
  for (auto& [k, v] : users) s.pairs.emplace_back(k, v);
  return s;
}

fake_fetch good(std::uint64_t processed = 0,
                std::vector<std::pair<std::string, std::string>> users = {}) {
  return {snapshot(processed, std::move(users)), ""};
}

fake_fetch failing(const std::string& text) { return {std::nullopt, text}; }

class WatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeClient() = fake_client{};
    com::orvex::setLogLevel(com::orvex::LogLevel::warning);
  }
  void TearDown() override {
    // Every snapshot handed out was deleted exactly once.
    EXPECT_EQ(fakeClient().statusLog.deletes, fakeClient().snapshotsHandedOut);
  }
};

TEST_F(WatchTest, ReleasesFileThenWatcherThenConnectionThenLibrary) {
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
  EXPECT_EQ(fakeClient().calls, (std::vector<std::string>{"init vigilo", "connect localhost:15903",
                                                          "fetch", "disconnect", "shutdown"}));
  // The file was complete and closed, and the watcher gone, before the connection went.
  EXPECT_EQ(fileAtDisconnect, raw7("42") + "\n");
  EXPECT_EQ(errAtDisconnect, "vigilo starting...\nvigilo done\n");
  EXPECT_EQ(fakeClient().statusLog.deletes, 1);
  std::remove(path.c_str());
}

// Each test runs the watch once: the poll mutex, condition and shutdown handler of a watch are
// never released, by design, so a second watch in the same process would look like a leak.
struct level_case {
  const char* name;
  std::vector<std::string> args;
  bool info, debug;
};

class LogLevelTest : public WatchTest, public ::testing::WithParamInterface<level_case> {};

TEST_P(LogLevelTest, IsSetBeforeTheLibraryStarts) {
  fakeClient().fetches = {good()};
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
                         vigilo::test_support::param_name());

struct failure_row {
  const char* name;
  std::vector<std::string> args;
  std::function<void(fake_client&)> script;
  int status;
  std::string err;
  std::vector<std::string> calls;
  std::string out = "";
};

class WatchFailureTest : public WatchTest, public ::testing::WithParamInterface<failure_row> {};

TEST_P(WatchFailureTest, ReportsAndReleasesWhatWasAcquired) {
  const failure_row& row = GetParam();
  fakeClient().fetches = {good()};
  row.script(fakeClient());
  const auto result = runVigilo(row.args);
  EXPECT_EQ(result.status, row.status);
  EXPECT_EQ(result.err, row.err);
  EXPECT_EQ(result.out, row.out);
  EXPECT_EQ(fakeClient().calls, row.calls);
}

const std::vector<std::string> fullRun = {"init vigilo", "connect localhost:15903", "fetch",
                                          "disconnect", "shutdown"};

INSTANTIATE_TEST_SUITE_P(
    Rows, WatchFailureTest,
    ::testing::Values(
        failure_row{"init_throws",
                    {"-o"},
                    [](fake_client& f) { f.onInit = [] { throw EngineException("no licence"); }; },
                    1,
                    "Failed to initialise engine library: no licence\n",
                    {"init vigilo"}},
        failure_row{"init_throws_other",
                    {"-o"},
                    [](fake_client& f) { f.onInit = [] { throw std::runtime_error("x"); }; },
                    1,
                    "Failed to initialise engine library: Caught non-engine exception in main()\n",
                    {"init vigilo"}},
        failure_row{"connect_throws",
                    {"-o", "-p", "8080", "-n", "engine"},
                    [](fake_client& f) {
                      f.onConnect = [] { throw EngineException("Connection refused"); };
                    },
                    1,
                    "Failed to connect to engine: Connection refused\n",
                    {"init vigilo", "connect engine:8080", "shutdown"}},
        failure_row{"connect_returns_null",
                    {"-o"},
                    [](fake_client& f) { f.connectReturnsNull = true; },
                    1,
                    "Failed to connect to engine: Failed to connect to engine\n",
                    {"init vigilo", "connect localhost:15903", "shutdown"}},
        failure_row{"connect_throws_other",
                    {"-o"},
                    [](fake_client& f) { f.onConnect = [] { throw 42; }; },
                    1,
                    "Failed to connect to engine: Caught non-engine exception in main()\n",
                    {"init vigilo", "connect localhost:15903", "shutdown"}},
        failure_row{"file_in_missing_directory",
                    {"-o", "-f", "/nonexistent-dir/out.txt"},
                    [](fake_client&) {},
                    2,
                    "Failed to open file: /nonexistent-dir/out.txt\n",
                    {"init vigilo", "connect localhost:15903", "disconnect", "shutdown"}},
        failure_row{"fetch_fails",
                    {"-o", "-v"},
                    [](fake_client& f) { f.fetches = {failing("engine said no")}; },
                    2,
                    "vigilo starting...\nvigilo done\nStatus monitor failed: engine said no\n",
                    fullRun},
        failure_row{"heading_fetch_fails_writes_nothing",
                    {"-o", "-r", "-t"},
                    [](fake_client& f) { f.fetches = {failing("gone")}; },
                    2,
                    "Status monitor failed: gone\n",
                    fullRun},
        failure_row{
            "later_fetch_fails",
            {"-r", "-i", "0"},
            [](fake_client& f) {
              f.fetches = {good(5), failing("lost")};
            },
            2,
            "Control-C to exit...\nStatus monitor failed: lost\n",
            {"init vigilo", "connect localhost:15903", "fetch", "fetch", "disconnect", "shutdown"},
            raw7("5") + "\n"},
        failure_row{
            "disconnect_throws",
            {"-o", "-r"},
            [](fake_client& f) { f.onDisconnect = [] { throw EngineException("socket stuck"); }; },
            0,
            "Failed to disconnect from engine: socket stuck\n",
            {"init vigilo", "connect localhost:15903", "fetch", "disconnect"},
            raw7("0") + "\n"},
        failure_row{"shutdown_throws",
                    {"-o", "-r"},
                    [](fake_client& f) { f.onShutdown = [] { throw std::logic_error("x"); }; },
                    0,
                    "Failed to shutdown engine library: Caught non-engine exception in main()\n",
                    fullRun,
                    raw7("0") + "\n"},
        failure_row{"fetch_and_disconnect_fail",
                    {"-o"},
                    [](fake_client& f) {
                      f.fetches = {failing("boom")};
                      f.onDisconnect = [] { throw EngineException("stuck"); };
                    },
                    2,
                    "Status monitor failed: boom\nFailed to disconnect from engine: stuck\n",
                    {"init vigilo", "connect localhost:15903", "fetch", "disconnect"}}),
    vigilo::test_support::param_name());

TEST_F(WatchTest, HeadingIsWrittenOnceFromItsOwnSnapshot) {
  fakeClient().fetches = {good(0, {{"user-a", "A0"}}), good(1, {{"user-a", "A1"}}),
                          good(2, {{"user-a", "A2"}, {"my-user-b", "B2"}}), failing("end")};
  const auto result = runVigilo({"-r", "-t", "-a", "-i", "0"});
  EXPECT_EQ(result.out, rawHeading + ",user-a\n" + raw7("1") + ",A1\n" + raw7("2") + ",A2,B2\n");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(fakeClient().statusLog.deletes, 3);
}

TEST_F(WatchTest, HeadingNeedsRawMode) {
  fakeClient().fetches = {good(9)};
  EXPECT_EQ(runVigilo({"-t", "-o"}).out, text7("9") + "\nEvent rate over last interval: -\n\n");
  EXPECT_EQ(fakeClient().calls, fullRun);  // no fetch for a heading
}

// The rate is taken over the configured interval: 1000 events over 500 ms is 2000.00, a counter
// that went backwards wraps around, and the first poll has no rate.
TEST_F(WatchTest, EventRateOverTheConfiguredInterval) {
  fakeClient().fetches = {good(0), good(1000), good(500), failing("end")};
  const auto result = runVigilo({"-i", "500"});
  std::vector<std::string> rates;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Event rate", 0) == 0) rates.push_back(line);
  }
  EXPECT_EQ(rates,
            (std::vector<std::string>{
                "Event rate over last interval: -", "Event rate over last interval: 2000.00 ev/s",
                "Event rate over last interval: 36893488147419103232.00 ev/s"}));
}

TEST_F(WatchTest, HumanReadablePollIsTextBlankLineRateAndBlankLine) {
  fakeClient().fetches = {good(0, {{"user-x", "5"}}), good(10), failing("end")};
  const auto result = runVigilo({"-a", "-i", "0"});
  // With an interval of 0 there is never a rate.
  EXPECT_EQ(result.out, text7("0") +
                            "user-x:                         5\n\n"
                            "Event rate over last interval: -\n\n" +
                            text7("10") + "\nEvent rate over last interval: -\n\n");
}

// A stream that refuses every byte, as a full device does.
class full_device : public std::streambuf {
 protected:
  int_type overflow(int_type) override { return traits_type::eof(); }
  std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
};

TEST_F(WatchTest, FailedWriteEndsTheWatchNormally) {
  fakeClient().fetches = {good(), good()};
  full_device full;
  const auto result = runVigilo({"-r", "-i", "0"}, &full);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Control-C to exit...\nFailed to write status to output.\n");
  EXPECT_EQ(fakeClient().calls, fullRun);
}

// Control-C while a poll is being fetched: that poll is still written, the wait after it runs to
// its deadline, and no further poll is made. Pressing it three times changes nothing.
class ControlCTest : public WatchTest, public ::testing::WithParamInterface<int> {};

TEST_P(ControlCTest, DuringAFetchEndsAfterTheNextWait) {
  const int presses = GetParam();
  fake_fetch second = good(2);
  second.before = [presses] {
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
