#include <iomanip>
#include <ostream>
#include <sstream>

#include "status/EngineStatus.h"
#include "status/catalogue_values.h"
#include "status/user_pairs.h"

namespace com::orvex::engine {

namespace {

// User lines put their values in column 33.
constexpr int userLabelWidth = 32;

}  // namespace

std::ostream& operator<<(std::ostream& out, const EngineStatus& status) {
  const catalogue_values values = fetchCatalogueValues(status, /*rawOnly=*/false);
  std::ostringstream text;
  for (std::size_t i : textOrder) {
    const status_key& key = statusCatalogue[i];
    text << std::left << std::setw(labelFieldWidth) << key.label;
    writeCatalogueValue(text, key, values[i]);
    text << '\n';
  }
  // One write: the destination gets the whole snapshot or, if composing failed, nothing.
  const std::string composed = text.str();
  return out.write(composed.data(), static_cast<std::streamsize>(composed.size()));
}

std::string EngineStatus::getAllStatusValues() const {
  std::ostringstream standard;
  standard << *this;
  std::ostringstream result;
  result << standard.str();
  forEachUserPair(*this, [&result](const std::string& key, const std::string& value) {
    result << std::left << std::setw(userLabelWidth) << (key + ":") << value << '\n';
  });
  return result.str();
}

}  // namespace com::orvex::engine
