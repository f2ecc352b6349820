// The command line of vigilo-exporter, in the form exporters share: --name=value or --name value.
#ifndef VIGILO_EXPORTER_EXPORTER_OPTIONS_H_
#define VIGILO_EXPORTER_EXPORTER_OPTIONS_H_

#include <chrono>
#include <string>

#include "program_options.h"
#include "targets.h"

namespace exporter {

struct exporter_options {
  std::string listenHost = "127.0.0.1";  // empty: every interface
  unsigned short listenPort = 9903;      // 0: any free port
  target_rules allowed;
  std::chrono::milliseconds probeTimeout{10000};
};

extern const char* const exporterUsage;

// Reads argv into `options`; `error` says why a command line is refused.
ovhttp::command_line parseExporterOptions(int argc, char** argv, exporter_options& options,
                                          std::string& error);

}  // namespace exporter

#endif  // VIGILO_EXPORTER_EXPORTER_OPTIONS_H_
