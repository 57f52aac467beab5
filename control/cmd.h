// The command interpreter of the control pipe: splits one message into words, finds the
// command and writes its reply ("+", a text beginning with "-", or a listing from "!"
// to ".") to the pipe instance the message came from, one pipe message per element.
// Runs on the main loop's thread.
#pragma once
#include "lib/cmdsplit.h"

struct dstr;
// The arguments of "add" (argv[0] is "add"): options "i:p:", then the extra arguments
// joined by blanks into extra (an initialised dstr). Returns the number of extra words
// (0: none), KIV_EINVAL for an unknown option or no non-zero -p (the usage reply), or
// KIV_ENOMEM. *pid points into argv, or is null without -i.
int cmd_addargs(int argc, char **argv, int *port, const char **pid, dstr *extra);

// The service host hands the interpreter its stop request ("quit -Q") at start-up.
using cmd_stopfunc = void (*)();
void cmd_setstop(cmd_stopfunc stop);
// And its hand-over ("restart", "handover"): it replies on pipe itself. Without one both
// commands are refused.
using cmd_handoverfunc = void (*)(int pipe, bool restart, int bound);
void cmd_sethandover(cmd_handoverfunc handover);
// The seconds a holder waits for its successor unless a command names others.
constexpr int CMD_HANDOVER_BOUND = 60;
constexpr int CMD_HANDOVER_BOUND_MAX = 3600;

// Runs one command line (NUL-terminated, at most CMD_LINE bytes; modified) from pipe
// number `pipe`, or -1 for the main loop's own "update", whose reply is dropped.
void cmd(int pipe, char *line);

// Handlers: pipe number, word count, word vector (the command word first).
void cmd_quit(int pipe, int argc, char **argv);
void cmd_info(int pipe, int argc, char **argv);
void cmd_reconfig(int pipe, int argc, char **argv);
void cmd_update(int pipe, int argc, char **argv);
void cmd_add(int pipe, int argc, char **argv);
void cmd_remove(int pipe, int argc, char **argv);
void cmd_disable(int pipe, int argc, char **argv);
void cmd_enable(int pipe, int argc, char **argv);
void cmd_ls(int pipe, int argc, char **argv);
// why [port|name]: a listing of the recent events of a port, service or global program,
// or without a word of kivd itself; "-Failed with code -..." for one it does not know.
void cmd_why(int pipe, int argc, char **argv);
// restart [seconds], handover [seconds]: kivd hands everything to a holder that waits
// that long for its successor; restart has the successor started, handover leaves that to
// an installer. "+Handed over ..." or a "-" text (kivd serves on).
void cmd_restart(int pipe, int argc, char **argv);
void cmd_handover(int pipe, int argc, char **argv);
// stats [port|name]: a listing of the counters (lib/wire.h's stats lines): every port,
// service and global program, then kivd's own line; with a word, the lines of that port or
// of the service and the program of that name; "-Failed with code -..." (KIV_ENOTFOUND)
// for a word that names none.
void cmd_stats(int pipe, int argc, char **argv);
