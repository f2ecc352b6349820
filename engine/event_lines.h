// The text form of events that POST /events takes: one event per line, "Type(fields)".
#ifndef VIGILO_ENGINE_EVENT_LINES_H_
#define VIGILO_ENGINE_EVENT_LINES_H_

#include <string>
#include <string_view>
#include <vector>

#include "event_engine.h"

namespace ovengine {

// Reads every line of `body`; blank lines are skipped and a CR before a line end is dropped. A
// type starts with a letter or '_' and goes on with letters, digits, '_' and '.'. On the first
// malformed line, or one past the length limits, returns false with `error` naming the line
// ("line 3: expected Type(fields)").
bool parseEventLines(std::string_view body, std::vector<event>& events, std::string& error);

}  // namespace ovengine

#endif  // VIGILO_ENGINE_EVENT_LINES_H_
