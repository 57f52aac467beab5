// Waits on any number of handles. The platform's own wait takes at most 64; the main
// loop's set (listening ports, agents, programs, the pipe, `die`) and shutdown's wait for
// every agent take more. Windows build only.
#pragma once
#include <windows.h>

// Results that no index can be, whatever the count: the platform's WAIT_TIMEOUT (258) and
// WAIT_IO_COMPLETION (192) are indexes too once there are that many handles.
constexpr DWORD MWAIT_TIMEOUT = 0xFFFFFFFE;
constexpr DWORD MWAIT_IO_COMPLETION = 0xFFFFFFFD;

// Wait-any. Waits until one handle is signalled, the time-out (ms, or INFINITE) passes, or
// (when alertable) an I/O completion routine ran. Returns the index of a signalled handle,
// MWAIT_TIMEOUT, MWAIT_IO_COMPLETION, or WAIT_FAILED (last error set: ERROR_INVALID_PARAMETER
// for waitall with more than 64 handles, which mwait_all serves; the system's error when a
// helper thread or event cannot be made or a handle is invalid). Up to 64 handles this is
// the platform's wait. Beyond, the handles are split into groups of at most 63 that helper
// threads wait on, kept and reused across calls; the index is still the lowest signalled
// one of them all, found by a sweep after any helper wakes, so the loop's order of service
// (port manager, then `die`, then the pipe) holds at any size. Nothing starves: every
// handle the loop serves stops being signalled (events are reset, ended processes leave
// the list). Handles must be ones a wait does not consume (manual-reset events,
// processes): a helper thread may see a handle signalled before the caller does. Same form
// as the platform's multiple-event wait, so the pipe server takes it as its wait function.
DWORD WINAPI mwait_any(DWORD count, const HANDLE *handles, BOOL waitall, DWORD timeout,
                       BOOL alertable);

// Wait-all. Waits until every handle is signalled or the time-out (ms, or INFINITE, one
// limit for them all, measured with the toolkit's tick) passes. Returns 0, MWAIT_TIMEOUT,
// or WAIT_FAILED (last error set). Beyond 64 handles the groups are waited for one after
// another on the caller's thread, so the handles must stay signalled once signalled
// (ended processes, manual-reset events). A count of 0 returns 0.
DWORD mwait_all(DWORD count, const HANDLE *handles, DWORD timeout);
