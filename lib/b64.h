// Base64 encoding (standard alphabet, with padding, no line breaks).
#pragma once

// Encodes count bytes into out, zero-terminated; out must hold 4 * ceil(count / 3) + 1.
// Returns the characters written (0 for count <= 0), or -1 for null bytes.
int b64_encode(const void *bytes, int count, char *out);

// Decodes count characters of standard base64 (padded, no blanks or line breaks) into
// out, which holds room bytes. Returns the bytes written, or -1 for null text or out, a
// count that is not a multiple of 4, a character outside the alphabet, misplaced
// padding, non-zero bits under the padding, or a result longer than room. Nothing is
// written past room; on -1 what was written is unspecified.
int b64_decode(const char *text, int count, void *out, int room);
