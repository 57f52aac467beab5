// The port manager's records and the operations its files share. Private to ports/:
// the service host and the command interpreter use ssock.h only. Tests of the port
// manager may include it to look at the records.
#pragma once
#include <winsock2.h>
// winsock2.h first: windows.h would otherwise bring the old winsock.h.
#include <windows.h>

#include <cstdint>
#include <ctime>

#include "lib/wire.h"
#include "ports/ssock.h"
#include "ports/util.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"

// Start modes; the listing names them through START_NAMES. Each is its configuration
// word's index in the port's start row plus 1.
constexpr int START_AUTO = 1;
constexpr int START_HOOK = 2;
constexpr int START_ON = 3;
extern const char *const START_NAMES[4];  // "", "Auto", "Hook", "On"

// Port flags.
// A record marked PORT_REMOVE is never live again: the pass tells its agent, closes its
// socket and frees it once no agent holds it. So at most one record of a number is live.
constexpr unsigned PORT_REMOVE = 0x1;    // find_port no longer sees it; the pass removes it
constexpr unsigned PORT_TOLD = 0x2;      // its agent was told to drop it; waits for its exit
constexpr unsigned PORT_DISABLED = 0x4;  // neither listened on nor started before `until`
constexpr unsigned PORT_EXIT = 0x8;      // removal tells a sole-port agent "exit"
constexpr unsigned PORT_ADOPTED = 0x10;  // handed over: the next reconfiguration acts as at start
// Set by every rest (disable_port): a timed disable without it is kivd's own pause.
constexpr unsigned PORT_REST = 0x20;

// Prog flags.
constexpr unsigned PROG_REMOVE = 0x1;
constexpr unsigned PROG_DISABLED = 0x2;  // not started again before a pass after `until`
constexpr unsigned PROG_KILLED = 0x4;    // TerminateProcess was sent
constexpr unsigned PROG_ADOPTED = 0x8;   // handed over: the next reconfiguration keeps its rest

constexpr time_t UNTIL_ENABLED =
    WIRE_UNTIL_ENABLED;  // a disable that only the enable command lifts

// Throttle and restart constants (seconds).
constexpr int AGENT_STARTS = 12;  // agent launches after the one that opened a period
constexpr int PROG_STARTS = 6;    // program starts after the one that opened a period
constexpr int START_PERIOD = 60;
constexpr int DISABLE_THROTTLED = 900;  // also a failed listen_on
constexpr int DISABLE_CRASHED = 3;      // also a launch that failed with ESYS
constexpr int DISABLE_MODECHANGE = 10;
constexpr int PROG_DISABLE_FAILED = 600;
constexpr int PROG_DISABLE_CRASHED = 60;
constexpr int NEXT_DUE_IDLE = 86400;
constexpr DWORD EXIT_EXCEPTION = 0xC0000000;  // exit codes at or above: ended by an exception
constexpr DWORD EXIT_UNKNOWN = 0x4711;        // used when GetExitCodeProcess fails

// Fixed buffers and limits.
constexpr int PATH_SIZE = SCHEMA_PATH_SIZE;            // configuration paths built from names
constexpr int PROGRAM_MAX = SCHEMA_AGENT_PROGRAM_MAX;  // agent program text of a service
constexpr int EXTRA_ARGS_MAX = 226;
constexpr int CMDLINE_SIZE = 512;  // agent command line before the -C piece
constexpr int SENDCMD_SIZE = 1024;
constexpr int LISTING_SIZE = 320;
constexpr int WAIT_SPARE = 5;  // free entries after the wait list's handles
constexpr int RECONFIG_AGENTS = 100;

struct service_record;
struct child_record;

struct port_record {
  uint16_t port;
  SOCKET sock;       // the manager's listening socket, or INVALID_SOCKET
  WSAEVENT event;    // bound to sock by WSAEventSelect; meaningful only while sock is
  char *extra_args;  // hooked ports: extra agent arguments
  HANDLE parent;     // hooked ports: the hooking process (SYNCHRONIZE), or null
  DWORD parent_pid;
  int start;                // START_*
  int refs;                 // configuration entries naming it in the current reconfiguration
  unsigned flags;           // PORT_*
  time_t until;             // end of a disable (PORT_DISABLED only)
  service_record *service;  // not owned
  child_record *agent;      // the agent that holds the port, shared with its other ports
  port_record *next;
  kivev_ring *ring;  // its recent events, for `why`; a successor of its number takes it over
  char *address;     // the configured local address (text); null: every IPv4 address
  // Its counts (counters.h's layout); a successor of its number takes them over.
  uint64_t counts[KIV_PORT_COUNTS];
  wire_stats_state state;  // as last accounted
  time_t state_since;      // when it was last accounted
};

