// ASCII case-insensitive comparison.
#pragma once
#include <cstddef>

// Compares at most count characters, folding only A-Z onto a-z; every other byte compares
// as its unsigned value. Returns folded(a) - folded(b) at the first difference, else 0.
int xstrncasecmp(const char *a, const char *b, size_t count);
