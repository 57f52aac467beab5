// What the port manager does to start an agent and hand it ports, and nothing more, so
// that agents are tested (and measured) against the real contract without the manager.
#pragma once

#include <string>

#include "agent/kivagent.h"

struct launched {
  HANDLE process;
  DWORD pid;
  HANDLE pipe;  // the write end; the child inherited the read end
};

// A listening socket on 127.0.0.1 on a port the system picks, left as the manager leaves
// its sockets: non-inheritable, non-blocking after its event selection ended. Returns
// INVALID_SOCKET on failure.
SOCKET listen_loopback(unsigned *port);
// A loopback port that was free a moment ago, for "on" ports the agent opens itself.
unsigned free_port();
// Starts "cmdline -C%#x" with inheritance on and the read end of a new pipe, as the
// manager does. Returns true with *out filled.
bool launch(const std::string &cmdline, launched *out);
// One agent command: the line and CR LF in one WriteFile.
bool send_line(HANDLE pipe, const std::string &line);
// "-Ptcp::<port>@<base64>" for sock duplicated for pid; empty on failure.
std::string port_line(SOCKET sock, unsigned port, DWORD pid);
// Closes the pipe (if still open) and the process handle.
void end_launch(launched *l);
// Waits up to ms for the process to end; its exit code, or -1 while it still runs.
long wait_exit(const launched &l, DWORD ms);

// Seconds on the performance counter, for benchmarks.
double seconds_now();
// The cold launch with nothing but the hand-over: a new listening socket, a client
// connecting, the agent cmdline started with the socket, up to the client's first echoed
// byte. Seconds, or -1 on failure; the agent keeps running in *l, the socket is *orig.
double cold_launch(const std::string &cmdline, launched *l, SOCKET *orig, unsigned *port);

// The path of a file given relative to the folder of this executable.
std::string beside_me(const char *relative);

// A client connected to 127.0.0.1:port with a receive time-out of 10 s, so that a port
// nobody serves fails the caller instead of hanging it. INVALID_SOCKET when refused.
SOCKET connect_loopback(unsigned port);
// Sends text and reads back as many bytes; true when they are the same.
bool echoes(SOCKET c, const std::string &text);