struct service_record {
  char *name;  // as read from .tcp.s<port>.service
  char *description;
  char *program;  // agent program path, optionally with fixed arguments
  int nports;     // port records whose service this is
  int refs;
  int starts;           // launches counted in the current period
  time_t period_start;  // 0 before the first launch
  int account;          // ACCOUNT_* its agents run as
  job_limits limits;    // of each agent's job
  service_record *next;
  kivev_ring *ring;  // its recent events, for `why`
  uint64_t counts[KIV_SERVICE_COUNTS];
};

struct prog_record {
  char *name;     // <name> of .global.start.<name>
  char *program;  // command line
  int refs;
  unsigned flags;  // PROG_*
  time_t until;
  int starts;
  time_t period_start;
  HANDLE process;  // the running process, or null
  DWORD pid;
  int account;        // ACCOUNT_* it runs as
  job_limits limits;  // of its job
  HANDLE job;         // holds the running process and what it starts; closed at its end
  prog_record *next;
  kivev_ring *ring;  // its recent events, for `why`
  uint64_t counts[KIV_PROGRAM_COUNTS];
};

struct child_record {
  HANDLE process;
  DWORD pid;
  HANDLE pipe;  // the manager's write end of the agent pipe; null once closed
  int links;    // port records whose agent this is
  int listed;   // 0, 1, 2 while the wait list is built
  HANDLE job;   // holds the agent and what it starts; closing it ends them
  int owed;     // bytes of a "reconfig" notice a full pipe cut, written before any other line
};

// Module state (ports/records.cpp).
extern port_record *ssock_ports;        // ascending port numbers, newest of equal numbers last
extern service_record *ssock_services;  // newest first
extern prog_record *ssock_progs;        // newest first
extern unsigned ssock_waitcount;
extern HANDLE *ssock_waithandles;  // ssock_waitcount entries + WAIT_SPARE
extern uint16_t *ssock_waitports;  // port number per handle; 0 for a process handle
extern time_t ssock_nextdue;

// Records and lookups (records.cpp).
// The first record of that number not marked PORT_REMOVE; numbers above 65535 match none.
port_record *find_port(int number);
service_record *find_service(const char *name);  // exact, case-sensitive
prog_record *find_prog(const char *name);
// Creates or refreshes the service (description, program, account and limits re-read; an
// account or limit its row refuses is logged and leaves the service without a program).
// Null when the name is too long for its configuration paths (logged) or the heap refuses.
service_record *addservice(const char *name);
// Inserts a new record in order, listening on address (copied; null: every IPv4 address);
// a current record of the number is marked for removal and hands its socket over (same
// mode and address), is told to remove the port (another address) or to exit (other
// mode). Null only when the heap refuses.
port_record *addport(int number, service_record *svc, int start, const char *address = nullptr);
// The configured address of port number: 0 with *address (the caller's) or null when none
// is configured; KIV_ECONFIG (reported, naming the port and the value) for a value that
// is not an address, which is never taken for every address.
int port_address(int number, char **address);
// Emits the CONFIG_REFUSED event of text, refused by v's row, naming the value's path and
// the port (port non-zero) or the service or program `name` it belongs to.
void refused(const schema_value &v, const char *name, int port, const char *text);
// True when a and b are the same address text, or both are null.
bool same_address(const char *a, const char *b);
// Creates or refreshes the prog (flags cleared, program, account and limits re-read, refs
// counted). Null when the name is too long for its configuration path or its account or a
// limit is refused (both logged), or the heap refuses.
prog_record *addprog(const char *name);
// Closes a port's socket and its event together.
void close_socket(port_record *p);
// Destructors of records already taken out of their lists (or of an agent no port holds
// any more): each closes what the record owns and frees it. free_port closes the socket
// and the hooking process's handle and drops the port from its service's count.
void free_port(port_record *p);
void free_service(service_record *s);
void free_prog(prog_record *g);    // its process handle too, when it still has one
void free_child(child_record *c);  // its process handle and its pipe, when open

