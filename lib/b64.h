// Base64 encoding (standard alphabet, with padding, no line breaks).
#pragma once

// Encodes count bytes into out, zero-terminated; out must hold 4 * ceil(count / 3) + 1.
// Returns the characters written (0 for count <= 0), or -1 for null bytes.
int b64_encode(const void *bytes, int count, char *out);
