// What the fuzz targets share: the input read a byte at a time, a check that aborts (so
// libFuzzer keeps the input).
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

inline void check(bool ok) {
  if (!ok) abort();
}

// Past its end the input reads as zero bytes.
struct fuzzinput {
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
