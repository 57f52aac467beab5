// The default sink: the log file with its rotation, else standard error.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

#include "lib/heap.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/log_internal.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/platform.h"

namespace {

const char TAG[] = "log.kiv_logconfig";  // what the allocator names when it refuses
#ifdef _WIN32
constexpr bool TEXT_CR = true;
#else
constexpr bool TEXT_CR = false;
#endif

char *filename;                   // set by the ">" item
FILE *stream;                     // the open log file; null while lines go to standard error
long rotatesize = KIV_LOGROTATE;  // 0: never rotated
long filesize;                    // bytes in the open log file
long rotateat;                    // filesize at which the next rotation is tried
bool failing;  // the file could not be opened or written: said once, until it can

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

void kiv_logfile(char *name, long size) {
  xfree(filename);
  filename = name;
  rotatesize = size;
  rotateat = 0;
  if (stream) fclose(stream);
  stream = nullptr;
}

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

void kiv_logfile_reset() {
  xfree(filename);
  filename = nullptr;
  if (stream) fclose(stream);
  stream = nullptr;
  rotatesize = KIV_LOGROTATE;
  filesize = 0;
  rotateat = 0;
  failing = false;
}
