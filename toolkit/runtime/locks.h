// The toolkit's lock table: 16 process-wide recursive locks, initialised together.
#pragma once

constexpr int KIV_NLOCKS = 16;
constexpr int KIV_LOCK_NET = 5;    // the socket library start-up
constexpr int KIV_LOCK_INFO = 10;  // the info tree
constexpr int KIV_LOCK_LOG = 13;   // the log's output step
constexpr int KIV_LOCK_EVENTS = 14;  // the events' outlets and repeat limit

// Initialises all 16 locks once; later calls do nothing. Not safe against a concurrent
// first call: it runs at start-up, and the log calls it before its first use of slot 13.
void kiv_locks_init();
// True once kiv_locks_init has run.
bool kiv_locks_ready();
// Take and release one lock. The slot must lie in 0 .. KIV_NLOCKS - 1 and the table must
// be initialised; neither is checked, as these run on every log line and tree lookup.
void kiv_lock(int slot);
void kiv_unlock(int slot);