// Control operations (operations.cpp).
// A UTC breakdown (year, month, day, hour, minute) for when localtime cannot represent a
// time, as 0x7FFFFFFF east of UTC with a 32-bit time: the listing line is still written.
void utc_breakdown(time_t t, tm *out);

// Reconfiguration (reconfig.cpp).
int servnode_cb(const char *path, const char *value, void *arg);
int tcpnode_cb(const char *path, const char *value, void *arg);
int startnode_cb(const char *path, const char *value, void *arg);

// Launching (launch.cpp).
// Each start below that fails with KIV_ESYS puts the system's error of that failure, for
// its event, in *error; other results leave *error as it was.
// 0, KIV_ECONFIG, KIV_EINVAL (throttled), KIV_ESYS, KIV_ENOMEM.
int start_agent(port_record *p, DWORD *error);
// An agent's pipe of size bytes whose write end never waits (sendcmd): false, with the
// system's error, when it cannot be made.
bool agent_pipe(HANDLE *read, HANDLE *write, DWORD size);
// Starts command_line plus " -C<read end>" as `account`, in a job of its own with `limits`;
// the new process inherits the read end of a fresh pipe of pipe_size bytes (and the
// standard handles, nothing else). c gets the process, its id, the pipe's write end and
// the job. 0, KIV_ESYS, KIV_ENOMEM.
int start_child(const char *application, const char *command_line, DWORD pipe_size, int account,
                const job_limits &limits, child_record *c, DWORD *error);
int start_prog(prog_record *pg, DWORD *error);  // 0, KIV_EINVAL (throttled), KIV_ESYS
// Writes one agent command and CR LF without waiting for the agent: a command its full
// pipe cannot take ends the agent. Nothing once the child's pipe is closed.
void sendcmd(child_record *c, const char *format, ...) KIV_PRINTF(2, 3);
// Writes the "reconfig" notice, which an agent may miss: dropped while its pipe is full.
void send_reconfig(child_record *c);
// The throttle shared by agents and programs: counts a start in *starts / *period_start;
// false when `limit` starts already followed the one that opened a period still running.
bool start_allowed(int *starts, time_t *period_start, int limit);

// A record's count of row ID, checked to be a row of the record's kind.
template <wire_stat ID>
uint64_t &count_of(port_record *p) {
  static_assert(KIV_STAT_KIND[ID] == WIRE_OF_PORT, "a port's row");
  return p->counts[ID - kiv_stats_first(WIRE_OF_PORT)];
}
template <wire_stat ID>
uint64_t &count_of(service_record *s) {
  static_assert(KIV_STAT_KIND[ID] == WIRE_OF_SERVICE, "a service's row");
  return s->counts[ID - kiv_stats_first(WIRE_OF_SERVICE)];
}
template <wire_stat ID>
uint64_t &count_of(prog_record *g) {
  static_assert(KIV_STAT_KIND[ID] == WIRE_OF_PROGRAM, "a program's row");
  return g->counts[ID - kiv_stats_first(WIRE_OF_PROGRAM)];
}
// Counts an end of exit code `code` in a record's ZERO, CODE, EXCEPTION rows, the first
// of them at `ends`, and sets its last exit and its time when it has them (last, not null).
void count_end(uint64_t *ends, DWORD code, uint64_t *last = nullptr);
// Performance counter ticks in microseconds (0 for none or fewer), as a launch is counted.
uint64_t microseconds(long long ticks);

// The port's state in the stats listing at now.
wire_stats_state stats_state(const port_record *p, time_t now);
// Adds the time since p was last accounted to the seconds of the state it had then, and
// takes its state now: run by every pass and the stats listing, so a state's time is
// counted up to the pass that ends it.
void account_state(port_record *p, time_t now);

// Supervision (supervise.cpp).
// Rests p for `seconds` (its socket closed), unless it is marked for removal or disabled
// by command: a rest neither revives a removed record nor shortens such a disable. A rest
// that takes effect counts in p's row `cause` and emits `why` (when given) with p's port,
// service and the rest's end.
void disable_port(port_record *p, int seconds, wire_stat cause, kivev_event *why = nullptr);
// A live record taken out of service by the disable command: the pass tells its agent and
// closes its socket, and it stays, disabled, until enabled. Its successor inherits it.
inline bool disabled_by_command(const port_record *p) {
  return (p->flags & PORT_DISABLED) && p->until == UNTIL_ENABLED;
}
