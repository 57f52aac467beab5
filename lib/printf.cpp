#include "lib/printf.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace {
const char BLANKS[16] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                         ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
const char ZEROS[16] = {'0', '0', '0', '0', '0', '0', '0', '0',
                        '0', '0', '0', '0', '0', '0', '0', '0'};
const char LOWER_DIGITS[] = "0123456789abcdef";
const char UPPER_DIGITS[] = "0123456789ABCDEF";

// Where the pieces go. Kept in locals while formatting; written back at the end.
struct sink {
  dstr *out;
  char *buffer;
  int length;
  int capacity;
  int limit;        // < 0: unbounded, the record grows
  long long total;  // the whole output, stored or not
};

// A piece that does not fit the direct store.
void store_slow(sink &s, const char *piece, int n) {
  if (s.limit < 0) {
    // Grow the record by the piece and copy it in: a zero byte (from %c) must survive,
    // which an append of the piece as text would not allow.
    s.out->length = s.length;
    if (dstr_append(s.out, "", n) < 0) return;  // heap refused: the piece is dropped
    s.buffer = s.out->buffer;
    s.capacity = s.out->capacity;
    memcpy(s.buffer + s.length, piece, static_cast<size_t>(n));
    s.length += n;
    return;
  }
  if (s.length >= s.limit) return;
  // Bounded output is laid over a caller's buffer: it is never grown, and the cut also
  // stays inside the capacity should a caller give a limit beyond it.
  int room = s.limit - s.length;
  if (room > n) room = n;
  if (room > s.capacity - 1 - s.length) room = s.capacity - 1 - s.length;
  if (room <= 0) return;
  memcpy(s.buffer + s.length, piece, static_cast<size_t>(room));
  s.length += room;
}

inline void put(sink &s, const char *piece, int n) {
  s.total += n;
  if (n < s.capacity - s.length) {
    memcpy(s.buffer + s.length, piece, static_cast<size_t>(n));
    s.length += n;
  } else if (n > 0) {
    store_slow(s, piece, n);
  }
}

// Blank or zero fill, written in pieces of at most 16 from a constant run.
void fill(sink &s, const char *run, long long n) {
  while (n > 0) {
    int k = n > 16 ? 16 : static_cast<int>(n);
    int before = s.length;
    put(s, run, k);
    n -= k;
    if (s.length == before && k == 16 && s.limit >= 0) {
      // Nothing more can be stored by whole runs; count them without the loop.
      long long whole = n / 16 * 16;
      s.total += whole;
      n -= whole;
    }
  }
}

inline int clamp_int(long long v) { return v > INT_MAX ? INT_MAX : static_cast<int>(v); }

// Decimal digits of a width or precision; saturates instead of overflowing.
inline int read_number(const char *&p) {
  int v = 0;
  while (*p >= '0' && *p <= '9') {
    int d = *p++ - '0';
    v = v > (INT_MAX - d) / 10 ? INT_MAX : v * 10 + d;
  }
  return v;
}

enum : unsigned {
  F_ALT = 1,
  F_LEFT = 2,
  F_ZERO = 4,
  F_LONG = 8,
  F_SHORT = 16,
};
}  // namespace

