// One call of the formatting engine with arguments as given, shared by the printf tests
// and the printf fuzz target.
#pragma once
#include <cstdarg>

#include "lib/dstr.h"
#include "lib/printf.h"

// Formats into the record when there is one, else into `size` bytes of the buffer. Not
// marked as printf-like, so the formats the compiler's checker rejects (%D, %y) pass.
inline int call(dstr *rec, char *buffer, unsigned size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = rec ? dstr_vformat(rec, -1, format, args) : xvsnprintf(buffer, size, format, args);
  va_end(args);
  return n;
}
