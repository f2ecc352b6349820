#include "program_options.h"

#include <algorithm>
#include <iostream>

namespace ovhttp {

command_line readCommandLine(int argc, char** argv, const std::vector<program_option>& options,
                             std::string& error) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    if (name == "-h" || name == "--help") return command_line::help;
    if (name == "--version") return command_line::version;
    if (!name.starts_with("--")) {
      error = "unexpected argument " + name;
      return command_line::refused;
    }
    const auto equals = name.find('=');
    const bool joined = equals != std::string::npos;
    std::string value = joined ? name.substr(equals + 1) : "";
    if (joined) name.resize(equals);
    const auto option = std::find_if(options.begin(), options.end(),
                                     [&name](const program_option& o) { return o.name == name; });
    if (option == options.end()) {
      error = "unknown option " + name;
      return command_line::refused;
    }
    if (!joined) {
      if (i + 1 == argc) {
        error = name + " needs a value: " + option->valid;
        return command_line::refused;
      }
      value = argv[++i];
    }
    if (!option->take(value)) {
      error = "bad value for " + name + ": " + value + " (expected " + option->valid + ")";
      return command_line::refused;
    }
  }
  return command_line::run;
}

std::optional<int> endOfCommandLine(command_line outcome, const std::string& error,
                                    const program_text& program) {
  switch (outcome) {
    case command_line::refused:
      std::cerr << program.name << ": " << error << "\n\n" << program.usage;
      return 2;
    case command_line::help:
      std::cout << program.usage;
      return 0;
    case command_line::version:
      std::cout << program.name << " " << program.version << "\n";
      return 0;
    case command_line::run:
      break;
  }
  return std::nullopt;
}

}  // namespace ovhttp
