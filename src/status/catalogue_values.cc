#include "status/catalogue_values.h"

#include <ostream>

namespace com::orvex::engine {

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

}  // namespace com::orvex::engine
