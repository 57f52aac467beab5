// The service host: installation and removal of the service, the service main and its
// control handler, initialisation and the one event loop. The loop runs on one thread;
// the service control handler (another thread) touches only the status and `die`.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <ctime>

extern const char SSERV_NAME[];         // WIRE_SERVICE (lib/wire.h)
extern const char SSERV_DISPLAY[];      // "Varnel Agent Port Manager"
extern const char SSERV_PIPE[];         // WIRE_PIPE (lib/wire.h)
extern const char SSERV_DESCRIPTION[];  // what the service manager shows about the service
// Recovery set at install: restart after each of these (ms) for the first, second and
// later failures; the failure count starts afresh after a day without one.
extern const DWORD SSERV_RESTART_MS[3];
constexpr DWORD SSERV_RESET_SECONDS = 86400;
constexpr int SSERV_CMDLINE = 388;  // the installed command line, terminator included
constexpr int SSERV_WEEK = 604800;  // the wait when nothing is due

// Installation (install.cpp).
// `action` 'I' installs, 'U' stops and removes; debugspec may be null. Writes its
// messages to standard output. Returns the exit code, 0 or 1.
int install_service(int action, const char *debugspec);
// The installed command line: exe (in double quotes when it holds a blank), " -S" and,
// with a debug spec, " -D<spec>;>c:/kivd.txt",
// into buffer of size bytes. 0, or KIV_EOVERFLOW when it does not fit (buffer then empty).
int install_cmdline(char *buffer, int size, const char *exe, const char *debugspec);
// The running service's own registration put right: a path with a blank registered
// unquoted is quoted, and recovery is set when none is configured (an operator's own
// recovery is kept). Failures are logged as warnings.
void secure_registration();

// Service main and control handler, in the forms the service dispatcher calls.
void WINAPI kivw32_service_start(DWORD argc, char **argv);
void WINAPI kivw32_service_ctrl(DWORD control);

// Socket library, `die`, the control pipe, toolkit, info tree, port tables. 0, KIV_ESYS,
// or the pipe setup's code. Runs once per process.
int initialize();
// A block holding an absolute security descriptor whose access list admits the system
// account and the administrators (read and write), with a mandatory label (high, or
// kivd's own integrity where lower) that lets nothing below it read or write, or null.
// Released with xfree.
void *MakePipeSecurity();
// One wait of the loop on count handles, `die` the last of them, and the pipe's events.
// Returns as npipe_wait does; a time-out is MWAIT_TIMEOUT and `die` is count - 1. When
// the whole set cannot be waited on (logged once until it can again), it waits on `die`
// and the pipe alone for at most SSERV_RETRY_MS, so stop and the pipe keep working and a
// failing wait is never retried at once.
int loop_wait(DWORD count, HANDLE *handles, DWORD timeout, DWORD *index);
constexpr DWORD SSERV_RETRY_MS = 1000;
// The main loop; returns 0 after `die` was seen and the port manager shut down.
int run_service();
// Signals `die`. A stop before initialize is remembered and ends the loop at once.
void stop_service();
// Seconds the loop waits at now for the port manager's next due time: due - now + 1, 6
// when overdue, at most a week. The same with or without port-manager handles.
int wait_seconds(time_t due, time_t now);
