#include "toolkit/runtime/mwait.h"

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/memory.h"

namespace {

constexpr DWORD GROUP = MAXIMUM_WAIT_OBJECTS - 1;  // slot 0 of each helper is `cancel`

// One helper thread and the group it waits on. The caller fills wait and count, then sets
// go; the helper waits on cancel plus the group, keeps its result, sets `woke` and, the
// last of the round to finish, `idle`.
struct helper {
  HANDLE thread;
  HANDLE go;  // auto-reset: one wait per signal
  HANDLE wait[MAXIMUM_WAIT_OBJECTS];
  DWORD count;  // entries of wait in use, cancel included
  DWORD result;
  DWORD error;  // the system's error when result is WAIT_FAILED
};

helper **helpers;
DWORD nhelpers, capacity;
HANDLE cancel;       // manual-reset; set to end every helper's wait
HANDLE woke;         // manual-reset; set by any helper whose wait returned
HANDLE idle;         // manual-reset; set by the last helper of a round to finish
volatile LONG busy;  // helpers of the current round still waiting

DWORD WINAPI helper_main(void *arg) {
  helper *h = static_cast<helper *>(arg);
  for (;;) {
    WaitForSingleObject(h->go, INFINITE);
    h->result = WaitForMultipleObjects(h->count, h->wait, FALSE, INFINITE);
    h->error = h->result == WAIT_FAILED ? GetLastError() : 0;
    SetEvent(woke);
    if (InterlockedDecrement(&busy) == 0) SetEvent(idle);
  }
}

HANDLE manual_event() { return CreateEventA(nullptr, TRUE, FALSE, nullptr); }

// Makes sure `groups` helpers exist; false (last error set) when the system refuses a
// thread, an event or memory. Helpers made so far are kept for the next try.
bool grow_helpers(DWORD groups) {
  if (!cancel && !(cancel = manual_event())) return false;
  if (!woke && !(woke = manual_event())) return false;
  if (!idle && !(idle = manual_event())) return false;
  if (groups > capacity) {
    auto *bigger = static_cast<helper **>(kiv_zalloc(groups * sizeof(helper *), "mwait.mwait_any"));
    if (!bigger) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return false;
    }
    if (nhelpers) CopyMemory(bigger, helpers, nhelpers * sizeof(helper *));
    xfree(helpers);
    helpers = bigger;
    capacity = groups;
  }
  while (nhelpers < groups) {
    helper *h = static_cast<helper *>(kiv_zalloc(sizeof(helper), "mwait.mwait_any"));
    if (!h) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return false;
    }
    h->go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (h->go)
      h->thread = CreateThread(nullptr, 64 * 1024, helper_main, h,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (!h->thread) {
      DWORD e = GetLastError();
      if (h->go) CloseHandle(h->go);
      xfree(h);
      SetLastError(e);
      return false;
    }
    helpers[nhelpers++] = h;
  }
  return true;
}

// Index of the lowest signalled handle of them all, or MWAIT_TIMEOUT; WAIT_FAILED (last
// error set) when a group's check fails.
DWORD scan(DWORD count, const HANDLE *handles, DWORD groups) {
  for (DWORD g = 0; g < groups; g++) {
    DWORD first = g * GROUP;
    DWORD n = count - first < GROUP ? count - first : GROUP;
    DWORD r = WaitForMultipleObjects(n, handles + first, FALSE, 0);
    if (r < n) return first + r;
    if (r == WAIT_FAILED) return WAIT_FAILED;
  }
  return MWAIT_TIMEOUT;
}

}  // namespace

DWORD WINAPI mwait_any(DWORD count, const HANDLE *handles, BOOL waitall, DWORD timeout,
                       BOOL alertable) {
  if (count <= MAXIMUM_WAIT_OBJECTS) {
    DWORD r = WaitForMultipleObjectsEx(count, handles, waitall, timeout, alertable);
    if (r == WAIT_TIMEOUT) return MWAIT_TIMEOUT;
    if (r == WAIT_IO_COMPLETION) return MWAIT_IO_COMPLETION;
    return r;
  }
  if (waitall) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  DWORD groups = (count + GROUP - 1) / GROUP;

  // Something already signalled needs no helper round trip.
  DWORD r = scan(count, handles, groups);
  if (r != MWAIT_TIMEOUT || timeout == 0) return r;
  if (!grow_helpers(groups)) return WAIT_FAILED;

  ResetEvent(cancel);
  ResetEvent(woke);
  ResetEvent(idle);
  busy = static_cast<LONG>(groups);
  for (DWORD g = 0; g < groups; g++) {
    helper *h = helpers[g];
    DWORD first = g * GROUP;
    DWORD n = count - first < GROUP ? count - first : GROUP;
    h->wait[0] = cancel;
    CopyMemory(h->wait + 1, handles + first, n * sizeof(HANDLE));
    h->count = n + 1;
    h->result = WAIT_TIMEOUT;
    SetEvent(h->go);
  }
  DWORD waited = WaitForSingleObjectEx(woke, timeout, alertable);
  // Every helper must be idle again before the caller may change or close its handles.
  SetEvent(cancel);
  WaitForSingleObject(idle, INFINITE);

  r = scan(count, handles, groups);
  if (r != MWAIT_TIMEOUT) return r;
  // A helper saw a handle that no longer shows as signalled (its wait consumed it):
  // report that one rather than lose it.
  for (DWORD g = 0; g < groups; g++) {
    helper *h = helpers[g];
    if (h->result >= WAIT_OBJECT_0 + 1 && h->result < WAIT_OBJECT_0 + h->count)
      return g * GROUP + (h->result - WAIT_OBJECT_0 - 1);
  }
  for (DWORD g = 0; g < groups; g++)
    if (helpers[g]->result == WAIT_FAILED) {
      SetLastError(helpers[g]->error);
      return WAIT_FAILED;
    }
  if (waited == WAIT_IO_COMPLETION) return MWAIT_IO_COMPLETION;
  if (waited == WAIT_FAILED) return WAIT_FAILED;
  return MWAIT_TIMEOUT;
}

DWORD mwait_all(DWORD count, const HANDLE *handles, DWORD timeout) {
  uint32_t begin = kiv_ticks();
  for (DWORD first = 0; first < count; first += MAXIMUM_WAIT_OBJECTS) {
    DWORD n = count - first < MAXIMUM_WAIT_OBJECTS ? count - first : MAXIMUM_WAIT_OBJECTS;
    DWORD left = timeout;
    if (timeout != INFINITE) {
      uint32_t spent = kiv_ticks() - begin;
      left = spent < timeout ? timeout - spent : 0;
    }
    DWORD r = WaitForMultipleObjects(n, handles + first, TRUE, left);
    if (r == WAIT_TIMEOUT) return MWAIT_TIMEOUT;
    if (r == WAIT_FAILED) return WAIT_FAILED;
  }
  return 0;
}
