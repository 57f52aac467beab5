// The command interpreter's parsing of one control message: splitting in place, and the
// arguments of "add". Each word must lie inside the line, the vector is never overrun,
// and the joined extra arguments are never longer than the line.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "control/cmd.h"
#include "control/cmdparse.cpp"  // portable; control/ itself is built for Windows only
#include "lib/dstr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > CMD_LINE) size = CMD_LINE;
  char line[CMD_LINE + 1];
  memcpy(line, data, size);
  line[size] = '\0';
  size_t length = strlen(line);
  struct {
    char *vector[CMD_MAXWORDS];
    char *guard;
  } v;
  v.guard = nullptr;
  int n = cmd_split(line, v.vector);
  if (n < 1 || n > CMD_MAXWORDS + 1 || v.guard) abort();
  int words = n > CMD_MAXWORDS ? CMD_MAXWORDS : n;
  for (int i = 0; i < words; i++) {
    if (v.vector[i] < line || v.vector[i] > line + length) abort();
    if (v.vector[i] + strlen(v.vector[i]) > line + length) abort();
  }
  if (n <= CMD_MAXWORDS) {
    v.vector[0] = const_cast<char *>("add");
    int port;
    const char *pid;
    dstr extra;
    dstr_init(&extra);
    int r = cmd_addargs(n, v.vector, &port, &pid, &extra);
    if (r >= 0 && (port == 0 || extra.length > static_cast<int>(length))) abort();
    dstr_free(&extra, 0);
  }
  return 0;
}
