// The option parser over argument vectors built from the input: the first byte picks
// the reset value of kiv_optind, the first NUL-separated piece is the option string, the
// rest are the words after the program name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "toolkit/runtime/getopt.h"

namespace {
bool inside_a_word(const char *p, const std::vector<char *> &argv) {
  for (char *w : argv)
    if (w && p >= w && p <= w + strlen(w)) return true;
  return false;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  int reset = static_cast<int8_t>(data[0]) % 2 == 0 ? 0 : -1;
  std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
  std::vector<std::string> pieces;
  size_t start = 0;
  for (;;) {
    size_t end = rest.find('\0', start);
    pieces.push_back(rest.substr(start, end == std::string::npos ? end : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  std::string optstring = pieces[0];
  pieces[0] = "prog";
  std::vector<char *> argv;
  size_t letters = 0;
  for (auto &p : pieces) {
    argv.push_back(&p[0]);
    letters += p.size();
  }
  argv.push_back(nullptr);
  int argc = static_cast<int>(pieces.size());

  kiv_optind = reset;
  // Every call consumes a letter or a word, so the scan ends within this many calls.
  size_t limit = letters + static_cast<size_t>(argc) + 2;
  for (size_t calls = 0;; calls++) {
    if (calls > limit) abort();
    int r = kiv_getopt(argc, argv.data(), optstring.c_str());
    if (kiv_optind < 1 || kiv_optind > argc) abort();
    if (kiv_optarg && !inside_a_word(kiv_optarg, argv)) abort();
    if (r == -1) break;
    // Anything else than the two problem answers is a letter of the option string.
    if (r != '?' && r != ':' && (r == 0 || !strchr(optstring.c_str(), r))) abort();
  }
  return 0;
}
