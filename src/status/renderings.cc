// The renderings of a status record: the raw heading line, the raw values line, the human-readable
// text and the texts with user values. Each reads the catalogue's values of its snapshot first,
// each key exactly once, and only then composes its text. Texts are composed with std::to_chars
// into strings rather than through streams: a poller renders one snapshot after another, and
// every instruction of a poll is paid on the engine's host.
#include <array>
#include <charconv>
#include <ostream>

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

// Appends one value by its kind: low 32 bits, all 64 bits, or the text as received. A null text
// is written as an empty value, so the line keeps its fields whatever keys an engine lacks.
void appendValue(std::string& text, const status_key& key, const catalogue_value& value) {
  if (key.kind == value_kind::text) {
    if (value.text != nullptr) text += value.text;
    return;
  }
  char digits[20];
  const std::uint64_t number =
      key.kind == value_kind::u32 ? static_cast<std::uint32_t>(value.number) : value.number;
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// `label` left-justified in a field of `width` characters; a longer label is written whole.
void appendField(std::string& text, std::string_view label, std::size_t width) {
  text += label;
  if (label.size() < width) text.append(width - label.size(), ' ');
}

// User lines put their values in column 33.
constexpr std::size_t userLabelWidth = 32;

void appendText(std::string& text, const EngineStatus& status) {
  const catalogue_values values = fetchCatalogueValues(status, /*rawOnly=*/false);
  for (std::size_t i : textOrder) {
    appendField(text, statusCatalogue[i].label, labelFieldWidth);
    appendValue(text, statusCatalogue[i], values[i]);
    text += '\n';
  }
}

}  // namespace

std::string EngineStatus::getRawHeader() {
  static const std::string heading = [] {
    std::string line;
    for (const status_key& k : statusCatalogue) {
      if (k.rawHeading == nullptr) continue;
      if (!line.empty()) line += ',';
      line += k.rawHeading;
    }
    return line;
  }();
  return heading;
}

std::string EngineStatus::getRawHeaderAll() const {
  std::string line = getRawHeader();
  forEachUserPair(*this, [&line](const std::string& key, const std::string&) {
    line += ',';
    line += key;
  });
  return line;
}

void EngineStatus::appendStandardStatusValuesRaw(std::string& line) const {
  const catalogue_values values = fetchCatalogueValues(*this, /*rawOnly=*/true);
  bool first = true;
  for (std::size_t i = 0; i < statusKeyCount; ++i) {
    if (!statusCatalogue[i].inRaw) continue;
    if (!first) line += ',';
    appendValue(line, statusCatalogue[i], values[i]);
    first = false;
  }
}

std::string EngineStatus::getStandardStatusValuesRaw() const {
  std::string line;
  appendStandardStatusValuesRaw(line);
  return line;
}

std::ostream& operator<<(std::ostream& out, const EngineStatus& status) {
  std::string text;
  appendText(text, status);
  // One write: the destination gets the whole snapshot or, if composing failed, nothing.
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::string EngineStatus::getAllStatusValues() const {
  std::string text;
  appendText(text, *this);
  forEachUserPair(*this, [&text](const std::string& key, const std::string& value) {
    appendField(text, key + ":", userLabelWidth);
    text += value;
    text += '\n';
  });
  return text;
}

}  // namespace com::orvex::engine
