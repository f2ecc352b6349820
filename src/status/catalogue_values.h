// The catalogue's values of one snapshot, fetched before anything is composed: a rendering reads
// each key exactly once and never interleaves lookups with writing.
#ifndef VIGILO_STATUS_CATALOGUE_VALUES_H_
#define VIGILO_STATUS_CATALOGUE_VALUES_H_

#include <array>
#include <cstdint>
#include <iosfwd>

#include "status/EngineStatus.h"
#include "status/status_catalogue.h"

namespace com::orvex::engine {

struct catalogue_value {
  std::uint64_t number = 0;
  const char* text = nullptr;  // owned by the status object
};

using catalogue_values = std::array<catalogue_value, statusKeyCount>;

// Reads every catalogue key of `record` by its kind; with `rawOnly`, only the raw line's keys.
catalogue_values fetchCatalogueValues(const EngineStatus& record, bool rawOnly);

// Writes one value by its kind: low 32 bits, all 64 bits, or the text as received. A null text is
// written as an empty value, so the line keeps its fields whatever keys an engine lacks.
void writeCatalogueValue(std::ostream& out, const status_key& key, const catalogue_value& value);

}  // namespace com::orvex::engine

#endif  // VIGILO_STATUS_CATALOGUE_VALUES_H_
