// Decodes arbitrary text in place and compares with a plain reference decoder.
#include "fuzz/fuzz.h"
#include "lib/unescape.h"

namespace {
std::string reference(const std::string &in) {
  std::string out;
  size_t i = 0;
  while (i < in.size()) {
    if (in[i] != '\\') {
      out += in[i++];
      continue;
    }
    if (i + 1 == in.size()) break;
    char c = in[i + 1];
    i += 2;
    const char *named = strchr("abefnrt", c);
    if (c != '\0' && named) {
      out += "\a\b\x1b\f\n\r\t"[named - "abefnrt"];
    } else if (c >= '0' && c <= '9') {
      int value = c - '0';
      for (int k = 0; k < 2 && i < in.size() && in[i] >= '0' && in[i] <= '9'; k++, i++)
        value = value * 8 + (in[i] - '0');
      out += static_cast<char>(value % 256);
    } else {
      out += c;
    }
  }
  return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  text = text.substr(0, text.find('\0'));  // the decoder sees a C text
  std::string want = reference(text);
  char *buffer = static_cast<char *>(malloc(text.size() + 1));  // exact: ASan sees overruns
  memcpy(buffer, text.c_str(), text.size() + 1);
  int n = unescape(buffer);
  check(n == static_cast<int>(want.size()) && memcmp(buffer, want.data(), want.size()) == 0 &&
        buffer[n] == '\0');
  free(buffer);
  return 0;
}
