// The documents say what the program does: the options of vigilo(1) are those of the usage
// text, and the field tables of vigilo(1) and docs/fields.md, and the column lists of
// docs/fleet.md and the fields vigilo-plot reads, are the status catalogue's.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "front/usage.h"
#include "status/status_catalogue.h"

namespace {

using lines = std::vector<std::string>;

std::string readDocument(const std::string& name) {
  std::ifstream file(std::string(VIGILO_SOURCE_DIR) + "/" + name);
  EXPECT_TRUE(file) << name;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// Every match of `pattern` in `text`, its groups joined by blanks.
lines matches(const std::string& text, const std::string& pattern) {
  lines found;
  const std::regex expression(pattern, std::regex::multiline);
  for (std::sregex_iterator it(text.begin(), text.end(), expression), end; it != end; ++it) {
    std::string joined;
    for (std::size_t i = 1; i < it->size(); ++i) joined += (i > 1 ? " " : "") + (*it)[i].str();
    found.push_back(joined);
  }
  return found;
}

// The raw line's fields by position, as the program writes them, in each document's form: the
// tables give field, key, kind and heading; the recipes name the fields and type them, and
// VictoriaMetrics's numeric columns are moved one to the right by the time in front.
TEST(DocumentationTest, FieldTablesAndRecipesAreTheProgramsFields) {
  using namespace com::orvex::engine;
  lines table, manual;
  std::string names, types, format = "1:time:unix_ms";
  int field = 0;
  for (const status_key& row : statusCatalogue) {
    if (!row.inRaw) continue;
    const bool text = row.kind == value_kind::text;
    const std::string n = std::to_string(++field);
    const std::string heading = row.rawHeading != nullptr ? row.rawHeading : "(none)";
    const char* kind = text ? "text" : row.kind == value_kind::u32 ? "u32" : "u64";
    table.push_back(n + " " + row.key + " " + kind + " " + heading);
    manual.push_back(n + " " + row.key + " " + heading);
    names += std::string(names.empty() ? "" : ", ") + "\"" + row.key + "\"";
    types += std::string(types.empty() ? "" : ", ") + (text ? "\"string\"" : "\"int\"");
    if (!text) format += "," + std::to_string(field + 1) + ":metric:" + row.key;
  }
  EXPECT_EQ(matches(readDocument("docs/fields.md"),
                    R"(^\| (\d+) \| `(\w+)` \| (u32|u64|text) \| ([^|]*[^ |]) \|$)"),
            table);
  EXPECT_EQ(matches(readDocument("docs/man/vigilo.1.in"), R"(^(\d+);(\w+);(.*)$)"), manual);
  const std::string fleet = readDocument("docs/fleet.md");
  EXPECT_EQ(matches(fleet, R"(^  csv_column_names = \[(.*)\]$)"), lines{names});
  EXPECT_EQ(matches(fleet, R"(^  csv_column_types = \[(.*)\]$)"), lines{types});
  EXPECT_EQ(matches(fleet, R"(&format=([^']*)'$)"), lines{format});
}

// vigilo-plot takes fields by position, and finds each where the program writes it.
TEST(DocumentationTest, PlotReadsTheFieldsOfTheRawLine) {
  using namespace com::orvex::engine;
  lines positions;
  for (const status_key& row : statusCatalogue) {
    if (!row.inRaw) continue;
    positions.push_back(std::string(row.key) + " " + std::to_string(positions.size()));
  }
  const std::string plot = readDocument("tools/vigilo_plot.py");
  const lines read = matches(plot, R"re(^    "(\w+)": (\d+),$)re");
  EXPECT_EQ(read.size(), 7u);
  for (const std::string& field : read) {
    EXPECT_NE(std::find(positions.begin(), positions.end(), field), positions.end()) << field;
  }
  EXPECT_EQ(matches(plot, R"(^STANDARD_FIELDS = (\d+)$)"), lines{std::to_string(positions.size())});
}

TEST(DocumentationTest, ManualOptionsAreTheUsageTextsOptions) {
  std::ostringstream usage;
  std::streambuf* saved = std::cerr.rdbuf(usage.rdbuf());
  vigilo::printUsage();
  std::cerr.rdbuf(saved);
  EXPECT_EQ(matches(readDocument("docs/man/vigilo.1.in"),
                    R"(^\.BR \\-(\w) ", " \\-\\-(\w+)(?: " \\fI(\w+)\\fR")?$)"),
            matches(usage.str(), R"(^    -(\w) \| --(\w+) (?:<(\w+)>)?)"));
}

}  // namespace
