// The command line of ovengine.
#ifndef VIGILO_ENGINE_ENGINE_OPTIONS_H_
#define VIGILO_ENGINE_ENGINE_OPTIONS_H_

#include <string>
#include <utility>
#include <vector>

#include "program_options.h"

namespace ovengine {

struct engine_options {
  int port = 15903;  // 0: any free port
  std::string bind = "127.0.0.1";
  int contexts = 4;
  double load = 0;  // generated events per second
  std::vector<std::pair<std::string, std::string>> userStatus;
};

extern const char* const engineUsage;

// Reads argv into `options`; `error` says why a command line is refused.
ovhttp::command_line parseEngineOptions(int argc, char** argv, engine_options& options,
                                        std::string& error);

}  // namespace ovengine

#endif  // VIGILO_ENGINE_ENGINE_OPTIONS_H_
