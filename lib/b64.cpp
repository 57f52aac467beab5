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

// The value of a base64 character, or -1 for any byte outside the alphabet.
static int b64_value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

int b64_decode(const char *text, int count, void *out, int room) {
  if (!text || !out || count < 0 || count % 4 != 0 || room < 0) return -1;
  unsigned char *to = static_cast<unsigned char *>(out);
  int written = 0;
  for (int i = 0; i < count; i += 4) {
    const unsigned char *q = reinterpret_cast<const unsigned char *>(text) + i;
    // Padding only in the last group: "xx==" or "xxx=".
    int pad = 0;
    if (i + 4 == count) pad = q[3] == '=' ? (q[2] == '=' ? 2 : 1) : 0;
    unsigned group = 0;
    for (int k = 0; k < 4 - pad; k++) {
      int v = b64_value(q[k]);
      if (v < 0) return -1;
      group = (group << 6) | unsigned(v);
    }
    group <<= 6 * pad;
    // Only the encoder's own form is accepted: the bits under the padding are zero.
    if ((pad == 1 && (group & 0xFF)) || (pad == 2 && (group & 0xFFFF))) return -1;
    int n = 3 - pad;
    if (n > room - written) return -1;
    for (int k = 0; k < n; k++) to[written++] = static_cast<unsigned char>(group >> (16 - 8 * k));
  }
  return written;
}