int dstr_vformat(dstr *out, int limit, const char *format, va_list args) {
  dstr none = {0, 0, 0, nullptr};
  if (!out) {  // no record: only measure
    out = &none;
    limit = 0;
  }
  sink s{out, out->buffer, out->length, out->capacity, limit, 0};
  if (s.length < 0 || (!s.buffer && limit >= 0)) {
    // A record that cannot be written through: count only, leave it as it is.
    s.length = 0;
    s.capacity = 0;
    s.limit = 0;
  }
  const int start_length = s.length;
  if (!format) format = "";  // no format: empty output rather than a crash

  va_list ap;
  va_copy(ap, args);
  const char *p = format;
  for (;;) {
    const char *q = p;
    while (*q != '\0' && *q != '%') q++;
    if (q != p) put(s, p, static_cast<int>(q - p));
    if (*q == '\0') break;
    p = q + 1;

    unsigned flags = 0;
    int width = 0;
    int precision = -1;
    char sign = 0;
    bool in_conversion = true;
    while (in_conversion) {
      switch (*p) {
        case ' ':
          if (!sign) sign = ' ';
          p++;
          break;
        case '+':
          sign = '+';
          p++;
          break;
        case '#':
          flags |= F_ALT;
          p++;
          break;
        case '-':
          flags |= F_LEFT;
          p++;
          break;
        case '0':
          flags |= F_ZERO;
          p++;
          break;
        case '*': {
          int w = va_arg(ap, int);
          if (w < 0) {
            flags |= F_LEFT;
            width = w == INT_MIN ? INT_MAX : -w;
          } else {
            width = w;
          }
          p++;
          break;
        }
        case '.':
          p++;
          if (*p == '*') {
            int v = va_arg(ap, int);
            precision = v < 0 ? -1 : v;
            p++;
          } else {
            precision = read_number(p);
          }
          break;
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
          width = read_number(p);
          break;
        case 'h':
          flags |= F_SHORT;
          p++;
          break;
        case 'l':
          flags |= F_LONG;
          p++;
          break;
        default:
          in_conversion = false;
      }
    }
    if (flags & F_LONG) flags &= ~F_SHORT;

    const char conv = *p;
    if (conv == '\0') break;  // a lone % at the end ends the output
    p++;

    char scratch[24];  // 64-bit pointer in hexadecimal at most; octal needs 11 + 1
    char *const end = scratch + sizeof scratch;
    char *digits = end;
    const char *text = nullptr;
    int size = 0;
    bool number = false;
    char prefix = 0;  // the letter of a "0x"/"0X" prefix
    char one = 0;     // %c and unknown conversions

    switch (conv) {
      case 'd':
      case 'i':
      case 'D': {
        int32_t v;
        if ((flags & F_LONG) || conv == 'D') {
          // Long is 32 bits here: the value modulo 2^32, alike on every platform.
          v = static_cast<int32_t>(static_cast<uint32_t>(va_arg(ap, long)));
        } else {
          int a = va_arg(ap, int);
          v = (flags & F_SHORT) ? static_cast<short>(a) : a;
        }
        uint32_t m = static_cast<uint32_t>(v);
        if (v < 0) {
          sign = '-';
          m = 0u - m;
        }
        number = true;
        if (m != 0 || precision != 0) {
          do {
            *--digits = static_cast<char>('0' + m % 10);
            m /= 10;
          } while (m);
        }
        break;
      }
      case 'u':
      case 'U':
      case 'o':
      case 'O':
      case 'x':
      case 'X':
      case 'p': {
        sign = 0;
        uint64_t m;
        if (conv == 'p') {
          m = reinterpret_cast<uintptr_t>(va_arg(ap, void *));
          flags = 0;  // every flag is dropped; width and precision stay
          prefix = 'x';
        } else if ((flags & F_LONG) || conv == 'U' || conv == 'O') {
          m = static_cast<uint32_t>(va_arg(ap, unsigned long));
        } else {
          unsigned a = va_arg(ap, unsigned);
          m = (flags & F_SHORT) ? static_cast<unsigned short>(a) : a;
        }
        number = true;
        if (m != 0 || precision != 0) {
          if (conv == 'u' || conv == 'U') {
            uint32_t m32 = static_cast<uint32_t>(m);
            do {
              *--digits = static_cast<char>('0' + m32 % 10);
              m32 /= 10;
            } while (m32);
          } else if (conv == 'o' || conv == 'O') {
            do {
              *--digits = static_cast<char>('0' + (m & 7));
              m >>= 3;
            } while (m);
          } else {
            const char *table = conv == 'X' ? UPPER_DIGITS : LOWER_DIGITS;
            if ((flags & F_ALT) && m != 0) prefix = conv;
            do {
              *--digits = table[m & 15];
              m >>= 4;
            } while (m);
          }
        }
        if ((conv == 'o' || conv == 'O') && (flags & F_ALT) && (digits == end || *digits != '0'))
          *--digits = '0';
        break;
      }
      case 'c':
        sign = 0;
        one = static_cast<char>(va_arg(ap, int));
        text = &one;
        size = 1;
        break;
      case 's': {
        sign = 0;
        text = va_arg(ap, const char *);
        if (!text) text = "(null)";
        if (precision >= 0) {
          // Not one byte beyond the precision is read.
          while (size < precision && text[size] != '\0') size++;
        } else {
          size = clamp_int(static_cast<long long>(strlen(text)));
        }
        break;
      }
      case 'n': {
        int so_far = clamp_int(s.total);
        if (flags & F_SHORT) {
          short *to = va_arg(ap, short *);
          if (to) *to = static_cast<short>(so_far);
        } else {
          // Also for %ln: long conversions are 32-bit, so an int is stored.
          int *to = va_arg(ap, int *);
          if (to) *to = so_far;
        }
        continue;
      }
      default:
        sign = 0;
        one = conv;
        text = &one;
        size = 1;
    }

    if (number) {
      text = digits;
      size = static_cast<int>(end - digits);
      if (precision >= 0) flags &= ~F_ZERO;
    }
    if (flags & F_LEFT) flags &= ~F_ZERO;

    // Fast path: no field to pad and nothing before the text.
    if (width == 0 && !sign && !prefix && (!number || precision < 0)) {
      put(s, text, size);
      continue;
    }
    long long field = static_cast<long long>(size) + (sign ? 1 : 0) + (prefix ? 2 : 0);
    long long real = field;
    if (number && precision > real) real = precision;
    long long pad = width - real;

    if (!(flags & (F_LEFT | F_ZERO))) fill(s, BLANKS, pad);
    if (sign) {
      put(s, &sign, 1);
    } else if (prefix) {
      const char two[2] = {'0', prefix};
      put(s, two, 2);
    }
    if (flags & F_ZERO) fill(s, ZEROS, pad);
    // The precision is measured against the whole field, sign and prefix included, so
    // %.3d of -7 gives -07: that is this engine's rule, not the C library's.
    if (number) fill(s, ZEROS, precision - field);
    put(s, text, size);
    if (flags & F_LEFT) fill(s, BLANKS, pad);
  }
  va_end(ap);

  if (s.length != start_length) out->length = s.length;
  return clamp_int(s.total);
}

int xvsnprintf(char *buffer, unsigned size, const char *format, va_list args) {
  dstr rec;
  rec.length = 0;
  rec.flags = 0;
  rec.buffer = buffer;
  rec.capacity = size > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(size);
  if (!buffer) rec.capacity = 0;  // no buffer: only measure
  // Size 0 must store nothing at all, so its limit is 0, not the unbounded -1.
  int limit = rec.capacity > 0 ? rec.capacity - 1 : 0;
  int total = dstr_vformat(&rec, limit, format, args);
  // rec.length is the smaller of size - 1 and the total.
  if (rec.capacity > 0) buffer[rec.length] = '\0';
  return total;
}

int xsnprintf(char *buffer, unsigned size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int total = xvsnprintf(buffer, size, format, args);
  va_end(args);
  return total;
}
