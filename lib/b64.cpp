#include "lib/b64.h"

namespace {
const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// The largest count whose text length, 4 * ceil(count / 3), still fits an int.
constexpr int MAX_COUNT = 536870911 * 3;
}  // namespace

int b64_encode(const void *bytes, int count, char *out) {
  // No output buffer is refused like no bytes; so is a count whose length overflows.
  if (!bytes || !out || count > MAX_COUNT) return -1;
  if (count <= 0) {
    out[0] = '\0';
    return 0;
  }
  const unsigned char *in = static_cast<const unsigned char *>(bytes);
  char *to = out;
  int i = 0;
  for (; count - i >= 3; i += 3) {
    unsigned group = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8) | in[i + 2];
    to[0] = ALPHABET[group >> 18];
    to[1] = ALPHABET[(group >> 12) & 63];
    to[2] = ALPHABET[(group >> 6) & 63];
    to[3] = ALPHABET[group & 63];
    to += 4;
  }
  if (count - i == 1) {
    unsigned group = unsigned(in[i]) << 16;
    to[0] = ALPHABET[group >> 18];
    to[1] = ALPHABET[(group >> 12) & 63];
    to[2] = '=';
    to[3] = '=';
    to += 4;
  } else if (count - i == 2) {
    unsigned group = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8);
    to[0] = ALPHABET[group >> 18];
    to[1] = ALPHABET[(group >> 12) & 63];
    to[2] = ALPHABET[(group >> 6) & 63];
    to[3] = '=';
    to += 4;
  }
  *to = '\0';
  return static_cast<int>(to - out);
}
