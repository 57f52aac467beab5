#include "toolkit/runtime/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/context.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/platform.h"

int kiv_loglevel = 0;
int *kiv_loglevelp() { return &kiv_loglevel; }

const char KIV_LOGPREFIX[] = "%p %n[%s] %f: ";
kiv_sinkfunc kiv_logsink = kiv_logtofile;

namespace {

const char TIMEPREFIX[] = "%p %n[%s] +%t %f: ";
const char TIMEFORMAT[] = "%b %d %H:%M:%S";
const char TAG[] = "log.kiv_logconfig";
#ifdef _WIN32
constexpr bool TEXT_CR = true;
#else
constexpr bool TEXT_CR = false;
#endif

struct module {
  char *name;    // owned
  int excluded;  // 1 for a "!" item
};

module *modules;  // ended by an entry with a null name; null when the debug spec names none
int nmodules;     // entries in use, the terminator not counted
int modcapacity;  // entries the block is known to hold, terminator included
char *prefix;     // the template; null means KIV_LOGPREFIX
char *filename;   // set by the ">" item
char *keptspec;   // copy of the last debug spec, handed on to agents
FILE *stream;     // the open log file; null while lines go to standard error
long rotatesize = KIV_LOGROTATE;  // 0: never rotated
long filesize;                    // bytes in the open log file
long rotateat;                    // filesize at which the next rotation is tried
bool failing;          // the file could not be opened or written: said once, until it can
const char *progname;  // printed by %n; nothing in this system sets it
uint32_t prevtime;     // hundredths of a second of the previous %t line
long pidcache;

// Output serialisation, guarded by lock slot 13.
unsigned long owner;
int nesting;
kiv_event *event;

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
  if (!copy) return;
  xfree(prefix);
  prefix = copy;
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

// The local date and time, "%b %d %H:%M:%S"; empty when the clock cannot be converted.
void timestamp(char *out, size_t size) {
  struct tm local;
  out[0] = '\0';
  if (!kiv_localtime(kiv_time(), &local) || strftime(out, size, TIMEFORMAT, &local) == 0)
    out[0] = '\0';
}

// Appends text to buffer while fewer than size characters are there.
void put(char *buffer, int size, int &n, const char *text, size_t length) {
  for (size_t i = 0; i < length && n < size; i++) buffer[n++] = text[i];
}

bool isbracket(char c) { return c == '(' || c == '[' || c == '{' || c == '<'; }

char closing(char open) {
  switch (open) {
    case '(':
      return ')';
    case '[':
      return ']';
    case '{':
      return '}';
    default:
      return '>';
  }
}

}  // namespace

void kiv_logsetpid(long pid) { pidcache = pid; }

const char *kiv_severityname(int severity) {
  static const char *const names[] = {"Unknown", "FATAL", "ERROR", "Warning", "debug"};
  if (severity < 0 || severity > 4) return names[0];
  return names[severity];
}

