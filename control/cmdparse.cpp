// The interpreter's parsing of a line, apart from everything that talks to the platform,
// the pipe or the port manager, so that it links (and is fuzzed) on its own.
#include "control/cmd.h"

#include <cstdlib>
#include <cstring>

#include "lib/dstr.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/getopt.h"

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

int cmd_addargs(int argc, char **argv, int *port, const char **pid, dstr *extra) {
  *port = 0;
  *pid = nullptr;
  kiv_optind = -1;
  for (int c; (c = kiv_getopt(argc, argv, "i:p:")) != -1;) {
    if (c == 'p') *port = atoi(kiv_optarg);
    else if (c == 'i') *pid = kiv_optarg;
    else if (c == '?') return KIV_EINVAL;
  }
  if (*port == 0) return KIV_EINVAL;
  // The words come from one line of at most CMD_LINE bytes: the joined text is no longer.
  int words = 0;
  for (int i = kiv_optind; i < argc; i++, words++) {
    if ((words && dstr_append(extra, " ", 1) < 0) || dstr_append(extra, argv[i], -1) < 0)
      return KIV_ENOMEM;
  }
  return words;
}
