#include "lib/cmdsplit.h"

namespace {
bool blank(char c) { return c == ' ' || c == '\t'; }
}  // namespace

int cmd_split(char *line, char **vector) {
  char *in = line;
  while (blank(*in)) in++;
  char *out = line;
  vector[0] = line;
  int count = 1;
  bool escape = false, quoted = false;
  for (; *in; in++) {
    char c = *in;
    if (escape) {
      *out++ = c;
      escape = false;
    } else if (c == '\\') {
      escape = true;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (blank(c) && !quoted) {
      *out++ = '\0';
      while (blank(in[1])) in++;
      // More words than the vector holds: the line is refused by the caller, so the
      // rest is left as it is rather than written past the vector.
      if (count == CMD_MAXWORDS) return CMD_MAXWORDS + 1;
      vector[count++] = out;
    } else {
      *out++ = c;
    }
  }
  *out = '\0';
  return count;
}
