#include "lib/strvec.h"

#include <cstddef>

#include "lib/heap.h"

char **vecapp(char **vec, const char *text) {
  // A null text would end the vector early: it is refused like a vector that cannot grow.
  if (!text) return nullptr;
  size_t count = 0;
  if (vec) {
    while (vec[count]) count++;
  }
  if (count + 2 > 0xFFFFFFFFu / sizeof(char *)) return nullptr;
  // The copy is made before the resize: once the vector has moved, a failure could no
  // longer leave the old one as it was.
  char *copy = xstrdup(text, nullptr);
  if (!copy) return nullptr;
  char **grown = static_cast<char **>(
      xrealloc(vec, static_cast<unsigned>((count + 2) * sizeof(char *)), nullptr));
  if (!grown) {
    xfree(copy);
    return nullptr;
  }
  grown[count] = copy;
  grown[count + 1] = nullptr;
  return grown;
}

void vecfree(char **vec) {
  if (!vec) return;
  for (char **entry = vec; *entry; entry++) xfree(*entry);
  xfree(vec);
}
