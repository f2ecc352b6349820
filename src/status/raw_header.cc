#include <sstream>

#include "status/EngineStatus.h"
#include "status/status_catalogue.h"
#include "status/user_pairs.h"

namespace com::orvex::engine {

std::string EngineStatus::getRawHeader() {
  std::ostringstream line;
  const char* separator = "";
  for (const status_key& k : statusCatalogue) {
    if (k.rawHeading == nullptr) continue;
    line << separator << k.rawHeading;
    separator = ",";
  }
  return line.str();
}

std::string EngineStatus::getRawHeaderAll() const {
  std::ostringstream line;
  line << getRawHeader();
  forEachUserPair(*this, [&line](const std::string& key, const std::string&) {
    line << ',' << key;
  });
  return line.str();
}

}  // namespace com::orvex::engine
