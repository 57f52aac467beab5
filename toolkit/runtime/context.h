// The toolkit context: the record of one connection of the toolkit's network layer.
// This system never creates one; calls that take a context get null.
#pragma once
#include <cstdint>

struct kiv_context {
  int number;         // printed by the log's %s
  uint32_t prevtime;  // hundredths of a second of the previous %t line
  char **searchlist;  // null-terminated prefix paths for relative info names; owned
};
