// The toolkit's entry point to base64 encoding (lib/b64.h), with a toolkit result code.
#pragma once

// Encodes count bytes into out as b64_encode does (out holds 4 * ceil(count / 3) + 1).
// Returns the characters written (0 for count <= 0), or KIV_EINVAL for null bytes or
// output, or a count whose text would not fit an int.
int kiv_b64encode(const void *bytes, int count, char *out);
