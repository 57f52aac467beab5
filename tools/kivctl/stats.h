// kivctl's reading of the stats listing (lib/wire.h's stats lines): each line parsed into
// its items, a table for people and JSON. Portable: no Windows call in here.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "lib/wire.h"

// One line of the stats listing.
struct stats_line {
  wire_stats_kind kind = WIRE_OF_PORT;
  std::string name;  // the first item's value: the port, service, program or kivd's pid
  // Every item after the first, in order, those this kivctl does not know too.
  std::vector<std::pair<std::string, std::string>> items;
  std::string item(const char *name) const;           // "" when the line has none
  unsigned long long number(const char *name) const;  // 0 when none or not a number
};

// false when the line is not a stats line (its first item names no kind). A word without
// "Name=" continues the value before it: a service's name may hold blanks.
bool parse_stats_line(const std::string &line, stats_line *out);

// For people: the ports (busiest first: by connections, then agent starts), then the
// services and the global programs (by starts), each a table with a header line, a blank
// line between them; then kivd's own line.
std::string stats_table(const std::vector<stats_line> &lines);
// A JSON array, an object per line: "kind" ("port", "service", "program", "kivd"), then
// each item by its name in the listing, numbers as numbers, names and the state as text.
std::string stats_json(const std::vector<stats_line> &lines);
