// dstr: a growable, always zero-terminated text.
#pragma once
#include <cstddef>
#include <cstdint>

struct dstr {
  int32_t length;    // characters in use
  int32_t capacity;  // size of buffer in bytes
  uint32_t flags;    // DSTR_ALLOCATED when dstr_init allocated the record itself
  char *buffer;      // owned by the record, unless laid over a caller's buffer
};
static_assert(offsetof(dstr, length) == 0 && offsetof(dstr, capacity) == 4 &&
                  offsetof(dstr, flags) == 8 && offsetof(dstr, buffer) > offsetof(dstr, flags),
              "dstr keeps its fields in this order");

constexpr uint32_t DSTR_ALLOCATED = 0x100000;
constexpr int DSTR_NULLREC = -10;  // result for a null record

// Sets up rec (or a new heap record when rec is null) with an empty 16-byte buffer.
// Returns the record, or null when the heap refuses.
dstr *dstr_init(dstr *rec);
// Appends at most count characters of text (count < 0: all of it). Returns the new length,
// DSTR_NULLREC for a null record, or -1 when the heap refuses (the record is unchanged).
int dstr_append(dstr *rec, const char *text, int count);
// Cuts the text to length (negative counts as 0); a longer length changes nothing.
// Returns the length afterwards, DSTR_NULLREC for a null record, -1 when a shrink fails.
int dstr_truncate(dstr *rec, int length);
// Releases the buffer (keep 0, returns null) or hands it to the caller (keep non-zero);
// releases the record too when dstr_init allocated it.
char *dstr_free(dstr *rec, int keep);
