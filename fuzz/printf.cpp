// Builds a format from the input, of supported conversions each reading an argument of the
// type it expects from a fixed argument list. Checks that bounded output is the unbounded
// output cut to the size, with the same total and the same %n counts, and that nothing is
// written past the buffer.
#include "fuzz/fuzz.h"
#include "tests/lib/format.h"

namespace {
// Slot k of the argument list has the type PATTERN[k % 4]: I int, S text, L long, N int *.
const char PATTERN[] = "ISLN";
constexpr int SLOTS = 16;

#define ARGS(i, s, l, n)                                                                     \
  i[0], s[1], l[2], n + 3, i[4], s[5], l[6], n + 7, i[8], s[9], l[10], n + 11, i[12], s[13], \
      l[14], n + 15
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzzinput in;
  in.start(data, size);
  static const char *const texts[] = {"", "a", "kivd", "Listening on port", "\xe9t\xe9", nullptr};
  static const char *const convs[3][10] = {
      {"d", "i", "u", "x", "X", "o", "c", "hd", "hu", "hx"},
      {"s", "p", "s", "p", "s", "p", "s", "p", "s", "p"},
      {"ld", "li", "lu", "lx", "lX", "lo", "D", "U", "O", "lld"}};
  int i[SLOTS] = {};
  const char *s[SLOTS] = {};
  long l[SLOTS] = {};
  std::string f;
  for (int slot = 0; slot < SLOTS && in.more();) {
    unsigned op = in.byte();
    if (op % 4 == 0) {  // literal text
      for (unsigned k = in.byte() % 8; k; k--) {
        char c = static_cast<char>(in.byte());
        f += c == '%' ? std::string("%%") : std::string(1, c ? c : '.');
      }
      continue;
    }
    if (op % 16 == 1) {  // conversions printed as their own letter, reading nothing
      f += op & 32 ? "%5%" : "%-3y";
      continue;
    }
    f += '%';
    for (int k = 0; k < 5; k++)
      if (op & (8 << k)) f += "-0+ #"[k];
    unsigned width = in.byte(), precision = in.byte();
    if ((width & 1) && PATTERN[slot % 4] == 'I' && slot + 1 < SLOTS) {
      f += '*';
      i[slot++] = static_cast<int>(width) - 128;
    } else if (width & 2) {
      f += std::to_string(width % 41);
    }
    if ((precision & 1) && PATTERN[slot % 4] == 'I' && slot + 1 < SLOTS) {
      f += ".*";
      i[slot++] = static_cast<int>(precision % 41) - 10;
    } else if (precision & 2) {
      f += "." + std::to_string(precision % 21);
    }
    char type = PATTERN[slot % 4];
    f += type == 'N' ? "n" : convs[type == 'I' ? 0 : type == 'S' ? 1 : 2][in.byte() % 10];
    uint64_t value = 0;
    for (int k = 0; k < 8; k++) value = (value << 8) | in.byte();
    i[slot] = static_cast<int>(value);
    l[slot] = static_cast<long>(value);
    s[slot++] = texts[value % 6];
  }
  if (in.byte() & 1) f += '%';  // a lone % at the end
  int counts[2][SLOTS] = {};
  dstr rec;
  check(dstr_init(&rec) != nullptr);
  int total = call(&rec, nullptr, 0, f.c_str(), ARGS(i, s, l, counts[0]));
  check(total == rec.length);
  unsigned t = static_cast<unsigned>(total);
  for (unsigned cut : {0u, 1u, t / 2, t, t + 1, in.byte() % 64u}) {
    // Exactly `cut` bytes (one for 0, to see that nothing is written): ASan sees overruns.
    char *buffer = static_cast<char *>(malloc(cut ? cut : 1));
    buffer[0] = 'X';
    memset(counts[1], 0, sizeof counts[1]);
    check(call(nullptr, buffer, cut, f.c_str(), ARGS(i, s, l, counts[1])) == total);
    check(memcmp(counts[0], counts[1], sizeof counts[0]) == 0);
    size_t stored = cut ? std::min<size_t>(t, cut - 1) : 0;
    check(cut ? memcmp(buffer, rec.buffer, stored) == 0 && buffer[stored] == '\0'
              : buffer[0] == 'X');
    free(buffer);
  }
  dstr_free(&rec, 0);
  return 0;
}
