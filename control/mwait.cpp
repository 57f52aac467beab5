#include "control/mwait.h"

#include "lib/heap.h"
#include "toolkit/runtime/memory.h"

namespace {

constexpr DWORD GROUP = MAXIMUM_WAIT_OBJECTS - 1;  // slot 0 of each helper is `cancel`

// One helper thread and the group it waits on. The caller fills handles and count,
// then sets go; the helper waits on cancel plus the group and sets done with its result.
struct helper {
  HANDLE thread;
  HANDLE go;    // auto-reset: one wait per signal
  HANDLE done;  // manual-reset, reset by the caller before go
  HANDLE wait[MAXIMUM_WAIT_OBJECTS];
  DWORD count;  // entries of wait in use, cancel included
  DWORD result;
};

helper *helpers[MAXIMUM_WAIT_OBJECTS];
DWORD nhelpers;
HANDLE cancel;  // manual-reset; set to end every helper's wait

DWORD WINAPI helper_main(void *arg) {
  helper *h = static_cast<helper *>(arg);
  for (;;) {
    WaitForSingleObject(h->go, INFINITE);
    h->result = WaitForMultipleObjects(h->count, h->wait, FALSE, INFINITE);
    SetEvent(h->done);
  }
}

// Makes sure `groups` helpers exist; false when the system refuses a thread or event.
bool grow_helpers(DWORD groups) {
  if (!cancel && !(cancel = CreateEventA(nullptr, TRUE, FALSE, nullptr))) return false;
  while (nhelpers < groups) {
    helper *h = static_cast<helper *>(kiv_zalloc(sizeof(helper), "mwait.mwait_any"));
    if (!h) return false;
    h->go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    h->done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (h->go && h->done)
      h->thread = CreateThread(nullptr, 64 * 1024, helper_main, h,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (!h->thread) {
      if (h->go) CloseHandle(h->go);
      if (h->done) CloseHandle(h->done);
      xfree(h);
      return false;
    }
    helpers[nhelpers++] = h;
  }
  return true;
}

// Index of the lowest signalled handle of them all, or WAIT_TIMEOUT; WAIT_FAILED when a
// group's check fails.
DWORD scan(DWORD count, const HANDLE *handles, DWORD groups) {
  for (DWORD g = 0; g < groups; g++) {
    DWORD first = g * GROUP;
    DWORD n = count - first < GROUP ? count - first : GROUP;
    DWORD r = WaitForMultipleObjects(n, handles + first, FALSE, 0);
    if (r < n) return first + r;
    if (r == WAIT_FAILED) return WAIT_FAILED;
  }
  return WAIT_TIMEOUT;
}

}  // namespace

DWORD WINAPI mwait_any(DWORD count, const HANDLE *handles, BOOL waitall, DWORD timeout,
                       BOOL alertable) {
  if (count <= MAXIMUM_WAIT_OBJECTS)
    return WaitForMultipleObjectsEx(count, handles, waitall, timeout, alertable);
  if (waitall || count > MWAIT_MAX) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  DWORD groups = (count + GROUP - 1) / GROUP;

  // Something already signalled needs no helper round trip.
  DWORD r = scan(count, handles, groups);
  if (r != WAIT_TIMEOUT || timeout == 0) return r;
  if (!grow_helpers(groups)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return WAIT_FAILED;
  }

  HANDLE done[MAXIMUM_WAIT_OBJECTS];
  ResetEvent(cancel);
  for (DWORD g = 0; g < groups; g++) {
    helper *h = helpers[g];
    DWORD first = g * GROUP;
    DWORD n = count - first < GROUP ? count - first : GROUP;
    h->wait[0] = cancel;
    CopyMemory(h->wait + 1, handles + first, n * sizeof(HANDLE));
    h->count = n + 1;
    done[g] = h->done;
    ResetEvent(h->done);
    SetEvent(h->go);
  }
  DWORD woke = WaitForMultipleObjectsEx(groups, done, FALSE, timeout, alertable);
  // Every helper must be idle again before the caller may change or close its handles.
  SetEvent(cancel);
  WaitForMultipleObjects(groups, done, TRUE, INFINITE);

  r = scan(count, handles, groups);
  if (r != WAIT_TIMEOUT) return r;
  // A helper saw a handle that no longer shows as signalled (its wait consumed it):
  // report that one rather than lose it.
  for (DWORD g = 0; g < groups; g++) {
    helper *h = helpers[g];
    if (h->result >= WAIT_OBJECT_0 + 1 && h->result < WAIT_OBJECT_0 + h->count)
      return g * GROUP + (h->result - WAIT_OBJECT_0 - 1);
  }
  for (DWORD g = 0; g < groups; g++)
    if (helpers[g]->result == WAIT_FAILED) return WAIT_FAILED;
  if (woke == WAIT_IO_COMPLETION) return WAIT_IO_COMPLETION;
  if (woke == WAIT_FAILED) return WAIT_FAILED;
  return WAIT_TIMEOUT;
}
