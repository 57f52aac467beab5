// The toolkit allocator: the process heap, with every failure reported under the
// caller's log tag through the reporter the start-up installs (the toolkit's own,
// kiv_allocreport, writes the log line and the event). Blocks are released with xfree
// (lib/heap.h); the receiver of a block owns it.
#pragma once
#include <cstddef>

// Size 0 gives null without a report.
void *kiv_alloc(unsigned size, const char *tag);
void *kiv_zalloc(unsigned size, const char *tag);
// Size 0 releases the block and gives null; no block acts as kiv_alloc. When the heap
// refuses, reports and returns the old block unchanged: a caller that grows a block must
// not write beyond what it knows it has.
void *kiv_realloc(void *block, unsigned size, const char *tag);
// Hands the out-of-memory report to the installed reporter; a null tag reports under
// "kiv_alloc". Nothing is reported before a reporter is installed.
void kiv_allocfail(const char *tag, unsigned size);
// Installs the out-of-memory reporter (null: none). The allocator sits below the log and
// the events, which allocate through it: it is handed their report, never includes them.
using kiv_allocreporter = void (*)(const char *tag, unsigned size);
void kiv_setallocreporter(kiv_allocreporter report);

// As kiv_alloc for a size counted in size_t: a size beyond what the allocator's 32-bit
// size carries is refused and reported (as 4294967295 bytes) like a full heap.
void *kiv_allocsize(size_t size, const char *tag);
// A heap copy of the first length bytes of text with a terminator after them, owned by
// the caller; null when refused (reported under tag, as kiv_allocsize).
char *kiv_copytext(const char *text, size_t length, const char *tag);
