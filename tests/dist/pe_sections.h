// The sections of a PE file as its headers name them, read from the file itself: what a
// shipped executable holds (no debug information) and the debug file its link names.
#pragma once
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kt {

struct pe_section {
  std::string name;  // long names resolved through the string table
  std::string data;  // its raw bytes in the file
};

// The sections, or none when the file is missing or no PE file.
inline std::vector<pe_section> pe_sections(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::string f((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto u16 = [&](size_t at) {
    return at + 2 <= f.size() ? uint16_t(uint8_t(f[at]) | uint8_t(f[at + 1]) << 8) : 0;
  };
  auto u32 = [&](size_t at) {
    return at + 4 <= f.size() ? uint32_t(u16(at) | uint32_t(u16(at + 2)) << 16) : 0;
  };
  std::vector<pe_section> out;
  size_t pe = u32(0x3C);
  if (f.size() < 0x40 || f.compare(0, 2, "MZ") != 0 ||
      f.compare(pe, 4, std::string("PE\0\0", 4)) != 0)
    return out;
  size_t coff = pe + 4, count = u16(coff + 2), symbols = u32(coff + 8);
  size_t strings = symbols + size_t(u32(coff + 12)) * 18;  // the string table follows the symbols
  size_t table = coff + 20 + u16(coff + 16);
  for (size_t i = 0; i < count; i++) {
    size_t h = table + i * 40;
    if (h + 40 > f.size()) break;
    std::string name(f.data() + h, strnlen(f.data() + h, 8));
    if (name.size() > 1 && name[0] == '/') {
      size_t at = strings + strtoul(name.c_str() + 1, nullptr, 10);
      name =
          at < f.size() ? std::string(f.data() + at, strnlen(f.data() + at, f.size() - at)) : "?";
    }
    size_t size = u32(h + 16), raw = u32(h + 20);
    out.push_back({name, raw + size <= f.size() ? f.substr(raw, size) : ""});
  }
  return out;
}

// The names of the sections whose name begins with prefix.
inline std::vector<std::string> pe_named(const std::vector<pe_section> &sections,
                                         const char *prefix) {
  std::vector<std::string> names;
  for (const pe_section &s : sections)
    if (s.name.compare(0, strlen(prefix), prefix) == 0) names.push_back(s.name);
  return names;
}

}  // namespace kt
