// ov_main and the watch in process, over a link-time fake of the engine client library: the order
// of release, every failure row with its message and status, the one-time heading, the framing of
// human-readable polls with their event rate, and Control-C during a fetch.
#include "front/ov_main.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "front/settings.h"
#include "ovcommon/EngineException.h"
#include "testing/argument_vector.h"
#include "testing/expected_outputs.h"
#include "testing/fake_client.h"

namespace {

using namespace vigilo::test_support;
using calls = std::vector<std::string>;

struct run_result {
  std::string out, err;
  int status;
};

// Runs ov_main with `args`, with std::cout and std::cerr captured. Each test runs one watch: its
// poll mutex, condition and shutdown handler are never released, by design, so a second watch in
// the same process would look like a leak.
run_result runVigilo(std::vector<std::string> args) {
  vigilo::resetSettings();
  static std::unique_ptr<argument_vector> kept;  // the settings point here
  args.insert(args.begin(), "vigilo");
  kept = std::make_unique<argument_vector>(std::move(args));
  std::ostringstream out, err;
  std::streambuf* savedOut = std::cout.rdbuf(out.rdbuf());
  std::streambuf* savedErr = std::cerr.rdbuf(err.rdbuf());
  const int status = ov_main(kept->argc(), kept->argv());
  std::cout.rdbuf(savedOut);
  std::cerr.rdbuf(savedErr);
  return {out.str(), err.str(), status};
}

fake_fetch good(std::uint64_t processed, const text_pairs& users = {}) {
  text_pairs pairs = snapshot(processed);
  pairs.insert(pairs.end(), users.begin(), users.end());
  return {scriptOf(pairs)};
}

fake_fetch failing(const std::string& text) { return {std::nullopt, text}; }

// A fetch during which Control-C is pressed `presses` times.
fake_fetch pressing(int presses, fake_fetch fetch) {
  fetch.before = [presses] {
    for (int i = 0; i < presses; ++i) raise(SIGINT);
  };
  return fetch;
}

std::function<void()> throwing(const char* text) {
  return [text] { throw com::orvex::EngineException(text); };
}

// The library's calls of a watch that made `fetches` fetches and released everything.
calls watchOf(int fetches) {
  calls seen = {"init vigilo", "connect localhost:15903"};
  seen.insert(seen.end(), fetches, "fetch");
  seen.insert(seen.end(), {"disconnect", "shutdown"});
  return seen;
}

class OvMainTest : public ::testing::Test {
 protected:
  void SetUp() override { fakeClient() = fake_client{}; }
  // Every snapshot handed out was deleted exactly once.
  void TearDown() override {
    EXPECT_EQ(fakeClient().statusLog.deletes, fakeClient().snapshotsHandedOut);
  }
};

struct run_case {
  const char* name;
  std::vector<std::string> args;
  std::function<void(fake_client&)> script;
  int status;
  std::string out, err;
  calls seen;
};

void PrintTo(const run_case& c, std::ostream* os) { *os << c.name; }

class RunTest : public OvMainTest, public ::testing::WithParamInterface<run_case> {};

TEST_P(RunTest, WritesExactlyThis) {
  fakeClient().fetches = {good(0)};
  GetParam().script(fakeClient());
  const auto result = runVigilo(GetParam().args);
  EXPECT_EQ(result.status, GetParam().status);
  EXPECT_EQ(result.out, GetParam().out);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(fakeClient().calls, GetParam().seen);
}

const std::string noRate = "\nEvent rate over last interval: -\n\n";
const std::string controlC = "Control-C to exit...\n";
const calls connectFailed = {"init vigilo", "connect localhost:15903", "shutdown"};
const calls disconnected = {"init vigilo", "connect localhost:15903", "fetch", "disconnect"};
const std::string releaseFile = ::testing::TempDir() + "/vigilo_release_order.csv";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, RunTest, ::testing::Values(
    // The file is complete, and the watch done, before the connection is released.
    run_case{"file_then_watcher_then_connection", {"-v", "-o", "-r", "-f", releaseFile},
             [](fake_client& f) {
               f.onDisconnect = [] {
                 std::ifstream file(releaseFile);
                 EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), rawLine(0) + "\n");
                 EXPECT_EQ(static_cast<std::stringbuf*>(std::cerr.rdbuf())->str(),
                           "vigilo starting...\nvigilo done\n");
                 std::remove(releaseFile.c_str());
               };
             },
             0, "", "vigilo starting...\nvigilo done\n", watchOf(1)},
    run_case{"init_throws", {"-o"}, [](fake_client& f) { f.onInit = throwing("no licence"); },
             1, "", "Failed to initialise engine library: no licence\n", {"init vigilo"}},
    run_case{"connect_throws", {"-o", "-p", "8080", "-n", "engine"},
             [](fake_client& f) { f.onConnect = throwing("Connection refused"); }, 1, "",
             "Failed to connect to engine: Connection refused\n",
             {"init vigilo", "connect engine:8080", "shutdown"}},
    run_case{"connect_returns_null", {"-o"}, [](fake_client& f) { f.connectReturnsNull = true; },
             1, "", "Failed to connect to engine: Failed to connect to engine\n", connectFailed},
    run_case{"file_in_missing_directory", {"-o", "-f", "/nonexistent-dir/out.txt"},
             [](fake_client&) {}, 2, "", "Failed to open file: /nonexistent-dir/out.txt\n",
             {"init vigilo", "connect localhost:15903", "disconnect", "shutdown"}},
    run_case{"fetch_fails", {"-o", "-v"}, [](fake_client& f) { f.fetches = {failing("no")}; }, 2,
             "", "vigilo starting...\nvigilo done\nStatus monitor failed: no\n", watchOf(1)},
    run_case{"heading_fetch_fails_writes_nothing", {"-o", "-r", "-t"},
             [](fake_client& f) { f.fetches = {failing("gone")}; }, 2, "",
             "Status monitor failed: gone\n", watchOf(1)},
    run_case{"disconnect_throws", {"-o", "-r"},
             [](fake_client& f) { f.onDisconnect = throwing("socket stuck"); }, 0,
             rawLine(0) + "\n", "Failed to disconnect from engine: socket stuck\n", disconnected},
    run_case{"shutdown_throws_other", {"-o", "-r"},
             [](fake_client& f) { f.onShutdown = [] { throw std::logic_error("x"); }; }, 0,
             rawLine(0) + "\n",
             "Failed to shutdown engine library: Caught non-engine exception in main()\n",
             watchOf(1)},
    run_case{"fetch_and_disconnect_fail", {"-o"},
             [](fake_client& f) {
               f.fetches = {failing("boom")};
               f.onDisconnect = throwing("stuck");
             },
             2, "", "Status monitor failed: boom\nFailed to disconnect from engine: stuck\n",
             disconnected},
    // The heading comes from a snapshot of its own and is never repeated; each values line has
    // the user columns of its own snapshot.
    run_case{"heading_once", {"-r", "-t", "-a", "-i", "0"},
             [](fake_client& f) {
               f.fetches = {good(0, {{"user-a", "A0"}}), good(1, {{"user-a", "A1"}}),
                            good(2, {{"user-a", "A2"}, {"my-user-b", "B2"}}), failing("end")};
             },
             2, rawHeading + ",user-a\n" + rawLine(1) + ",A1\n" + rawLine(2) + ",A2,B2\n",
             controlC + "Status monitor failed: end\n", watchOf(4)},
    run_case{"heading_needs_raw_mode", {"-t", "-o"}, [](fake_client&) {}, 0,
             statusText(0) + noRate, "", watchOf(1)},
    // A human-readable poll is its text, the user lines, an empty line, the rate line and another
    // empty line; with an interval of 0 there is never a rate.
    run_case{"human_without_interval", {"-a", "-i", "0"},
             [](fake_client& f) {
               f.fetches = {good(0, {{"user-x", "5"}}), good(10), failing("end")};
             },
             2, statusText(0) + "user-x:                         5\n" + noRate + statusText(10) +
                    noRate,
             controlC + "Status monitor failed: end\n", watchOf(3)},
    // The rate is taken over the configured interval (1000 events in 50 ms: 20000.00), not over
    // the time that passed; a count that went backwards wraps around; the first poll has none.
    run_case{"event_rate", {"-i", "50"},
             [](fake_client& f) { f.fetches = {good(0), good(1000), good(500), failing("end")}; },
             2, statusText(0) + noRate + statusText(1000) +
                    "\nEvent rate over last interval: 20000.00 ev/s\n\n" + statusText(500) +
                    "\nEvent rate over last interval: 368934881474191032320.00 ev/s\n\n",
             controlC + "Status monitor failed: end\n", watchOf(4)},
    // Control-C during a fetch: that poll is still written, the wait after it runs to its
    // deadline, and no further poll is made. Pressing it three times changes nothing.
    run_case{"control_c_during_a_fetch", {"-r", "-i", "200"},
             [](fake_client& f) { f.fetches = {good(1), pressing(1, good(2)), good(3)}; }, 0,
             rawLine(1) + "\n" + rawLine(2) + "\n", controlC, watchOf(2)},
    run_case{"control_c_three_times", {"-r", "-i", "200"},
             [](fake_client& f) { f.fetches = {good(1), pressing(3, good(2)), good(3)}; }, 0,
             rawLine(1) + "\n" + rawLine(2) + "\n", controlC, watchOf(2)}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
