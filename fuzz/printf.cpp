// Builds a format from the input, only of supported conversions, each reading an argument
// of the type it expects from a fixed argument list. Checks that bounded output is the
// unbounded output cut to the size (with the same total and the same %n counts), that
// nothing is written past the buffer, and, where every conversion means the same to the
// C library, that the output is the C library's.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/dstr.h"
#include "lib/printf.h"

namespace {
// The argument list: slot k has the type PATTERN[k % 8]. I int, S text, L long, N int *.
const char PATTERN[] = "ISIISILN";
constexpr int SLOTS = 24;

struct arguments {
  int i[SLOTS];
  const char *s[SLOTS];
  long l[SLOTS];
  int *n[SLOTS];
};

#define ARGS(a, counts)                                                                     \
  a.i[0], a.s[1], a.i[2], a.i[3], a.s[4], a.i[5], a.l[6], counts + 7, a.i[8], a.s[9],      \
      a.i[10], a.i[11], a.s[12], a.i[13], a.l[14], counts + 15, a.i[16], a.s[17], a.i[18], \
      a.i[19], a.s[20], a.i[21], a.l[22], counts + 23

struct input {
  const uint8_t *p;
  size_t n;
  uint8_t byte() {
    if (!n) return 0;
    n--;
    return *p++;
  }
  int small(int range) { return byte() % range; }
};

int unbounded(dstr *rec, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = dstr_vformat(rec, -1, format, args);
  va_end(args);
  return n;
}

int bounded(char *buffer, unsigned size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = xvsnprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

int clib(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

// Appends one conversion reading slot `slot` (and before it any "*" slots); returns the
// next free slot. Clears c_ok when the C library would read it otherwise.
int conversion(input &in, arguments &a, std::string &f, int slot, bool &c_ok) {
  std::string piece = "%";
  uint8_t flags = in.byte();
  bool left = flags & 1, zero = flags & 2, plus = flags & 4, blank = flags & 8, alt = flags & 16;
  if (left) piece += '-';
  if (zero) piece += '0';
  if (plus) piece += '+';
  if (blank) piece += ' ';
  if (alt) piece += '#';
  if ((flags & 32) && PATTERN[slot % 8] == 'I' && slot + 1 < SLOTS) {
    a.i[slot] = in.small(81) - 40;
    if (a.i[slot] < 0) left = true;
    piece += '*';
    slot++;
  } else if (flags & 64) {
    piece += std::to_string(in.small(41));
  }
  bool has_precision = false;
  int precision_byte = in.byte();
  if ((precision_byte & 1) && PATTERN[slot % 8] == 'I' && slot + 1 < SLOTS) {
    a.i[slot] = in.small(41) - 10;
    has_precision = a.i[slot] >= 0;
    piece += ".*";
    slot++;
  } else if (precision_byte & 2) {
    has_precision = true;
    piece += "." + std::to_string(in.small(21));
  }
  bool is_signed = false, is_hex = false, is_text = false, is_char = false, negative = false,
       nonzero = false;
  switch (PATTERN[slot % 8]) {
    case 'I': {
      uint8_t pick = in.byte();
      char conv = "diuxXoc"[pick % 7];
      int value = static_cast<int>(in.byte() | (in.byte() << 8) | (in.byte() << 16) |
                                   (static_cast<unsigned>(in.byte()) << 24));
      if (pick & 128) {
        if (conv == 'c') c_ok = false;
        piece += 'h';
        value = static_cast<short>(value);  // keeps the C library's %hu agreeing
        if (conv != 'd' && conv != 'i') value &= 0xFFFF;
      }
      a.i[slot] = value;
      piece += conv;
      is_signed = conv == 'd' || conv == 'i';
      is_hex = conv == 'x' || conv == 'X';
      is_char = conv == 'c';
      negative = is_signed && value < 0;
      nonzero = value != 0;
      break;
    }
    case 'S': {
      uint8_t pick = in.byte();
      static const char *const texts[] = {"", "a", "kivd", "Listening on port", "\xe9t\xe9",
                                          nullptr};
      a.s[slot] = texts[pick % 6];
      if (!a.s[slot]) c_ok = false;
      if (pick & 64) {
        piece += 'p';
        c_ok = false;
      } else {
        piece += 's';
        is_text = true;
      }
      break;
    }
    case 'L': {
      static const char *const longs[] = {"ld", "li", "lu", "lx", "lX", "lo", "D", "U", "O", "lld"};
      piece += longs[in.small(10)];
      uint64_t v = 0;
      for (int k = 0; k < 8; k++) v = (v << 8) | in.byte();
      a.l[slot] = static_cast<long>(v);
      c_ok = false;  // the C library's long is 64 bits here
      break;
    }
    case 'N':
      piece += 'n';
      c_ok = false;
      break;
  }
  if (alt && (is_signed || is_text || is_char)) c_ok = false;
  if ((plus || blank) && !is_signed) c_ok = false;
  if (zero && !left && (is_text || is_char)) c_ok = false;
  if (has_precision && is_char) c_ok = false;
  // Here the precision counts a sign or a hex prefix inside the field.
  if (has_precision && is_signed && (negative || plus || blank)) c_ok = false;
  if (has_precision && is_hex && alt && nonzero) c_ok = false;
  f += piece;
  return slot + 1;
}

void check(const std::string &format, arguments &a, bool c_ok, unsigned chosen_size) {
  int counts_unbounded[SLOTS] = {}, counts_bounded[SLOTS] = {};
  dstr rec;
  if (!dstr_init(&rec)) abort();
  int total = unbounded(&rec, format.c_str(), ARGS(a, counts_unbounded));
  if (total != rec.length) abort();
  std::string whole(rec.buffer, static_cast<size_t>(rec.length));
  dstr_free(&rec, 0);

  unsigned sizes[] = {0, 1, static_cast<unsigned>(total) / 2, static_cast<unsigned>(total),
                      static_cast<unsigned>(total) + 1, chosen_size};
  for (unsigned size : sizes) {
    // Exactly size bytes (one for size 0, to see that nothing is written): ASan sees overruns.
    char *buffer = static_cast<char *>(malloc(size ? size : 1));
    buffer[0] = 'X';
    memset(counts_bounded, 0, sizeof counts_bounded);
    int n = bounded(buffer, size, format.c_str(), ARGS(a, counts_bounded));
    if (n != total) abort();
    if (memcmp(counts_bounded, counts_unbounded, sizeof counts_bounded) != 0) abort();
    if (size == 0) {
      if (buffer[0] != 'X') abort();
    } else {
      size_t stored = static_cast<size_t>(total) < size - 1 ? static_cast<size_t>(total) : size - 1;
      if (memcmp(buffer, whole.data(), stored) != 0 || buffer[stored] != '\0') abort();
    }
    free(buffer);
  }

  if (c_ok) {
    std::string want(static_cast<size_t>(total) + 1, '\0');
    int n = clib(&want[0], want.size(), format.c_str(), ARGS(a, counts_bounded));
    if (n != total || memcmp(want.data(), whole.data(), whole.size()) != 0) abort();
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  input in{data, size};
  arguments a{};
  std::string format;
  bool c_ok = true;
  int slot = 0;
  unsigned chosen_size = in.small(64);
  while (in.n && format.size() < 300) {
    uint8_t op = in.byte();
    if (op % 4 == 0) {
      int length = in.small(8);
      for (int k = 0; k < length; k++) {
        char c = static_cast<char>(in.byte());
        if (c == '\0') c = '.';
        format += c == '%' ? "%%" : std::string(1, c);
      }
    } else if (op % 16 == 1) {
      // Conversions the engine prints as their own letter; they read no argument.
      format += op & 32 ? "%5%" : "%-3y";
      c_ok = false;
    } else {
      if (slot >= SLOTS) break;
      slot = conversion(in, a, format, slot, c_ok);
    }
  }
  if (in.byte() & 1) {
    format += '%';  // a lone % at the end
    c_ok = false;
  }
  check(format, a, c_ok, chosen_size);
  return 0;
}
