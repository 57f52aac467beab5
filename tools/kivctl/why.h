// kivctl's reading of the `why` listing: each line parsed into an event, printed for
// people with what kivd does next, or as JSON. Portable: no Windows call in here.
#pragma once
#include <string>
#include <utility>
#include <vector>

// One line of the listing: number, time, severity, text, then "name=value" fields, tab
// separated (kivd's toolkit/runtime/events.h writes them).
struct why_event {
  int number = 0;
  long long time = 0;  // seconds since 1970, UTC
  std::string severity;
  std::string text;
  std::vector<std::pair<std::string, std::string>> fields;
};

// The number of the line that ends `why PORT`: not an event but the port's state when
// asked, its fields port, service, state (serving, idle, resting, disabled, down) and
// pid, parent and until where they apply.
constexpr int WHY_STATE = 0;

// false when the line is not an event line.
bool parse_why_line(const std::string &line, why_event *out);
// What kivd does next after the event, in this machine's local time: "resting until
// 12:15:07", "serving again", "disabled until enabled", ...
std::string why_next(const why_event &e);
// For people: one line per event, "YYYY-MM-DD HH:MM:SS  severity  text  Next: ...", and
// the state line as "YYYY-MM-DD HH:MM:SS  now      text".
std::string why_table(const std::vector<why_event> &events);
// A JSON array of objects: number, time (ISO 8601, UTC), severity, text, next, fields (an
// object; numbers as numbers, until as ISO 8601).
std::string why_json(const std::vector<why_event> &events);
