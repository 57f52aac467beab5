// Heap wrappers. xfree is the one release routine of the whole system: it releases
// blocks from these wrappers and from the toolkit allocator alike.
#pragma once

// Status word: routines that take `status` set *status to 0 when xrealloc returned no
// block (size 0, or the heap refused); success leaves it alone. It may be null.

// Allocates (block null), resizes or, with size 0, releases. On failure returns null and
// the given block stays valid and owned by the caller. Reports nothing.
void *xrealloc(void *block, unsigned size, int *status);
void xfree(void *block);
// A heap copy of text with its terminator; null gives null.
char *xstrdup(const char *text, int *status);
// A heap copy of exactly count bytes, no terminator; null or count 0 gives null.
void *memdup(const void *bytes, unsigned count, int *status);

// Fault injection for tests: after `n` more successful allocations or resizes, every
// further one fails until the next call. A negative n turns injection off (the default).
void xheap_failafter(long n);
