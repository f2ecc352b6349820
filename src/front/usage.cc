#include "front/usage.h"

#include <iostream>

#include "front/settings.h"
#include "status/EngineStatus.h"
#include "support/version.h"

namespace vigilo {

namespace {

constexpr const char* notice =
    "Copyright (c) 2026 the vigilo developers.\n"
    "vigilo is a monitor-only client: it reads the engine's status and never changes it.\n"
    "Values are shown as the engine reports them, at the interval you choose.\n"
    "Exit status: 0 when done, 1 when the engine cannot be reached, 2 on a usage error\n"
    "or a failed watch.";

constexpr const char* optionLines[] = {
    "    -h | --help                This message",
    "    -n | --hostname <host>     Connect to an engine on <host>",
    "    -p | --port <port>         Engine is listening on <port>",
    "    -i | --interval <ms>       Poll every <ms> milliseconds",
    "    -f | --filename <file>     Write to <file> instead of to standard out",
    "    -r | --raw                 Raw (i.e. parser friendly) output",
    "    -a | --all                 Includes user set values",
    "    -t | --title               Add header to output (Raw mode only)",
    "    -o | --once                Poll once then exit",
    "    -v | --verbose             Be more verbose",
    "    -V | --version             Print program version info",
};

void line(const char* text) { std::cerr << text << std::endl; }

}  // namespace

void printUsage() {
  line("");
  line(usageBanner);
  line(notice);
  line("");
  std::cerr << "Usage: " << programName << " [ options ]" << std::endl;
  line("");
  line("To periodically poll status from a correlator.");
  line("");
  line("Where options include:");
  for (const char* option : optionLines) line(option);
  line("");
  if (raw) {
    line("Column headings in raw mode excluding user columns are: ");
    line(com::orvex::engine::EngineStatus::getRawHeader().c_str());
  }
  if (!portInRange()) {
    line("");
    line("Port number must be between 1 and 65535");
    line("");
  }
}

}  // namespace vigilo
