// The port manager: the records of ports, services, global programs and agents, built
// from the registry configuration and kept alive by the supervision pass. Everything
// here runs on the main loop's thread. Results are toolkit codes (0 or a negative code).
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <ctime>

#include "lib/dstr.h"
#include "toolkit/runtime/events.h"

// Registry key that holds the configuration (subkeys "tcp", "services", "global").
extern const char SSOCK_ROOT[];  // WIRE_ROOT (lib/wire.h)

// Re-reads the configuration and makes the tables agree with it; runs one pass. Always 0.
int ssock_reconfig();
// The supervision pass: removals, listening, launches, restarts; rebuilds the wait list
// and the next due time. Always 0.
int ssock_update();
// The wait list of the last pass: returns its count n; when n > 0 *handles is the array
// (n entries and room for five more; valid until the next pass). *due, the absolute
// calendar time of the next timed event, is always written.
unsigned ssock_waitset(HANDLE **handles, time_t *due);
// Handles the signalled entry `index` (0 .. n-1) of the last wait list: a connection on
// a listening port or the end of an agent, a global program or a hooking process.
// 0 or a negative code; the main loop ignores it.
int ssock_callback(unsigned index);

// Hands the manager the service's question "is the service stopping?". Once it answers
// true, nothing more is started: no port is listened on, no agent or global program is
// started, and a connection is accepted and closed. Without it the manager never stops.
using ssock_stopfunc = bool (*)();
void ssock_setstopping(ssock_stopfunc stopping);

// Control operations (the command interpreter's add, remove, disable, enable).
// ssock_add: 0, KIV_ECONFIG, KIV_EBUSY, KIV_ESYS. pid and extra_args may be null.
int ssock_add(int port, const char *pid, const char *extra_args);
int ssock_remove(int port);   // 0, KIV_ENOTFOUND, KIV_ECONFIG
int ssock_disable(int port);  // 0, KIV_ENOTFOUND, KIV_ECONFIG
int ssock_enable(int port);   // 0, KIV_ENOTFOUND, KIV_ECONFIG

// The listing: one call of write(context, line, length) per port record, in list order;
// the line has no terminator. The command interpreter hands the pipe's write operation
// and the pipe number. Always 0.
using ssock_writefunc = int (*)(int context, const char *text, int length);
int ssock_info(int context, ssock_writefunc write);

// `why`: the recent events of a port (what is all digits) or else of a service or global
// program of that name, one line each, oldest first (toolkit/runtime/events.h's format);
// a port's end with its state now, a line of number 0 (its fields port, service, state of
// serving, idle, resting, disabled or down, and pid, parent, until where they apply). A
// port, service or program without a record is answered from kivd's own events that name
// it. head, when given, is written before the first line. 0, or KIV_ENOTFOUND with nothing
// written (no record and no such event).
int ssock_why(const char *what, int context, ssock_writefunc write, const char *head = nullptr);
// The ring outlet's half in the manager: keeps ev's line (text, its message) in the rings
// of the records it names (its port, service, program). Events that name none are left
// alone, so a thread other than the loop's never touches the records through it.
// True when a record took it (for an event of a port: the port's record).
bool ssock_keep(const kivev_event *ev, const char *text);

// The stats listing: one line per port number (its current record; a removed one while no
// current record has its number), service and global program (lib/wire.h's stats lines),
// each a call of write as ssock_info's. With what: only the line of that port (all digits)
// or of the service and the program of that name; head, when given, is written before the
// first line. 0, or KIV_ENOTFOUND with nothing written when what names none.
int ssock_stats(int context, ssock_writefunc write, const char *what = nullptr,
                const char *head = nullptr);

// Shutdown, after the main loop has ended: agents told to exit and waited for up to 5 s,
// then terminated with the global programs. Always 0; the records are not freed.
int ssock_cleanup();

// Frees every record, socket, handle and the wait list and returns the manager to its
// state at process start (after ssock_cleanup, or with nothing running). For tests.
void ssock_reset();

// The hand-over of the records to another process, so that a restart or an upgrade cuts
// nothing: sockets, agents and programs live on in the receiver.
struct ssock_handed {
  int ports;
  int agents;
  int programs;
};
// Writes into *out (appended; cut back on failure) the hand-over of every record for the
// process `target` (id target_pid, opened with PROCESS_DUP_HANDLE): each port's listening
// socket duplicated for it (WSADuplicateSocketA, as for agents), each agent's process, pipe
// write end and job, each global program's process and job, each hooked port's parent
// process handle duplicated into it (DuplicateHandle, DUPLICATE_SAME_ACCESS, not
// inheritable). An idle port's event selection is cancelled first (the receiver selects
// again). Nothing of this process's own changes otherwise: on failure the caller goes on
// serving (call ssock_handover_resume()); the handles already duplicated are closed in the
// target again, but a socket's duplicate cannot be recalled: it goes with the target's end.
// counts (may be null) gets what the block carries. 0, KIV_ESYS (the failing call's error
// in *error), KIV_ENOMEM.
int ssock_handover_write(HANDLE target, DWORD target_pid, dstr *out, ssock_handed *counts,
                         DWORD *error);
// Selects FD_ACCEPT again on every idle listening socket after a hand-over that failed.
void ssock_handover_resume();
// Builds the records from a block written for this process, into a manager that holds
// none (at a process's start or after ssock_reset): ports (number, start mode, address,
// service by name, extra args and parent of a hooked port, flags with `until`: disables
// by command and rests with their ends), services (created with addservice(name), so they
// read the registry, then their start throttle state), agents (process, pid, pipe, job,
// owed, links recounted from the ports), global programs (name, program line, flags,
// until, throttle state, process, pid, job). `serve` true (the new kivd): each idle
// listening socket gets FD_ACCEPT selected on a new event. `serve` false (a holder): no
// selection, no accept, nothing else. Nothing is said to any agent, and the next
// ssock_reconfig keeps the rests and tells agents nothing, as at a start. A block it cannot read
// whole (or a manager that holds records) adopts nothing and returns KIV_EINVAL, closing
// every handle and socket the block named that it could take over. counts may be null.
// 0, KIV_EINVAL, KIV_ENOMEM.
int ssock_handover_read(const char *block, size_t length, bool serve, ssock_handed *counts);
