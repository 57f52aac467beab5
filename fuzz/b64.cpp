// Encodes arbitrary bytes and reads them back with the library's decoder; decodes the
// same bytes as text, into exact room, and re-encodes whatever it accepts.
#include "fuzz/fuzz.h"
#include "lib/b64.h"
#include "toolkit/runtime/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) size = 4096;
  int count = static_cast<int>(size);
  const uint8_t *bytes = size ? data : reinterpret_cast<const uint8_t *>("");
  size_t room = 4 * ((size + 2) / 3) + 1;
  char *out = static_cast<char *>(malloc(room));  // exact: ASan sees overruns
  uint8_t *back = static_cast<uint8_t *>(malloc(size + 1));
  int n = b64_encode(bytes, count, out);
  check(n == static_cast<int>(room - 1) && out[n] == '\0' &&
        b64_decode(out, n, back, count) == count && memcmp(back, bytes, size) == 0);
  check(kiv_b64encode(bytes, count, out) == n);
  check(!count ||
        b64_decode(out, n, back, count - 1) == -1);  // one byte short: refused, not overrun
  // The input as text: whatever decodes is the encoder's own form, so it encodes back
  // to the very same characters.
  int decoded = b64_decode(reinterpret_cast<const char *>(bytes), count, back, count);
  if (decoded >= 0) {
    check(decoded <= count);
    char *again = static_cast<char *>(malloc(4 * ((decoded + 2) / 3) + 1));
    check(b64_encode(back, decoded, again) == count && memcmp(again, bytes, size) == 0);
    free(again);
  }
  free(back);
  free(out);
  return 0;
}
