#include "lib/strcase.h"

static inline int fold(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }

int xstrncasecmp(const char *a, const char *b, size_t count) {
  for (size_t i = 0; i < count; i++) {
    int ca = fold(static_cast<unsigned char>(a[i]));
    int cb = fold(static_cast<unsigned char>(b[i]));
    if (ca != cb) return ca - cb;
    if (ca == 0) break;
  }
  return 0;
}
