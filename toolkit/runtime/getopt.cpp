#include "toolkit/runtime/getopt.h"

int kiv_optind = 0;
char *kiv_optarg = nullptr;
int kiv_optopt = 0;

int *kiv_optindp() { return &kiv_optind; }
char **kiv_optargp() { return &kiv_optarg; }

namespace {
// Index of the next letter inside the word at kiv_optind; 0 when no word is half-scanned.
int optpos = 0;

// True when word has a character at pos. A caller may move kiv_optind onto a shorter
// word while a position is still set, so the word is never indexed past its end.
bool has_letter(const char *word, int pos) {
  for (int i = 0; i < pos; i++)
    if (word[i] == '\0') return false;
  return word[pos] != '\0';
}
}  // namespace

int kiv_getopt(int argc, char *const argv[], const char *optstring) {
  kiv_optarg = nullptr;
  if (kiv_optind < 1) {
    kiv_optind = 1;
    optpos = 0;
  }
  if (kiv_optind >= argc || !argv) return -1;

  char *word;
  for (;;) {
    word = argv[kiv_optind];
    if (!word) return -1;  // a vector shorter than argc ends like a non-option word
    if (optpos > 0) {
      if (has_letter(word, optpos)) break;
      optpos = 0;
      if (++kiv_optind >= argc) return -1;
      continue;
    }
    if (word[0] != '-') return -1;
    if (word[1] == '-') {
      kiv_optind++;
      return word[2] == '\0' ? -1 : '?';
    }
    optpos = 1;  // a lone "-" has no letter: the next round skips it
  }

  int letter = static_cast<unsigned char>(word[optpos++]);
  kiv_optopt = letter;
  const char *found = nullptr;
  for (const char *p = optstring ? optstring : ""; *p; p++) {
    if (*p == ':') continue;
    if (static_cast<unsigned char>(*p) == letter) {
      found = p;
      break;
    }
  }
  if (!found) return '?';
  if (found[1] != ':') return letter;

  if (word[optpos] != '\0') {
    kiv_optarg = word + optpos;
    kiv_optind++;
  } else {
    // The state stays on the word, so the next call moves past it and ends the scan.
    if (kiv_optind + 1 >= argc) return ':';
    kiv_optarg = argv[kiv_optind + 1];
    kiv_optind += 2;
  }
  optpos = 0;
  return letter;
}
