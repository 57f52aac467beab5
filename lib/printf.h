// The bounded formatted-output engine. Conversions: d i D u U o O x X p c s n and
// literal characters; flags " #+-0", width and precision (digits or *), modifiers h, l.
// "long" conversions are 32-bit: the argument is read as the C type long and its value
// taken modulo 2^32, so the results are the same on Windows and on 64-bit Linux.
#pragma once
#include <cstdarg>
#include "lib/dstr.h"

#if defined(__clang__)  // clang knows no gnu_printf archetype
#define KIV_PRINTF(f, a) __attribute__((format(printf, f, a)))
#elif defined(__GNUC__)
#define KIV_PRINTF(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#define KIV_PRINTF(f, a)
#endif

// The engine: formats into out, storing at most limit characters in all (limit < 0:
// unbounded, the dstr grows). Writes no terminating zero. Returns the length the whole
// output has, stored or not.
int dstr_vformat(dstr *out, int limit, const char *format, va_list args);
// Stores at most size - 1 characters and a zero (nothing at all when size is 0) and
// returns the length the complete output has.
int xvsnprintf(char *buffer, unsigned size, const char *format, va_list args);
int xsnprintf(char *buffer, unsigned size, const char *format, ...) KIV_PRINTF(3, 4);
