/* kivagent: what an agent program links to take its ports from the port manager.
 *
 * The port manager starts an agent with "<program> [-D<debug spec>] [extra] -C0x<handle>"
 * and writes on the inherited pipe, one line each ending in CR LF:
 *   "-Ptcp::<port>@<base64 of a 372-byte WSAPROTOCOL_INFOA>"  a handed-over listening socket
 *   "-Ptcp::<port>"                                            an "on" port: listen yourself
 *   "-Ptcp:<address>:<port>"  an "on" port configured with a local address: listen there
 *                             (an IPv6 address in brackets: "-Ptcp:[::1]:7007")
 *   "--"                                                       end of the port lines
 *   "lifespan <seconds>"                                       last line of the start-up
 * and later "remove tcp::<port>", "exit" and "reconfig". The manager closes the pipe
 * after "remove" of the agent's last port, and when it gives the agent up.
 *
 * Usage, the short way: kivagent_serve() does all of it and calls the agent's function for
 * each connection. The long way, for an agent that runs its own loop: kivagent_start() once
 * at the start of main (call WSAStartup first); serve agent.ports; wait on agent.event
 * along with your own handles and call kivagent_next() whenever it is signalled;
 * kivagent_end() before leaving. C-compatible. */
#pragma once

#include <winsock2.h>
#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results: 0 or one of these (the same numbers as the port manager's own codes). */
#define KIVAGENT_OK 0
#define KIVAGENT_ENOMEM (-2)
#define KIVAGENT_EOF (-6)        /* the pipe closed before the start-up was complete */
#define KIVAGENT_EINVAL (-7)     /* a garbled line, or no usable -C on the command line */
#define KIVAGENT_EOVERFLOW (-10) /* a line longer than KIVAGENT_MAXLINE */
#define KIVAGENT_ESYS (-12)      /* a system call failed */

/* Flags of kivagent_start: the mode of every handed-over socket. */
#define KIVAGENT_BLOCKING 0u /* the default */
#define KIVAGENT_NONBLOCKING 1u

/* The longest line accepted, terminator excluded; a port line for port 65535 has 509. */
#define KIVAGENT_MAXLINE 1023
/* The lifespan when the start-up brings none that can be read. */
#define KIVAGENT_DEFAULT_LIFESPAN 86400ul

struct kivagent_port {
  unsigned port; /* 1..65535 */
  SOCKET sock;   /* the handed-over listening socket; INVALID_SOCKET for an "on" port,
                      where the agent may store the socket it opens itself (see
                      kivagent_listen): kivagent_drop and kivagent_end close it too */
  const char *address; /* an "on" port's configured local address ("127.0.0.1", "::1",
                          "::"), owned by the library; NULL for every IPv4 address */
};

enum kivagent_kind {
  KIVAGENT_NONE = 0, /* nothing pending */
  KIVAGENT_REMOVE,   /* "remove tcp::<port>": stop serving port, close your copy */
  KIVAGENT_EXIT,     /* "exit": end now (the manager terminates agents after 5 s) */
  KIVAGENT_RECONFIG, /* "reconfig": the configuration was read again */
  KIVAGENT_CLOSED,   /* the pipe closed: the manager has no more use for this agent */
  KIVAGENT_ERROR     /* a line that could not be used; code and line say why */
};

struct kivagent_event {
  enum kivagent_kind kind;
  unsigned port; /* KIVAGENT_REMOVE; KIVAGENT_ERROR when the line named a valid port */
  int code;      /* KIVAGENT_ERROR: KIVAGENT_EINVAL, KIVAGENT_EOVERFLOW or KIVAGENT_ESYS */
  char line[80]; /* KIVAGENT_ERROR: the start of the line, cut, zero-terminated */
};

struct kivagent_state;

struct kivagent {
  struct kivagent_port *ports; /* nports entries in the order of the port lines */
  unsigned nports;
  unsigned long lifespan; /* seconds without a client after which the agent may end */
  const char *debug;      /* the text of the first argument beginning with -D (the
                                   manager's debug spec), in argv; or NULL */
  HANDLE event;           /* manual reset; signalled while kivagent_next has events */
  struct kivagent_state *state;
};

