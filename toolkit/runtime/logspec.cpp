// The debug spec: its items read into the level, the module list, the line template and the
// log file.
#include <cstring>

#include "lib/heap.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/log_internal.h"
#include "toolkit/runtime/memory.h"

namespace {

const char TIMEPREFIX[] = "%p %n[%s] +%t %f: ";
const char TAG[] = "log.kiv_logconfig";

struct module {
  char *name;    // owned
  int excluded;  // 1 for a "!" item
};

module *modules;  // ended by an entry with a null name; null when the debug spec names none
int nmodules;     // entries in use, the terminator not counted
int modcapacity;  // entries the block is known to hold, terminator included
char *keptspec;   // copy of the last debug spec, handed on to agents

char *copytext(const char *text, size_t length) { return kiv_copytext(text, length, TAG); }

void freemodules() {
  if (modules)
    for (int i = 0; i < nmodules; i++) xfree(modules[i].name);
  xfree(modules);
  modules = nullptr;
  nmodules = 0;
  modcapacity = 0;
}

void setprefix(const char *text, size_t length) {
  char *copy = copytext(text, length);
  // When the copy fails (already reported) the template in force stays.
  if (copy) kiv_logtemplate(copy);
}

// The "<SIZE" at the end of a file item, in bytes; -1 when the item has none (the whole
// item is then the file's name, as it always was).
long filesizeof(const char *text, size_t length) {
  if (length < 2 || text[0] != '<') return -1;
  unsigned long long size = 0;
  size_t i = 1;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; i++) {
    size = size * 10 + static_cast<unsigned>(text[i] - '0');
    if (size > 0x7FFFFFFF) return -1;
  }
  if (i == 1) return -1;
  if (i + 1 == length) {
    int shift = 0;
    switch (text[i] | 0x20) {
      case 'k':
        shift = 10;
        break;
      case 'm':
        shift = 20;
        break;
      case 'g':
        shift = 30;
        break;
      default:
        return -1;
    }
    size <<= shift;
    i++;
  }
  // Sizes past what a 32-bit file offset holds are not sizes: ftell reports a long.
  if (i != length || size > 0x7FFFFFFF) return -1;
  return static_cast<long>(size);
}

void addmodule(const char *name, size_t length, int excluded) {
  char *copy = copytext(name, length);
  if (!copy) return;
  if (nmodules % 8 == 0) {
    // Grow into a fresh block rather than resizing: a resize that the heap refuses
    // returns the old block, which looks the same as a resize done in place, so only a
    // new block tells for sure that there is room. When there is none, the item is
    // dropped (the allocator has reported it) and the list stays as it was.
    size_t bytes = (static_cast<size_t>(nmodules) + 9) * sizeof(module);
    auto *grown = static_cast<module *>(kiv_allocsize(bytes, TAG));
    if (!grown) {
      xfree(copy);
      return;
    }
    if (modules) memcpy(grown, modules, static_cast<size_t>(nmodules) * sizeof(module));
    xfree(modules);
    modules = grown;
    modcapacity = nmodules + 9;
  }
  if (nmodules + 2 > modcapacity) {  // no room for the entry and the terminator
    xfree(copy);
    return;
  }
  modules[nmodules].name = copy;
  modules[nmodules].excluded = excluded;
  nmodules++;
  modules[nmodules].name = nullptr;
  modules[nmodules].excluded = 0;
}

}  // namespace

void kiv_logconfig(const char *debugspec) {
  if (modules) {
    freemodules();
    kiv_logtemplate(nullptr);
    kiv_loglevel = 0;
  }
  xfree(keptspec);
  keptspec = nullptr;
  if (!debugspec) return;
  keptspec = copytext(debugspec, strlen(debugspec));
  const char *item = debugspec;
  while (*item) {
    const char *end = strchr(item, ';');
    if (!end) end = item + strlen(item);
    size_t length = static_cast<size_t>(end - item);
    if (length > 0) {
      const char *rest = item + 1;
      size_t restlength = length - 1;
      char first = item[0];
      if (first >= '0' && first <= '9') {
        kiv_loglevel = first - '0';
      } else if (first == '+') {
        if (length > 1 && item[1] == 't') setprefix(TIMEPREFIX, sizeof TIMEPREFIX - 1);
      } else if (first == '=') {
        setprefix(rest, restlength);
      } else if (first == '>') {
        long size = KIV_LOGROTATE;
        const char *mark = rest + restlength;
        while (mark > rest && *mark != '<') mark--;
        if (*mark == '<' && mark < rest + restlength) {
          long given = filesizeof(mark, restlength - static_cast<size_t>(mark - rest));
          if (given >= 0) {
            size = given;
            restlength = static_cast<size_t>(mark - rest);
          }
        }
        char *copy = copytext(rest, restlength);
        if (copy) kiv_logfile(copy, size);
      } else if (first == '!') {
        addmodule(rest, restlength, 1);
      } else {
        addmodule(item, length, 0);
      }
    }
    if (!*end) break;
    item = end + 1;
  }
}

const char *kiv_logspec() { return keptspec; }

int kiv_logcheck(int level, const char *tag) {
  if (level > kiv_loglevel) return 0;
  if (!tag || !modules) return 1;
  bool anyexcluded = false;
  for (const module *m = modules; m->name; m++) {
    size_t length = strlen(m->name);
    if (strncmp(m->name, tag, length) == 0 && (tag[length] == '\0' || tag[length] == '.'))
      return m->excluded ? 0 : 1;
    if (m->excluded) anyexcluded = true;
  }
  return anyexcluded ? 1 : 0;
}

void kiv_logspec_reset() {
  freemodules();
  xfree(keptspec);
  keptspec = nullptr;
}
