#include "control/cmd.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>

#include "control/npipe.h"
#include "lib/dstr.h"
#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/strcase.h"
#include "ports/ssock.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"

namespace {

cmd_stopfunc stop_request;
cmd_handoverfunc handover_request;

using handler = void (*)(int pipe, int argc, char **argv);
struct command {
  const char *name;
  handler run;
};
const command table[] = {
    {"quit", cmd_quit},       {"info", cmd_info},       {"reconfig", cmd_reconfig},
    {"update", cmd_update},   {"add", cmd_add},         {"remove", cmd_remove},
    {"disable", cmd_disable}, {"enable", cmd_enable},   {"ls", cmd_ls},
    {"why", cmd_why},         {"restart", cmd_restart}, {"handover", cmd_handover},
    {"stats", cmd_stats},
};

// Whether the command being run has answered "-...": it is then counted as refused.
bool refused;

void reply(int pipe, const char *text) {
  refused |= text[0] == '-';
  npipe_write(pipe, text, static_cast<int>(strlen(text)));
}

void reply_result(int pipe, int rc) {
  if (rc == 0) {
    reply(pipe, "+");
    return;
  }
  char text[40];
  xsnprintf(text, sizeof text, "-Failed with code %d", rc);
  reply(pipe, text);
}

// remove, disable and enable: one port number; leading digits count.
void port_command(int pipe, int argc, char **argv, int (*op)(int), const char *usage) {
  int port = argc > 1 ? atoi(argv[1]) : 0;
  if (port == 0) {
    reply(pipe, usage);
    return;
  }
  reply_result(pipe, op(port));
}

// restart and handover: an optional bound in seconds, 1 to CMD_HANDOVER_BOUND_MAX.
void handover_command(int pipe, int argc, char **argv, bool restart, const char *usage) {
  int bound = CMD_HANDOVER_BOUND;
  if (argc > 2 ||
      (argc == 2 && (strspn(argv[1], "0123456789") != strlen(argv[1]) || strlen(argv[1]) > 4 ||
                     (bound = atoi(argv[1])) < 1 || bound > CMD_HANDOVER_BOUND_MAX))) {
    reply(pipe, usage);
    return;
  }
  if (!handover_request) {
    reply(pipe, "-Hand-over not available");
    return;
  }
  handover_request(pipe, restart, bound);
}

}  // namespace

void cmd_setstop(cmd_stopfunc stop) { stop_request = stop; }

void cmd_sethandover(cmd_handoverfunc handover) { handover_request = handover; }

void cmd_restart(int pipe, int argc, char **argv) {
  handover_command(pipe, argc, argv, true, "-Usage: restart [seconds]");
}

void cmd_handover(int pipe, int argc, char **argv) {
  handover_command(pipe, argc, argv, false, "-Usage: handover [seconds]");
}

void cmd(int pipe, char *line) {
  if (pipe >= 0) KIV_LOG(3, "sserv.cmd", "\"%s\"", line);
  char *words[CMD_MAXWORDS];
  int count = cmd_split(line, words);
  if (words[0][0] == '\0') return;
  refused = false;
  const command *found = nullptr;
  for (const command &c : table)
    if (xstrncasecmp(words[0], c.name, CMD_LINE + 1) == 0) found = &c;
  if (count > CMD_MAXWORDS)
    reply(pipe, "-Too many words");
  else if (found)
    found->run(pipe, count, words);
  else
    reply(pipe, "-Unknown command");
  // The loop's own "update" is no client's command.
  if (pipe >= 0) kiv_count(refused ? WIRE_STAT_KIVD_COMMANDS_REFUSED : WIRE_STAT_KIVD_COMMANDS);
}

void cmd_quit(int pipe, int argc, char **argv) {
  if (argc > 1 && strcmp(argv[1], "-Q") == 0 && stop_request) stop_request();
  npipe_close(pipe);
}

void cmd_info(int pipe, int, char **) {
  reply(pipe, "!");
  char name[128];
  DWORD size = sizeof name;
  if (GetUserNameA(name, &size)) {
    char text[160];
    xsnprintf(text, sizeof text, "My UserName: %s", name);
    reply(pipe, text);
  }
  reply(pipe, ".");
}

void cmd_reconfig(int pipe, int, char **) {
  ssock_reconfig();
  reply(pipe, "+");
}

void cmd_update(int pipe, int, char **) {
  ssock_update();
  reply(pipe, "+");
}

void cmd_add(int pipe, int argc, char **argv) {
  int port = 0;
  const char *pid = nullptr;
  dstr extra;
  dstr_init(&extra);
  int words = cmd_addargs(argc, argv, &port, &pid, &extra);
  if (words == KIV_EINVAL)
    reply(pipe, "-Usage: add -p port [-i pid] -- extra_args");
  else if (words < 0)
    reply_result(pipe, words);
  else
    reply_result(pipe, ssock_add(port, pid, words ? extra.buffer : nullptr));
  dstr_free(&extra, 0);
}

void cmd_remove(int pipe, int argc, char **argv) {
  port_command(pipe, argc, argv, ssock_remove, "-Usage: remove port");
}

void cmd_disable(int pipe, int argc, char **argv) {
  port_command(pipe, argc, argv, ssock_disable, "-Usage: disable port");
}

void cmd_enable(int pipe, int argc, char **argv) {
  port_command(pipe, argc, argv, ssock_enable, "-Usage: enable port");
}

void cmd_ls(int pipe, int, char **) {
  reply(pipe, "!");
  ssock_info(pipe, npipe_write);
  reply(pipe, ".");
}

void cmd_stats(int pipe, int argc, char **argv) {
  if (argc > 1) {
    if (int rc = ssock_stats(pipe, npipe_write, argv[1], "!"))
      reply_result(pipe, rc);
    else
      reply(pipe, ".");
    return;
  }
  reply(pipe, "!");
  ssock_stats(pipe, npipe_write);
  char line[KIV_STATS_LINE];
  int length = kiv_counters_line(line, sizeof line, GetCurrentProcessId());
  npipe_write(pipe, line, length);
  reply(pipe, ".");
}

void cmd_why(int pipe, int argc, char **argv) {
  // Without a word: kivd's own events (those that name no record, refused values, and the
  // events of ports without a record).
  if (argc < 2) {
    reply(pipe, "!");
    char line[KIVEV_LINE_SIZE];
    for (int i = 0; kivev_own_line(i, line, sizeof line); i++) reply(pipe, line);
    reply(pipe, ".");
    return;
  }
  // The listing's "!" goes first, once the name is known; nothing is written for one that is not.
  if (int rc = ssock_why(argv[1], pipe, npipe_write, "!")) {
    reply_result(pipe, rc);
    return;
  }
  reply(pipe, ".");
}
