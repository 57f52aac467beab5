// The loop's wait on any number of handles. The platform's own wait takes at most 64;
// beyond that the handles are split into groups of at most 63 that helper threads wait
// on, kept and reused across calls. Same form as the platform's multiple-event wait, so
// the pipe server takes it as its wait function.
#pragma once
#include <windows.h>

// Most handles one wait takes: 64 groups of 63.
constexpr DWORD MWAIT_MAX = 64 * 63;

// Waits until one handle is signalled, the time-out (ms, or INFINITE) passes, or (when
// alertable) an I/O completion routine ran. Returns the index of a signalled handle
// (WAIT_OBJECT_0 + i), WAIT_TIMEOUT, WAIT_IO_COMPLETION, or WAIT_FAILED (last error set:
// ERROR_INVALID_PARAMETER for wait-all or a count above MWAIT_MAX with more than 64
// handles). Up to 64 this is exactly the platform's wait. Beyond, the index is still the
// lowest signalled one of them all, found by a sweep after any helper wakes, so the
// loop's order of service (port manager, then `die`, then the pipe) holds at any size.
// Nothing starves: every handle the loop serves stops being signalled (events are reset,
// ended processes leave the list). Handles must be ones a wait does not consume
// (manual-reset events, processes): a helper thread may see a handle signalled before the
// caller does.
DWORD WINAPI mwait_any(DWORD count, const HANDLE *handles, BOOL waitall, DWORD timeout,
                       BOOL alertable);
