// Line input into a dstr.
#pragma once
#include <cstdio>
#include "lib/dstr.h"

// Appends one line of stream to rec (the newline is not stored; a carriage return before
// it stays). Returns rec's buffer, or null at end of file when this call stored nothing,
// or when the stream was already at end of file or in error.
char *dfgets(FILE *stream, dstr *rec);
