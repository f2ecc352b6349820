// Fuzzes what reaches the exporter from outside: the input is split at NUL bytes into a probe's
// target, an --allow-target rule, a scrape-timeout header and the rest of a command line. None
// of them may crash it or read out of bounds; a target it accepts is one it can write back and
// read again, and a probe's time limit stays within the configured one.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "exporter_options.h"
#include "exporter_routes.h"
#include "targets.h"
#include "testing/argument_vector.h"

namespace {

bool numeric(const std::string& host) {
  unsigned char address[16];
  return inet_pton(AF_INET, host.c_str(), address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address) == 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> pieces(1);
  for (std::size_t i = 0; i < size && pieces.size() < 64; ++i) {
    if (data[i] == '\0') {
      pieces.emplace_back();
    } else {
      pieces.back().push_back(static_cast<char>(data[i]));
    }
  }
  pieces.resize(std::max<std::size_t>(pieces.size(), 3));

  if (const auto t = exporter::parseTarget(pieces[0])) {
    if (t->port == 0 || t->host.empty() || t->host.size() > 253) std::abort();
    const auto again = exporter::parseTarget(exporter::targetText(*t));
    if (!again || again->host != t->host || again->port != t->port) std::abort();
    // Names would ask a name server; addresses are checked against the rules only. No control
    // byte gets through: a NUL would end the name early for the resolver.
    for (const char c : t->host) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) std::abort();
    }
    exporter::target_rules rules;
    rules.add(pieces[1]);
    const bool allowed = rules.named(*t) || rules.allowsAll({t->host});
    if (allowed && !numeric(t->host) && !rules.named(*t)) std::abort();
  }

  const std::chrono::milliseconds configured(10000);
  const auto limit = exporter::probeTimeLimit(configured, pieces[2]);
  if (limit < std::chrono::milliseconds(1) || limit > configured) std::abort();

  std::vector<std::string> args = {"vigilo-exporter"};
  args.insert(args.end(), pieces.begin() + 3, pieces.end());
  vigilo::test_support::argument_vector argv(std::move(args));
  exporter::exporter_options options;
  std::string error;
  if (exporter::parseExporterOptions(argv.argc(), argv.argv(), options, error)) {
    if (!error.empty() || options.probeTimeout.count() <= 0) std::abort();
  } else if (error.empty()) {
    std::abort();
  }
  return 0;
}
