// The option parser over argument vectors built from the input: the first byte picks
// the reset value of kiv_optind, the first NUL-separated piece is the option string, the
// rest are the words after the program name.
#include <vector>

#include "fuzz/fuzz.h"
#include "toolkit/runtime/getopt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
  std::vector<std::string> pieces;
  for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = rest.find('\0', start);
    pieces.push_back(rest.substr(start, end == std::string::npos ? end : end - start));
  }
  std::string optstring = pieces[0];
  pieces[0] = "prog";
  std::vector<char *> argv;
  size_t letters = 0;
  for (auto &p : pieces) argv.push_back(&p[0]), letters += p.size();
  argv.push_back(nullptr);
  int argc = static_cast<int>(pieces.size());
  auto inside_a_word = [&](const char *p) {
    for (char *w : argv)
      if (w && p >= w && p <= w + strlen(w)) return true;
    return false;
  };

  kiv_optind = static_cast<int8_t>(data[0]) % 2 == 0 ? 0 : -1;
  // Every call consumes a letter or a word, so the scan ends within this many calls.
  size_t limit = letters + static_cast<size_t>(argc) + 2;
  for (size_t calls = 0;; calls++) {
    check(calls <= limit);
    int r = kiv_getopt(argc, argv.data(), optstring.c_str());
    check(kiv_optind >= 1 && kiv_optind <= argc && (!kiv_optarg || inside_a_word(kiv_optarg)));
    if (r == -1) break;
    // Anything else than the two problem answers is a letter of the option string.
    check(r == '?' || r == ':' || (r != 0 && strchr(optstring.c_str(), r)));
  }
  return 0;
}
