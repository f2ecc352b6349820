#include <sstream>

#include "status/EngineStatus.h"
#include "status/catalogue_values.h"

namespace com::orvex::engine {

std::string EngineStatus::getStandardStatusValuesRaw() const {
  const catalogue_values values = fetchCatalogueValues(*this, /*rawOnly=*/true);
  std::ostringstream line;
  const char* separator = "";
  for (std::size_t i = 0; i < statusKeyCount; ++i) {
    if (!statusCatalogue[i].inRaw) continue;
    line << separator;
    writeCatalogueValue(line, statusCatalogue[i], values[i]);
    separator = ",";
  }
  return line.str();
}

}  // namespace com::orvex::engine
