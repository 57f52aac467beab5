// Logging: trace lines (kiv_log) and failure reports (kiv_logerror), configured once
// from the debug spec. Each line is written whole, synchronously, by the calling thread.
#pragma once
#include <cstdarg>
#include "lib/printf.h"

struct kiv_context;

// Verbosity 0..9 (0 at start); nothing at all is written while it is negative. Callers
// test it before each kiv_log call, through KIV_LOG.
extern int kiv_loglevel;
int *kiv_loglevelp();

// A trace line, written only when the log level reaches `level`; below it the arguments
// are not evaluated.
#define KIV_LOG(level, tag, ...)                                       \
  do {                                                                 \
    if (kiv_loglevel >= (level)) kiv_log(nullptr, (tag), __VA_ARGS__); \
  } while (0)

// Severities of kiv_logerror, printed by the prefix directive %e.
constexpr int KIV_SEV_FATAL = 1;
constexpr int KIV_SEV_ERROR = 2;
constexpr int KIV_SEV_WARNING = 3;
constexpr int KIV_SEV_DEBUG = 4;  // kiv_log lines

constexpr int KIV_LOGLINE = 2048;   // a line holds at most KIV_LOGLINE - 1 characters
extern const char KIV_LOGPREFIX[];  // "%p %n[%s] %f: "

// The output function; kiv_logtofile unless a test replaces it.
using kiv_sinkfunc = void (*)(const char *line);
extern kiv_sinkfunc kiv_logsink;

// Applies a debug spec: items separated by ";" (digit: level; "+t": time prefix;
// "=T": prefix template T; ">F": log file F; "!M": exclude module M; "M": include M).
// The file item may end in "<SIZE", digits with an optional K, M or G (">c:/kivd.txt<50M"):
// the file is rotated when it passes that size, KIV_LOGROTATE without one, never with
// "<0". "<" cannot occur in a Windows file name, so no file item read before means
// anything else now.
void kiv_logconfig(const char *debugspec);
// A log file that passes its size is renamed F.1 (F.1 to F.2, F.2 to F.3, the old F.3
// removed) and the next line starts a new F. When F cannot be renamed (a reader holds it
// without delete sharing) the kept files stay as they are, lines go on into F, and the
// rotation is tried again each eighth of the size.
constexpr long KIV_LOGROTATE = 10L * 1024 * 1024;
constexpr int KIV_LOGKEEP = 3;
// The debug spec last given to kiv_logconfig, or null when none was given (or its copy
// could not be allocated). The port manager passes it on to every agent it starts.
const char *kiv_logspec();
// A trace line: the prefix (severity debug, no code), then the formatted text, cut to
// KIV_LOGLINE - 1 characters. A null or empty format writes a separator line instead:
// "========== " and the local time as "%b %d %H:%M:%S", cut to the room left. Passes
// kiv_logcheck at level 0 (the caller has tested the level) or writes nothing.
void kiv_log(kiv_context *ctx, const char *tag, const char *format, ...) KIV_PRINTF(3, 4);
// A failure report, written at every level (only a negative level stops it): the prefix
// with severity and code, then the formatted text; a null or empty format writes the
// prefix alone.
void kiv_logerror(kiv_context *ctx, const char *tag, int severity, int code, const char *format,
                  ...) KIV_PRINTF(5, 6);
void kiv_vlogerror(kiv_context *ctx, const char *tag, int severity, int code, const char *format,
                   va_list args);
// 1 when a line of that level and tag passes the level and the module list.
int kiv_logcheck(int level, const char *tag);
// Writes the prefix of one line into buffer; returns the characters written (at most
// size). Does not promise a terminating zero.
int kiv_logprefix(char *buffer, int size, kiv_context *ctx, const char *tag, int severity,
                  int code);
// Hands one finished line to kiv_logsink, serialised across threads; a sink that logs
// may nest once, a third level on the same thread is dropped.
void kiv_logwrite(const char *line);
// The default sink: the log file, else standard error. A file that cannot be opened or
// written (a full disk, a locked or removed file) is one event (KIVEV_TRACE_FAILED), not
// one per line; its lines go to standard error meanwhile, and the file is tried again at
// the next line (KIVEV_TRACE_RESUMED once it takes lines again).
void kiv_logtofile(const char *line);
const char *kiv_severityname(int severity);
// The process id printed by %p; kiv_init fills the cache.
void kiv_logsetpid(long pid);

// Returns the log to its state at process start (level 0, no modules, default
// template, no file, standard error, default sink). For tests.
void kiv_logreset();
