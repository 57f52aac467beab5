#include "toolkit/runtime/locks.h"

#include <windows.h>

// Critical sections are recursive for the thread that holds them.
static CRITICAL_SECTION kiv_locks[KIV_NLOCKS];
static bool ready;

void kiv_locks_init() {
  if (ready) return;
  for (auto &cs : kiv_locks) InitializeCriticalSection(&cs);
  ready = true;
}

bool kiv_locks_ready() { return ready; }
void kiv_lock(int slot) { EnterCriticalSection(&kiv_locks[slot]); }
void kiv_unlock(int slot) { LeaveCriticalSection(&kiv_locks[slot]); }
