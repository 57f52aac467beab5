// The control pipe's server: a fixed number of instances of one message-mode named pipe,
// driven by overlapped I/O so that its events join the main loop's one wait. It knows
// nothing of commands. All operations run on the main loop's thread.
#pragma once
#include <windows.h>

constexpr int NPIPE_MAXINSTANCES = 16;
constexpr int NPIPE_BUFSIZE = 1024;     // read buffer per instance, platform buffer sizes
constexpr DWORD NPIPE_TIMEOUT = 10000;  // the pipe's default wait time for clients (ms)
// Replies queued for one client that does not read them, at most: twice the listing of
// every port number there is (65,534 lines of at most 256 bytes, with "!" and ".").
constexpr int NPIPE_QUEUE_MESSAGES = 2 * 65536;
constexpr long long NPIPE_QUEUE_BYTES = 2LL * 65536 * 256;

// Instance states.
constexpr int NPIPE_UNUSED = 0;
constexpr int NPIPE_LISTEN = 1;  // waiting for a client, or connected but not yet greeted
constexpr int NPIPE_CONNECTED = 2;

// The form of the platform's multiple-event wait (WSAWaitForMultipleEvents, mwait_any).
using npipe_waitfunc = DWORD(WINAPI *)(DWORD count, const HANDLE *handles, BOOL waitall,
                                       DWORD timeout, BOOL alertable);

// Creates `count` instances (cut to 16) of the pipe `name`, each listening. 0;
// KIV_EBUSY when a server exists already; KIV_ESYS on any platform failure (all undone).
int npipe_setup_server(int count, const char *name, SECURITY_ATTRIBUTES *security);
// Drops the instance's queued replies, disconnects its client and listens again.
// `index` is 0-based. 0, or KIV_ESYS when the new connect cannot be started.
int reset_pipe(int index);
// Hangs up on the client of pipe number `pipe` (1-based); an instance in NPIPE_LISTEN is left
// alone. Always 0.
int npipe_close(int pipe);
// Waits on the caller's `count` handles followed by the pipe's read and write events,
// for at most `timeout` ms in all however often write completions, handled inside,
// restart the wait. Returns a pipe number >= 1 when that instance has input or a new
// client; else 0 with the wait function's raw result in *index: below count, a caller's
// handle; else the wait's own code (mwait_any: MWAIT_TIMEOUT, WAIT_FAILED). The wait
// function must report a time-out by a value that is not below the total count.
int npipe_wait(DWORD count, const HANDLE *handles, DWORD timeout, BOOL alertable,
               npipe_waitfunc wait, DWORD *index);
// Runs when instance `index`'s write event fired: drops the finished reply, starts the
// next. 0, or KIV_EAGAIN when a write is left in flight.
int handle_write(int index);
// Collects what woke pipe number `pipe` and starts its next read. Returns the bytes of
// one message copied to buffer (at most size and 1024); KIV_EAGAIN nothing to deliver
// (*connected is set for a new client); KIV_EOF the client has gone (listening again);
// KIV_EOVERFLOW the message was longer than size and has been read and dropped;
// KIV_ESYS platform failure. A message collected just before its client hung up is
// still delivered (the instance listens again). connected may be null.
int npipe_read(int pipe, char *buffer, int size, int *connected);
// Queues bytes as one message to pipe number `pipe`. 0; KIV_ENOTREADY when the number
// is out of range or the instance is not NPIPE_CONNECTED (nothing queued); KIV_EOVERFLOW when
// the client's queue is full: it does not read, so it is hung up on (logged).
int npipe_write(int pipe, const char *bytes, int length);
// State of instance `index` (NPIPE_UNUSED when out of range). For tests.
int npipe_state(int index);
