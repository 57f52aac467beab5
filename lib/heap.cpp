#include "lib/heap.h"

#include <cstdlib>
#include <cstring>

namespace {
// Remaining successful allocations before injected failures; negative: no injection.
long failafter = -1;

bool injected_failure() {
  if (failafter < 0) return false;
  if (failafter == 0) return true;
  --failafter;
  return false;
}
}  // namespace

void xheap_failafter(long n) { failafter = n; }

void *xrealloc(void *block, unsigned size, int *status) {
  if (size == 0) {
    free(block);
    if (status) *status = 0;
    return nullptr;
  }
  void *p = injected_failure() ? nullptr : realloc(block, size);
  if (!p && status) *status = 0;
  return p;
}

void xfree(void *block) { free(block); }

char *xstrdup(const char *text, int *status) {
  if (!text) return nullptr;
  size_t n = strlen(text) + 1;
  if (n > 0xFFFFFFFFu) {  // beyond what the 32-bit size can carry
    if (status) *status = 0;
    return nullptr;
  }
  char *copy = static_cast<char *>(xrealloc(nullptr, static_cast<unsigned>(n), status));
  if (copy) memcpy(copy, text, n);
  return copy;
}

void *memdup(const void *bytes, unsigned count, int *status) {
  if (!bytes || count == 0) return nullptr;
  void *copy = xrealloc(nullptr, count, status);
  if (copy) memcpy(copy, bytes, count);
  return copy;
}
