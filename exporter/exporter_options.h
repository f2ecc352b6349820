// The command line of vigilo-exporter, in the form exporters share: --name=value or --name value.
#ifndef VIGILO_EXPORTER_EXPORTER_OPTIONS_H_
#define VIGILO_EXPORTER_EXPORTER_OPTIONS_H_

#include <chrono>
#include <string>

#include "targets.h"

namespace exporter {

struct exporter_options {
  std::string listenHost = "127.0.0.1";
  unsigned short listenPort = 9903;  // 0: any free port
  target_rules allowed;
  std::chrono::milliseconds probeTimeout{10000};
  bool help = false;
  bool version = false;
};

extern const char* const exporterUsage;

// Parses argv; false with `error` set on a bad command line.
bool parseExporterOptions(int argc, char** argv, exporter_options& options, std::string& error);

}  // namespace exporter

#endif  // VIGILO_EXPORTER_EXPORTER_OPTIONS_H_