void kiv_logconfig(const char *debugspec) {
  if (modules) {
    freemodules();
    xfree(prefix);
    prefix = nullptr;
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
        if (copy) {
          xfree(filename);
          filename = copy;
          rotatesize = size;
          rotateat = 0;
          if (stream) fclose(stream);
          stream = nullptr;
        }
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

int kiv_logprefix(char *buffer, int size, kiv_context *ctx, const char *tag, int severity,
                  int code) {
  if (!buffer || size <= 0) return 0;
  if (!tag) tag = "";
  const char *t = prefix ? prefix : KIV_LOGPREFIX;
  int n = 0;
  char scratch[64];
  while (*t && n < size) {
    char c = *t++;
    if (c == '\\') {
      switch (*t) {
        case 'n':
          buffer[n++] = '\n';
          t++;
          break;
        case 't':
          buffer[n++] = '\t';
          t++;
          break;
        case '\\':
          buffer[n++] = '\\';
          t++;
          break;
        // A backslash escapes the percent sign: a literal "%", as escapes usually mean.
        case '%':
          buffer[n++] = '%';
          t++;
          break;
        // Any other character is read normally after the backslash.
        default:
          buffer[n++] = '\\';
          break;
      }
      continue;
    }
    if (c != '%') {
      buffer[n++] = c;
      continue;
    }
    char bracket = 0;
    while (isbracket(*t)) bracket = *t++;
    if (!*t) break;  // "%" at the very end ends the template
    char letter = *t++;
    const char *text = scratch;
    size_t length = 0;
    scratch[0] = '\0';
    switch (letter) {
      case '%':
        text = "%";
        length = 1;
        break;
      case 'p':
        if (pidcache == 0) pidcache = kiv_processid();
        length = static_cast<size_t>(xsnprintf(scratch, sizeof scratch, "%ld", pidcache));
        break;
      case 'n':
        text = progname ? progname : "";
        length = strlen(text);
        break;
      case 's':
        if (ctx) {
          length = static_cast<size_t>(xsnprintf(scratch, sizeof scratch, "%d", ctx->number));
        } else {
          text = "*";
          length = 1;
        }
        break;
      case 't': {
        uint32_t now = kiv_ticks() / 10;
        uint32_t &prev = ctx ? ctx->prevtime : prevtime;
        uint32_t d = prev ? now - prev : 0;
        prev = now;
        length = static_cast<size_t>(xsnprintf(scratch, sizeof scratch, "%02ld.%02ld",
                                               static_cast<long>(d / 100 % 100),
                                               static_cast<long>(d % 100)));
        break;
      }
      case 'T':
        timestamp(scratch, sizeof scratch);
        length = strlen(scratch);
        break;
      case 'l':
        text = tag;
        length = strlen(text);
        break;
      case 'f': {
        const char *dot = strrchr(tag, '.');
        text = dot ? dot + 1 : tag;
        length = strlen(text);
        break;
      }
      case 'e':
        text = severity == KIV_SEV_DEBUG ? "" : kiv_severityname(severity);
        length = strlen(text);
        break;
      case 'c':
        text = code == 0 ? "" : kiv_strerror(code);
        length = strlen(text);
        break;
      case 'C':
        text = code == 0 ? "" : kiv_errname(code);
        length = strlen(text);
        break;
      default:
        length = static_cast<size_t>(xsnprintf(scratch, sizeof scratch, "<%%%c?>", letter));
        break;
    }
    if (length >= sizeof scratch && text == scratch) length = strlen(scratch);
    if (bracket && length > 0) {
      if (size - n > 2) {
        buffer[n++] = ' ';
        buffer[n++] = bracket;
      }
      put(buffer, size, n, text, length);
      if (size - n >= 1) buffer[n++] = closing(bracket);
    } else {
      put(buffer, size, n, text, length);
    }
  }
  return n;
}

void kiv_log(kiv_context *ctx, const char *tag, const char *format, ...) {
  if (!kiv_logcheck(0, tag)) return;
  char line[KIV_LOGLINE];
  int n = kiv_logprefix(line, KIV_LOGLINE, ctx, tag, KIV_SEV_DEBUG, 0);
  if (n < KIV_LOGLINE) {
    unsigned room = static_cast<unsigned>(KIV_LOGLINE - n);
    if (format && *format) {
      va_list args;
      va_start(args, format);
      xvsnprintf(line + n, room, format, args);
      va_end(args);
    } else {
      char now[64];
      timestamp(now, sizeof now);
      xsnprintf(line + n, room, "========== %s", now);
    }
  }
  line[KIV_LOGLINE - 1] = '\0';
  kiv_logwrite(line);
}

void kiv_vlogerror(kiv_context *ctx, const char *tag, int severity, int code, const char *format,
                   va_list args) {
  char line[KIV_LOGLINE];
  int n = kiv_logprefix(line, KIV_LOGLINE, ctx, tag, severity, code);
  if (n < KIV_LOGLINE) {
    line[n] = '\0';
    if (format) xvsnprintf(line + n, static_cast<unsigned>(KIV_LOGLINE - n), format, args);
  }
  line[KIV_LOGLINE - 1] = '\0';
  kiv_logwrite(line);
}

void kiv_logerror(kiv_context *ctx, const char *tag, int severity, int code, const char *format,
                  ...) {
  va_list args;
  va_start(args, format);
  kiv_vlogerror(ctx, tag, severity, code, format, args);
  va_end(args);
}

void kiv_logwrite(const char *line) {
  if (!kiv_logsink) return;
  if (!kiv_locks_ready()) kiv_locks_init();
  unsigned long self = kiv_threadid();
  kiv_lock(KIV_LOCK_LOG);
  if (!event) event = kiv_event_create();
  while (nesting > 0 && owner != self) {
    if (event) {
      kiv_event_reset(event);
      kiv_unlock(KIV_LOCK_LOG);
      kiv_event_wait(event);
    } else {
      // Without an event (the system refused one) the waiter polls the lock instead.
      kiv_unlock(KIV_LOCK_LOG);
    }
    kiv_lock(KIV_LOCK_LOG);
  }
  int depth = ++nesting;
  owner = self;
  kiv_unlock(KIV_LOCK_LOG);

  if (depth < 3) kiv_logsink(line);

  kiv_lock(KIV_LOCK_LOG);
  nesting--;
  kiv_unlock(KIV_LOCK_LOG);
  if (event) kiv_event_set(event);
}

namespace {

// Says once that the file cannot take lines (errno tells why), or that it takes them again.
void tracestate(bool fails, int error) {
  if (fails == failing) return;
  failing = fails;
  kivev_event ev{};
  ev.text = filename;
  if (fails) {
    ev.id = KIVEV_TRACE_FAILED;
    ev.syserror = error;
    ev.errortext = strerror(error);
  } else {
    ev.id = KIVEV_TRACE_RESUMED;
  }
  kivev_emit(&ev);
}

bool exists(const char *name) {
  struct stat st;
  return stat(name, &st) == 0;
}

// F.1 becomes free and F takes its name, the kept files moving up only as far as the first
// free name (the oldest removed when there is none). F moves aside first, so a file that
// cannot be renamed (another process holds it) leaves every kept file as it was. The three
// buffers take size bytes each. false when any step fails; F is then back under its name.
bool rotate_files(char *from, char *to, char *aside, size_t size) {
  auto kept = [&](char *into, int i) {
    xsnprintf(into, static_cast<unsigned>(size), "%s.%d", filename, i);
    return into;
  };
  xsnprintf(aside, static_cast<unsigned>(size), "%s.0", filename);
  remove(aside);  // left by a rotation cut short
  if (rename(filename, aside) != 0) return false;
  int gap = 1;
  while (gap < KIV_LOGKEEP && exists(kept(to, gap))) gap++;
  // Windows renames nothing onto an existing file: the oldest goes before the others move.
  bool moved = !exists(kept(to, gap)) || remove(to) == 0;
  for (int i = gap; moved && i > 1; i--) moved = rename(kept(from, i - 1), kept(to, i)) == 0;
  if (moved && rename(aside, kept(to, 1)) == 0) return true;
  rename(aside, filename);
  return false;
}

// Renamed while closed: Windows renames no open file. When the files cannot be renamed,
// lines go on into F and the rotation is tried again an eighth of the size on.
void rotate() {
  fclose(stream);
  stream = nullptr;
  size_t size = strlen(filename) + 8;
  char *buffers[3];
  bool rotated = true;
  for (char *&b : buffers) rotated = (b = static_cast<char *>(kiv_allocsize(size, TAG))) && rotated;
  rotated = rotated && rotate_files(buffers[0], buffers[1], buffers[2], size);
  for (char *b : buffers) xfree(b);
  rotateat = rotated ? rotatesize : filesize + rotatesize / 8 + 1;
}

}  // namespace

void kiv_logtofile(const char *line) {
  if (kiv_loglevel < 0) return;
  if (!stream && filename) {
    // A file that cannot be opened now is tried again at the next line.
    FILE *f = kiv_fopen_append(filename);
    if (f) {
      setvbuf(f, nullptr, _IONBF, 0);
      stream = f;
      fseek(f, 0, SEEK_END);
      filesize = ftell(f);
      if (filesize < 0) filesize = 0;
      // A reopen after a rotation that failed keeps its later retry point.
      if (rotateat == 0) rotateat = rotatesize;
    } else {
      tracestate(true, errno);
    }
  }
  if (stream) {
    int n = fprintf(stream, "%s\n", line);
    if (n >= 0) {
      tracestate(false, 0);
      filesize += n;
      // A Windows text file writes CR LF for each LF; counted here rather than asked of
      // the file at every line.
      if (TEXT_CR) {
        filesize++;  // the line's own end
        for (const char *p = strchr(line, '\n'); p; p = strchr(p + 1, '\n')) filesize++;
      }
      if (rotatesize > 0 && filesize >= rotateat) rotate();
      return;
    }
    // A full disk, a file gone bad: this line goes to standard error, and the next one
    // opens the file anew.
    int error = errno;
    fclose(stream);
    stream = nullptr;
    tracestate(true, error);
  }
  fprintf(stderr, "%s\n", line);
}

void kiv_logreset() {
  freemodules();
  xfree(prefix);
  prefix = nullptr;
  xfree(filename);
  filename = nullptr;
  xfree(keptspec);
  keptspec = nullptr;
  if (stream) fclose(stream);
  stream = nullptr;
  rotatesize = KIV_LOGROTATE;
  filesize = 0;
  rotateat = 0;
  failing = false;
  progname = nullptr;
  prevtime = 0;
  pidcache = 0;
  kiv_loglevel = 0;
  kiv_logsink = kiv_logtofile;
}
