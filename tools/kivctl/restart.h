// `kivctl restart [SECONDS]` and `kivctl handover [SECONDS]`: kivd hands its sockets,
// agents and programs to a holder that waits SECONDS (60 by default) for its successor.
// restart waits for the successor to serve and prints what it took over and how long the
// service was between processes; handover (for installers) returns once kivd has ended,
// leaving the start of the successor to whoever replaces kivd's files.
#pragma once
#include <string>

// The reply of kivd to the hand-over: "+Handed over to holder H: ports=N agents=N
// programs=N kivd=P". False for any other text.
struct handover_reply {
  unsigned long holder = 0, kivd = 0;
  int ports = 0, agents = 0, programs = 0;
};
bool parse_handover_reply(const std::string &text, handover_reply *out);

// argv[0] is "restart" or "handover". Exit codes as kivctl's: 0 done (handover: also when
// no kivd runs), 1 refused (a "-" reply, a wrong word, no successor in time), 2 the pipe
// failed.
int kivctl_restart(int argc, char **argv, bool json);
