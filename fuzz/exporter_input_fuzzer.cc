// Fuzzes what reaches the exporter from outside: the input is split at NUL bytes into a probe's
// target, an --allow-target rule, a scrape-timeout header and the rest of a command line. None
// of them may crash it or read out of bounds; a target it accepts is one it can write back and
// read again, and a probe's time limit stays within the configured one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "exporter_options.h"
#include "exporter_routes.h"
#include "targets.h"
#include "testing/argument_vector.h"

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

  if (const auto t = exporter::parseTarget(pieces[0]).parsed) {
    if (t->port == 0 || t->host.empty() || t->host.size() > 253) std::abort();
    const auto again = exporter::parseTarget(t->text()).parsed;
    if (!again || again->host != t->host || again->port != t->port) std::abort();
    // Names would ask a name server; addresses are checked against the rules only. No control
    // byte gets through: a NUL would end the name early for the resolver.
    for (const char c : t->host) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) std::abort();
    }
    exporter::target_rules rules;
    rules.add(pieces[1]);
    const auto address = ovnet::address::parse(t->host);
    const bool allowed = rules.named(*t) || (address && rules.allowsAll({*address}));
    if (allowed && !address && !rules.named(*t)) std::abort();
  } else if (exporter::parseTarget(pieces[0]).why.empty()) {
    std::abort();  // a refusal always says why
  }

  const std::chrono::milliseconds configured(10000);
  const auto limit = exporter::probeTimeLimit(configured, pieces[2]);
  if (limit < std::chrono::milliseconds(1) || limit > configured) std::abort();

  std::vector<std::string> args = {"vigilo-exporter"};
  args.insert(args.end(), pieces.begin() + 3, pieces.end());
  vigilo::test_support::argument_vector argv(std::move(args));
  exporter::exporter_options options;
  std::string error;
  const auto outcome = exporter::parseExporterOptions(argv.argc(), argv.argv(), options, error);
  if (outcome == ovhttp::command_line::refused ? error.empty() : !error.empty()) std::abort();
  if (outcome == ovhttp::command_line::run && options.probeTimeout.count() <= 0) std::abort();
  return 0;
}
