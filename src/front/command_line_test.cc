// The command line of the real vigilo binary: whole stderr, stdout and exit status together.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/build_info.h"
#include "testing/expected_outputs.h"
#include "testing/process.h"

namespace {

using vigilo::test_support::child_process;
using vigilo::test_support::runProcess;

const std::string versionDetail = std::string(VIGILO_VERSION) + " (build " + VIGILO_BUILD_TAG +
                                  " on " + VIGILO_PLATFORM_TAG + ")";

const std::string usageText =
    "\n"
    "Orvex vigilo v" +
    versionDetail +
    "\n"
    "Copyright (c) 2026 the vigilo developers.\n"
    "vigilo is a monitor-only client: it reads the engine's status and never changes it.\n"
    "Values are shown as the engine reports them, at the interval you choose.\n"
    "Exit status: 0 when done, 1 when the engine cannot be reached, 2 on a usage error\n"
    "or a failed watch.\n"
    "\n"
    "Usage: vigilo [ options ]\n"
    "\n"
    "To periodically poll status from a correlator.\n"
    "\n"
    "Where options include:\n"
    "    -h | --help                This message\n"
    "    -n | --hostname <host>     Connect to an engine on <host>\n"
    "    -p | --port <port>         Engine is listening on <port>\n"
    "    -i | --interval <ms>       Poll every <ms> milliseconds\n"
    "    -f | --filename <file>     Write to <file> instead of to standard out\n"
    "    -r | --raw                 Raw (i.e. parser friendly) output\n"
    "    -a | --all                 Includes user set values\n"
    "    -t | --title               Add header to output (Raw mode only)\n"
    "    -o | --once                Poll once then exit\n"
    "    -v | --verbose             Be more verbose\n"
    "    -V | --version             Print program version info\n"
    "\n";

const std::string headingBlock = "Column headings in raw mode excluding user columns are: \n" +
                                 vigilo::test_support::rawHeading + "\n";

const std::string portBlock = "\nPort number must be between 1 and 65535\n\n";

const std::string versionLine = "vigilo v" + versionDetail + "\n";

const std::string conversionMessage =
    "Invalid characters for this locale on command line... exiting\n";

struct cli_case {
  std::vector<std::string> args;
  int status;
  std::string err;
  std::vector<std::string> env = {};
};

void PrintTo(const cli_case& c, std::ostream* os) {
  for (const auto& e : c.env) *os << e << " ";
  *os << "vigilo";
  for (const auto& a : c.args) *os << " '" << a << "'";
}

class CommandLineTest : public ::testing::TestWithParam<cli_case> {};

TEST_P(CommandLineTest, WritesExactlyThisAndExits) {
  const cli_case& c = GetParam();
  std::vector<std::string> argv = {VIGILO_BINARY};
  argv.insert(argv.end(), c.args.begin(), c.args.end());
  const auto result = runProcess(argv, {c.env, ""});
  EXPECT_EQ(result.status, c.status);
  EXPECT_EQ(result.err, c.err);
  EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Help, CommandLineTest,
    ::testing::Values(cli_case{{"-h"}, 0, usageText}, cli_case{{"--help"}, 0, usageText},
                      cli_case{{"-r", "-h"}, 0, usageText + headingBlock},
                      cli_case{{"-h", "-r"}, 0, usageText},
                      cli_case{{"-h", "--bogus"}, 0, usageText},
                      cli_case{{"-p", "70000", "-h"}, 0, usageText + portBlock},
                      cli_case{{"-r", "-p", "0"}, 2, usageText + headingBlock + portBlock},
                      cli_case{{"-r", "-p", "70000"}, 2, usageText + headingBlock + portBlock}));

INSTANTIATE_TEST_SUITE_P(Version, CommandLineTest,
                         ::testing::Values(cli_case{{"-V"}, 0, versionLine},
                                           cli_case{{"--version"}, 0, versionLine},
                                           cli_case{{"-p", "0", "-V"}, 2, usageText + portBlock},
                                           cli_case{{"-p", "70000", "-V", "-x"}, 0, versionLine},
                                           cli_case{{"-r", "-V"}, 0, versionLine}));

INSTANTIATE_TEST_SUITE_P(
    UsageErrors, CommandLineTest,
    ::testing::Values(cli_case{{"engine"}, 2, usageText}, cli_case{{""}, 2, usageText},
                      cli_case{{"-ra"}, 2, usageText}, cli_case{{"-vv"}, 2, usageText},
                      cli_case{{"--port=8080"}, 2, usageText}, cli_case{{"-x", "-h"}, 2, usageText},
                      cli_case{{"-n"}, 2, usageText}, cli_case{{"-f"}, 2, usageText},
                      cli_case{{"--hostname"}, 2, usageText}, cli_case{{"-i", "-5"}, 2, usageText},
                      cli_case{{"-p", "70000", "-i", "-5"}, 2, usageText + portBlock},
                      cli_case{{"-p", "0", "-h"}, 2, usageText + portBlock},
                      cli_case{{"-p", "abc"}, 2, usageText + portBlock},
                      cli_case{{"-p", "-1"}, 2, usageText + portBlock},
                      cli_case{{"-p", "65536"}, 2, usageText + portBlock},
                      cli_case{{"-p", "4294967297"}, 2, usageText + portBlock},
                      cli_case{{"-p", "18446744073709551617"}, 2, usageText + portBlock},
                      cli_case{{"-r", "-x"}, 2, usageText + headingBlock}));

// A byte that no locale's UTF-8 allows, anywhere on the line, and whatever else is there.
INSTANTIATE_TEST_SUITE_P(
    Conversion, CommandLineTest,
    ::testing::Values(cli_case{{"\xff"}, 1, conversionMessage, {"LC_ALL=C.UTF-8"}},
                      cli_case{{"-h", "\xc0\xaf"}, 1, conversionMessage, {"LC_ALL=C.UTF-8"}},
                      cli_case{{"-f", "caf\xc3\xa9", "-V", "\xed\xa0\x80"},
                               1,
                               conversionMessage,
                               {"LC_ALL=C.UTF-8"}},
                      cli_case{{"-f", "caf\xc3\xa9", "-V"}, 0, versionLine, {"LC_ALL=C.UTF-8"}},
                      // In an ASCII locale every byte above 127 is invalid.
                      cli_case{{"-f", "caf\xc3\xa9"}, 1, conversionMessage, {"LC_ALL=C"}}));

}  // namespace
