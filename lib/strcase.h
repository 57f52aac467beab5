// ASCII case folding and case-insensitive comparison.
#pragma once
#include <cstddef>

// The one fold table: map[c] is c with A-Z folded onto a-z; every other byte (those above
// 127 too) maps onto itself, whatever the locale. A table keeps hash loops branch-free.
struct xfoldmap {
  unsigned char map[256];
  constexpr xfoldmap() : map() {
    for (int c = 0; c < 256; c++)
      map[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  }
};
inline constexpr xfoldmap xfoldtable{};

// Compares at most count characters, folded through xfoldtable, and stops at the end of
// the texts. Returns folded(a) - folded(b) at the first difference (bytes taken as
// unsigned), else 0; a count of 0 gives 0.
int xstrncasecmp(const char *a, const char *b, size_t count);
