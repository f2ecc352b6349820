#include "event_lines.h"

#include <cctype>

#include "engine_limits.h"

namespace ovengine {

namespace {

bool typeStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool typeChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.';
}

}  // namespace

bool parseEventLines(std::string_view body, std::vector<event>& events, std::string& error) {
  std::size_t number = 0;
  while (!body.empty()) {
    const auto end = body.find('\n');
    std::string_view line = body.substr(0, end);
    body.remove_prefix(end == std::string_view::npos ? body.size() : end + 1);
    ++number;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) continue;
    const auto open = line.find('(');
    bool ok =
        open != std::string_view::npos && open > 0 && line.back() == ')' && typeStart(line[0]);
    for (std::size_t i = 1; ok && i < open; ++i) ok = typeChar(line[i]);
    const char* why = !ok                                             ? "expected Type(fields)"
                      : open > limits::typeLength                     ? "event type too long"
                      : line.size() - open - 2 > limits::fieldsLength ? "fields too long"
                                                                      : nullptr;
    if (why != nullptr) {
      error = "line " + std::to_string(number) + ": " + why;
      return false;
    }
    events.push_back({std::string(line.substr(0, open)),
                      std::string(line.substr(open + 1, line.size() - open - 2))});
  }
  return true;
}

}  // namespace ovengine
