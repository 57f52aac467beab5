// In-place decoding of backslash escapes.
#pragma once

// Decodes \a \b \e \f \n \r \t, \ddd (up to three digits, weighted by 8, taken modulo 256)
// and \X (X itself) in place and terminates the text. A trailing lone backslash is dropped.
// Returns the new length, or -1 for a null text.
int unescape(char *text);
