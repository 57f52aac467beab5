#include "toolkit/runtime/locks.h"

#include <mutex>

// The portable build's nearest equivalent of a critical section.
static std::recursive_mutex kiv_locks[KIV_NLOCKS];
static bool ready;

void kiv_locks_init() { ready = true; }
bool kiv_locks_ready() { return ready; }
void kiv_lock(int slot) { kiv_locks[slot].lock(); }
void kiv_unlock(int slot) { kiv_locks[slot].unlock(); }
