// The lines themselves: the prefix template, the formatting and the serialisation between
// threads. The debug spec is read in logspec.cpp, the file written in logfile.cpp.
#include "toolkit/runtime/log.h"

#include <cstdio>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/context.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/log_internal.h"
#include "toolkit/runtime/platform.h"

int kiv_loglevel = 0;
int *kiv_loglevelp() { return &kiv_loglevel; }

const char KIV_LOGPREFIX[] = "%p %n[%s] %f: ";
kiv_sinkfunc kiv_logsink = kiv_logtofile;

namespace {

const char TIMEFORMAT[] = "%b %d %H:%M:%S";

char *prefix;          // the template; null means KIV_LOGPREFIX
const char *progname;  // printed by %n; nothing in this system sets it
uint32_t prevtime;     // hundredths of a second of the previous %t line
long pidcache;

// Output serialisation, guarded by lock slot 13.
unsigned long owner;
int nesting;
kiv_event *event;

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

void kiv_logtemplate(char *text) {
  xfree(prefix);
  prefix = text;
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

void kiv_logreset() {
  kiv_logspec_reset();
  kiv_logfile_reset();
  xfree(prefix);
  prefix = nullptr;
  progname = nullptr;
  prevtime = 0;
  pidcache = 0;
  kiv_loglevel = 0;
  kiv_logsink = kiv_logtofile;
}
