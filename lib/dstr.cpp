#include "lib/dstr.h"

#include <climits>
#include <cstring>

#include "lib/heap.h"

namespace {
constexpr int32_t INITIAL_CAPACITY = 16;
// Above this capacity a cut to a short text gives memory back.
constexpr int32_t SHRINK_ABOVE = 1024;
constexpr int32_t SHRINK_TO = 256;
}  // namespace

dstr *dstr_init(dstr *rec) {
  bool own = rec == nullptr;
  if (own) {
    // The whole record: on a 64-bit build it is larger than four 32-bit words.
    rec = static_cast<dstr *>(xrealloc(nullptr, sizeof(dstr), nullptr));
    if (!rec) return nullptr;
    rec->flags = DSTR_ALLOCATED;
  } else {
    rec->flags = 0;
  }
  rec->length = 0;
  rec->capacity = INITIAL_CAPACITY;
  rec->buffer = static_cast<char *>(xrealloc(nullptr, INITIAL_CAPACITY, nullptr));
  if (!rec->buffer) {
    if (own) {
      xfree(rec);
    } else {
      rec->capacity = 0;  // a caller's record stays safe to append to or free
    }
    return nullptr;
  }
  rec->buffer[0] = '\0';
  return rec;
}

int dstr_append(dstr *rec, const char *text, int count) {
  if (!rec) return DSTR_NULLREC;
  if (!text) text = "";  // a null text appends nothing, like an empty one
  if (count < 0) {
    size_t n = strlen(text);
    if (n > static_cast<size_t>(INT_MAX)) return -1;
    count = static_cast<int>(n);
  }
  // A record with no buffer of its own holds no text, whatever its length says.
  bool fresh = rec->capacity <= 0;
  int32_t length = fresh ? 0 : rec->length;
  if (length < 0) return -1;  // a corrupt record is refused rather than written through
  long long need = static_cast<long long>(length) + count + 1;
  if (need > INT_MAX) return -1;
  if (fresh || need > rec->capacity) {
    // Twice what is needed, but the capacity is a 32-bit int.
    long long grown = 2 * need > INT_MAX ? INT_MAX : 2 * need;
    // On refusal the record keeps its old buffer and capacity and stays usable;
    // the caller learns of it from the -1.
    char *buffer = static_cast<char *>(
        xrealloc(fresh ? nullptr : rec->buffer, static_cast<unsigned>(grown), nullptr));
    if (!buffer) return -1;
    rec->buffer = buffer;
    rec->capacity = static_cast<int32_t>(grown);
    rec->length = length;
  }
  int copied = 0;
  char *to = rec->buffer + length;
  while (copied < count && text[copied] != '\0') {
    to[copied] = text[copied];
    copied++;
  }
  to[copied] = '\0';
  rec->length = length + copied;
  return rec->length;
}

int dstr_truncate(dstr *rec, int length) {
  if (!rec) return DSTR_NULLREC;
  if (length < 0) length = 0;
  if (length >= rec->length) return rec->length;
  if (rec->capacity > SHRINK_ABOVE && length < SHRINK_TO) {
    // A refused shrink leaves the record as it was (text not cut), so the caller can
    // simply retry or go on with the larger buffer.
    char *buffer = static_cast<char *>(xrealloc(rec->buffer, SHRINK_TO, nullptr));
    if (!buffer) return -1;
    rec->buffer = buffer;
    rec->capacity = SHRINK_TO;
  }
  if (rec->buffer && length < rec->capacity) rec->buffer[length] = '\0';
  rec->length = length;
  return rec->length;
}

char *dstr_free(dstr *rec, int keep) {
  if (!rec) return nullptr;
  char *result = nullptr;
  if (keep) {
    if (rec->buffer && rec->length >= 0 && rec->length < rec->capacity)
      rec->buffer[rec->length] = '\0';
    result = rec->buffer;
  } else {
    xfree(rec->buffer);
  }
  if (rec->flags & DSTR_ALLOCATED) {
    xfree(rec);
  } else {
    // A caller's record is left empty and unbacked rather than pointing at a block it
    // no longer owns; a later append gives it a new buffer.
    rec->length = 0;
    rec->capacity = 0;
    rec->buffer = nullptr;
  }
  return result;
}
