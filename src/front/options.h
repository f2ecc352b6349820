// The command-line parser of vigilo: turns the arguments into the settings (settings.h).
#ifndef VIGILO_SRC_FRONT_OPTIONS_H_
#define VIGILO_SRC_FRONT_OPTIONS_H_

namespace vigilo {

enum class parse_outcome {
  proceed,     // every argument applied and the port is in range
  usageError,  // the usage text is due, then status 2
  help,        // -h met: the usage text is due, then status 0
  version,     // -V met: the version line is due, then status 0
};

// Applies argv[1] to argv[argc - 1] to the settings, in order, and stops at the first usage error
// or at -h or -V, leaving the settings of the arguments before it in effect. The values of -n and
// -f are kept as pointers into argv, which must outlive the settings. Writes nothing.
parse_outcome parseOptions(int argc, char** argv);

}  // namespace vigilo

#endif  // VIGILO_SRC_FRONT_OPTIONS_H_
