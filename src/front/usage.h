// The help text of vigilo.
#ifndef VIGILO_SRC_FRONT_USAGE_H_
#define VIGILO_SRC_FRONT_USAGE_H_

namespace vigilo {

// Writes the usage text to std::cerr, line by line with a flush after each. Reads the settings
// `raw` (adds the raw column headings) and `port` (adds the port message when out of range).
void printUsage();

}  // namespace vigilo

#endif  // VIGILO_SRC_FRONT_USAGE_H_
