// Encodes arbitrary bytes, checks the text's shape and decodes it back with a small
// reference decoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/b64.h"
#include "toolkit/runtime/base64.h"

namespace {
int value_of(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Null when the text is not canonical padded base64.
bool decode(const char *text, size_t length, std::string &out) {
  if (length % 4) return false;
  for (size_t i = 0; i < length; i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; k++) {
      char c = text[i + k];
      if (c == '=' && i + 4 == length && k >= 2) {
        pad++;
        v[k] = 0;
      } else if (pad || (v[k] = value_of(c)) < 0) {
        return false;
      }
    }
    unsigned group = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
    out += static_cast<char>(group >> 16);
    if (pad < 2) out += static_cast<char>((group >> 8) & 0xFF);
    if (pad < 1) out += static_cast<char>(group & 0xFF);
  }
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) size = 4096;
  int count = static_cast<int>(size);
  size_t room = 4 * ((size + 2) / 3) + 1;
  char *out = static_cast<char *>(malloc(room));  // exact: ASan sees overruns
  int n = b64_encode(size ? data : reinterpret_cast<const uint8_t *>(""), count, out);
  std::string back;
  if (n != static_cast<int>(room - 1) || out[n] != '\0' || !decode(out, static_cast<size_t>(n), back) ||
      back.size() != size || memcmp(back.data(), data, size) != 0)
    abort();
  if (kiv_b64encode(size ? data : reinterpret_cast<const uint8_t *>(""), count, out) != n) abort();
  free(out);
  return 0;
}
