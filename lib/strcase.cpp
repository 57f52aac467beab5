#include "lib/strcase.h"

int xstrncasecmp(const char *a, const char *b, size_t count) {
  for (size_t i = 0; i < count; i++) {
    int ca = xfoldtable.map[static_cast<unsigned char>(a[i])];
    int cb = xfoldtable.map[static_cast<unsigned char>(b[i])];
    if (ca != cb) return ca - cb;
    if (ca == 0) break;
  }
  return 0;
}