/* Reads -C and -D from argv, then the start-up lines up to "lifespan", rebuilding each
 * handed-over socket (non-inheritable, without overlapped I/O as the manager made it, in
 * the mode flags ask for). Garbled start-up lines do not stop it: each becomes a
 * KIVAGENT_ERROR event, waiting in kivagent_next.
 * Returns 0 with *agent filled; KIVAGENT_EINVAL when argv has no -C naming a pipe;
 * KIVAGENT_EOF when the pipe closes before "lifespan" (*agent keeps the ports read so
 * far and must still be ended); KIVAGENT_ENOMEM or KIVAGENT_ESYS. *agent is cleared
 * first, so kivagent_end is always safe after it. */
int kivagent_start(struct kivagent *agent, int argc, char **argv, unsigned flags);

/* Takes the oldest pending event into *ev without blocking. Returns 1 when an event was
 * taken, 0 when none is pending (ev->kind KIVAGENT_NONE; agent->event is then reset).
 * After KIVAGENT_CLOSED no further events come. */
int kivagent_next(struct kivagent *agent, struct kivagent_event *ev);

/* Closes the socket of port (the agent's copy) and marks the entry INVALID_SOCKET.
 * Returns 0, or KIVAGENT_EINVAL when port is not one of agent->ports. */
int kivagent_drop(struct kivagent *agent, unsigned port);

/* Opens a listening socket on port on all local IPv4 addresses, as the manager does for
 * the ports it holds: non-inheritable, without overlapped I/O, backlog 10, in the mode
 * flags ask for. Meant for "on" ports. Returns 0 with *sock set, or KIVAGENT_EINVAL/KIVAGENT_ESYS. */
int kivagent_listen(unsigned port, unsigned flags, SOCKET *sock);
/* The same on address (an "on" port's kivagent_port.address): a numeric IPv4 or IPv6
 * address, "::" taking IPv4 clients too; NULL is kivagent_listen. */
int kivagent_listen_on(unsigned port, const char *address, unsigned flags, SOCKET *sock);

/* Closes every socket still in agent->ports, the pipe and the event, and frees what
 * kivagent_start allocated; *agent is cleared. Safe on a cleared record. */
void kivagent_end(struct kivagent *agent);

/* Serving: the library takes the ports and serves them. */

/* One accepted connection, handed to the agent's function. The library fills it; size is
 * the size it knows, so a function built against a later header checks size before it
 * reads a field added later. */
struct kivagent_client {
  size_t size;
  SOCKET sock;                  /* the connection, blocking; the function closes it */
  unsigned port;                /* the port it came in on */
  struct sockaddr_storage peer; /* the client's address, peerlen bytes of it */
  int peerlen;
  HANDLE stop;   /* manual reset: signalled when the agent ends and the grace is over */
  void *context; /* the serving's context */
};

/* What the agent serves with. Set size to sizeof(struct kivagent_serving) and leave the
 * fields you do not use zero: a field added later is zero in an agent built before it. */
struct kivagent_serving {
  size_t size;
  const char *name; /* starts each line the library writes on standard error */
  /* Called on a thread of its own for each connection. The client counts as served until
   * it returns; the lifespan is time without one. */
  void (*client)(struct kivagent_client *client);
  void *context;
  unsigned max;   /* clients at once (0: no limit); past it, connections wait in the backlog */
  DWORD grace_ms; /* after "exit" or the pipe's end: how long clients may still run */
  DWORD stop_ms;  /* then how long clients told to stop may take to return */
};

/* The exit codes kivagent_serve returns. */
#define KIVAGENT_EXIT_DONE 0    /* "exit", the pipe's end, the lifespan spent without clients */
#define KIVAGENT_EXIT_NOPORT 1  /* no port could be served: the manager opens new sockets */
#define KIVAGENT_EXIT_STARTUP 2 /* no start-up, or a serving record the library does not know */

/* Reads the start-up as kivagent_start does and serves every port: a handed-over socket as
 * it came, an "on" port by listening on it (kivagent_listen), each port with a thread of
 * its own that accepts. Follows the commands: "remove" closes that port (its clients are
 * served to their end); "exit" and the pipe's end close every port, give clients grace_ms
 * to return, then signal their stop and wait stop_ms more; "reconfig" changes nothing.
 * Ends by itself once lifespan seconds have passed without a client and no connection
 * waits (so 0 serves the connections that started the agent, then ends; a connection taken
 * as it ends is served first). Garbled lines are written to
 * standard error and otherwise ignored. Returns the agent's exit code (KIVAGENT_EXIT_*);
 * clients still running are left to the end of the process. */
int kivagent_serve(int argc, char **argv, const struct kivagent_serving *serving);

#ifdef __cplusplus
}
#endif
