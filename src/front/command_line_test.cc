// The command line of the real vigilo binary, one case of each outcome: whole stderr, stdout and
// exit status together. What each option does is the option parser's table.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/build_info.h"
#include "testing/expected_outputs.h"
#include "testing/process.h"

namespace {

const std::string versionDetail = std::string(VIGILO_VERSION) + " (build " + VIGILO_BUILD_TAG +
                                  " on " + VIGILO_PLATFORM_TAG + ")";

// clang-format off
const std::string usageText =
    "\n"
    "Orvex vigilo v" + versionDetail + "\n"
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
// clang-format on

// One process per outcome: help, version, a usage error, an argument that is not text.
TEST(CommandLineTest, WritesExactlyThisAndExits) {
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"-h"}, 0, usageText},
      {{"-V"}, 0, "vigilo v" + versionDetail + "\n"},
      {{"-r", "-p", "70000"},
       2,
       usageText + "Column headings in raw mode excluding user columns are: \n" +
           vigilo::test_support::rawHeading + "\n\nPort number must be between 1 and 65535\n\n"},
      // A byte that UTF-8 never allows, after arguments that would end the process first.
      {{"-f", "caf\xc3\xa9", "-V", "\xed\xa0\x80"},
       1,
       "Invalid characters for this locale on command line... exiting\n"},
  };
  for (const auto& [args, status, err] : cases) {
    std::vector<std::string> argv = {"/usr/bin/env", "LC_ALL=C.UTF-8", VIGILO_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto result = vigilo::test_support::runProcess(argv);
    EXPECT_EQ(result.status, status) << args[0];
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(result.out, "");
  }
}

}  // namespace
