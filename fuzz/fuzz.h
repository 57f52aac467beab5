// What the fuzz targets share: the input read a byte at a time, a check that aborts (so
// libFuzzer keeps the input), and a stream over bytes.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fz {

inline void check(bool ok) {
  if (!ok) abort();
}

// Past its end the input reads as zero bytes.
struct input {
  const uint8_t *at = nullptr, *end = nullptr;
  void start(const uint8_t *data, size_t size) { at = data, end = data + size; }
  bool more() const { return at < end; }
  uint8_t byte() { return at < end ? *at++ : 0; }
  // Up to most - 1 raw bytes.
  std::string bytes(int most) {
    std::string s(byte() % most, 0);
    for (char &c : s) c = static_cast<char>(byte());
    return s;
  }
};

// A stream reading the bytes, or null: fmemopen refuses an empty buffer on some C libraries.
inline FILE *stream(const void *data, size_t size, const char *mode) {
  return fmemopen(const_cast<void *>(data), size, mode);
}

}  // namespace fz
