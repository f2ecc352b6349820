// Fuzzes the command-line parser and the usage text: the input is split at NUL bytes into
// arguments. The parser must never crash, read out of bounds or leak, and must only ever proceed
// with a port in range.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "front/options.h"
#include "front/settings.h"
#include "front/usage.h"
#include "testing/argument_vector.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> args = {"vigilo"};
  std::string current;
  for (std::size_t i = 0; i < size && args.size() < 64; ++i) {
    if (data[i] == '\0') {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(data[i]));
    }
  }
  if (!current.empty()) args.push_back(current);

  vigilo::test_support::argument_vector argv(std::move(args));
  vigilo::resetSettings();
  const auto outcome = vigilo::parseOptions(argv.argc(), argv.argv());
  if (outcome == vigilo::parse_outcome::proceed && !vigilo::portInRange()) std::abort();

  // Every setting must be readable afterwards, and the usage text must render from them.
  std::ostringstream sink;
  std::streambuf* saved = std::cerr.rdbuf(sink.rdbuf());
  vigilo::printUsage();
  std::cerr.rdbuf(saved);
  volatile std::size_t touched = std::string(vigilo::host).size();
  if (vigilo::filename != nullptr) touched = touched + std::string(vigilo::filename).size();
  (void)touched;
  return 0;
}
