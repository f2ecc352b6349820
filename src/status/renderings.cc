// The renderings of a status record: the raw heading line, the raw values line, the human-readable
// text and the texts with user values. Each reads the catalogue's values of its snapshot first,
// each key exactly once, and only then composes its text in a private stream.
#include <array>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "status/EngineStatus.h"
#include "status/status_catalogue.h"

namespace com::orvex::engine {

namespace {

struct catalogue_value {
  std::uint64_t number = 0;
  const char* text = nullptr;  // owned by the status object
};

using catalogue_values = std::array<catalogue_value, statusKeyCount>;

// Reads every catalogue key of `record` by its kind; with `rawOnly`, only the raw line's keys.
catalogue_values fetchCatalogueValues(const EngineStatus& record, bool rawOnly) {
  catalogue_values values;
  for (std::size_t i = 0; i < statusKeyCount; ++i) {
    const status_key& key = statusCatalogue[i];
    if (rawOnly && !key.inRaw) continue;
    if (key.kind == value_kind::text) {
      values[i].text = record.getStatusString(key.key);
    } else {
      values[i].number = record.getStatusInteger(key.key);
    }
  }
  return values;
}

// Writes one value by its kind: low 32 bits, all 64 bits, or the text as received. A null text is
// written as an empty value, so the line keeps its fields whatever keys an engine lacks.
void writeCatalogueValue(std::ostream& out, const status_key& key, const catalogue_value& value) {
  switch (key.kind) {
    case value_kind::u32:
      out << static_cast<std::uint32_t>(value.number);
      break;
    case value_kind::u64:
      out << value.number;
      break;
    case value_kind::text:
      if (value.text != nullptr) out << value.text;
      break;
  }
}

// User lines put their values in column 33.
constexpr int userLabelWidth = 32;

}  // namespace

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
  forEachUserPair(*this,
                  [&line](const std::string& key, const std::string&) { line << ',' << key; });
  return line.str();
}

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
  std::ostringstream result;
  result << *this;
  forEachUserPair(*this, [&result](const std::string& key, const std::string& value) {
    result << std::left << std::setw(userLabelWidth) << (key + ":") << value << '\n';
  });
  return result.str();
}

}  // namespace com::orvex::engine
