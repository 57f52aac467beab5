#include "tools/kivctl/answer.h"

#include <cstring>

#include "lib/cmdsplit.h"
#include "lib/strcase.h"

answer server_answer(const char *line, int length) {
  if (length > CMD_LINE) return answer::reply;  // "-Message too long"
  char copy[CMD_LINE + 1];
  memcpy(copy, line, static_cast<size_t>(length));
  copy[length] = '\0';
  char *words[CMD_MAXWORDS];
  int count = cmd_split(copy, words);
  if (words[0][0] == '\0') return answer::none;
  if (count > CMD_MAXWORDS) return answer::reply;  // "-Too many words"
  return xstrncasecmp(words[0], "quit", CMD_LINE + 1) == 0 ? answer::hangup : answer::reply;
}
