#include <cstdlib>

#include "platform/EngineException.h"
#include "status/EngineStatus.h"

namespace com::orvex::engine {

EngineStatus getEngineStatus(EngineManagement* management) {
  char* error = nullptr;
  StatusOpaque* status = engineManagement_getStatusOpaque(management, &error);
  if (error != nullptr) {
    EngineException failure(error);
    std::free(error);
    throw failure;
  }
  return EngineStatus(status);
}

}  // namespace com::orvex::engine
