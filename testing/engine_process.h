// Test support: a real ovengine process, started on an ephemeral port of 127.0.0.1, and a
// loopback port where nothing listens.
#ifndef VIGILO_TESTING_ENGINE_PROCESS_H_
#define VIGILO_TESTING_ENGINE_PROCESS_H_

#include <memory>
#include <string>
#include <vector>

#include "testing/process.h"

namespace vigilo::test_support {

class engine_process {
 public:
  // Starts `binary` with --port 0 and `extra`, and waits (10 s at most) for the line that names
  // its port. Throws std::runtime_error when that line does not come.
  explicit engine_process(const std::string& binary, const std::vector<std::string>& extra = {});

  child_process& process() { return *child; }
  unsigned short port() const { return listenPort; }

 private:
  std::unique_ptr<child_process> child;
  unsigned short listenPort = 0;
};

// A port of 127.0.0.1 that was free a moment ago, so that a connection to it is refused.
unsigned short closedLoopbackPort();

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_ENGINE_PROCESS_H_
