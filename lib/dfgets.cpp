#include "lib/dfgets.h"

namespace {
// Room added when the buffer is full, as an append of an empty text with this count.
constexpr int GROW_BY = 32;

// A record without a buffer of its own gets one so that it can hold a terminator.
bool ensure_buffer(dstr *rec) { return rec->capacity > 0 || dstr_append(rec, "", 0) >= 0; }
}  // namespace

char *dfgets(FILE *stream, dstr *rec) {
  if (!stream || !rec) return nullptr;
  if (feof(stream) || ferror(stream)) return nullptr;
  if (!ensure_buffer(rec)) return nullptr;
  const int start = rec->length;
  int c;
  while ((c = getc(stream)) != EOF) {
    if (c == '\n') {
      rec->buffer[rec->length] = '\0';
      return rec->buffer;
    }
    if (rec->length + 1 >= rec->capacity && dstr_append(rec, "", GROW_BY) < 0) {
      // The heap refused: the character goes back to the stream and the part of the
      // line read so far stays in the record, so a later call can carry on. Null tells
      // the caller; feof() distinguishes this from the end of the file.
      ungetc(c, stream);
      rec->buffer[rec->length] = '\0';
      return nullptr;
    }
    rec->buffer[rec->length++] = static_cast<char>(c);
  }
  if (rec->length == start) return nullptr;
  rec->buffer[rec->length] = '\0';
  return rec->buffer;
}
