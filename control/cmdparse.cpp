// The interpreter's parsing of the arguments of "add", apart from everything that talks to
// the platform, the pipe or the port manager, so that it links (and is fuzzed) on its own.
#include "control/cmd.h"

#include <cstdlib>
#include <cstring>

#include "lib/dstr.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/getopt.h"

int cmd_addargs(int argc, char **argv, int *port, const char **pid, dstr *extra) {
  *port = 0;
  *pid = nullptr;
  kiv_optind = -1;
  for (int c; (c = kiv_getopt(argc, argv, "i:p:")) != -1;) {
    if (c == 'p')
      *port = atoi(kiv_optarg);
    else if (c == 'i')
      *pid = kiv_optarg;
    else if (c == '?')
      return KIV_EINVAL;
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
