// kivctl: the control client. `kivctl WORDS...` sends one command and prints its reply,
// one element per line; with no words it reads commands from standard input, one per
// line. Exit codes: 0 for "+", a listing, or a "quit" that hung up; 1 for a "-" reply;
// 2 when the pipe cannot be opened or breaks.
// `kivctl apply [--dry-run] FILE.cfg` and `kivctl export` work on the registry (apply.h).
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "lib/dstr.h"
#include "tools/kivctl/answer.h"
#include "tools/kivctl/apply.h"

namespace {

const char PIPE[] = "\\\\.\\pipe\\vesk_kivd";
constexpr DWORD NPIPE_DEFAULT_WAIT = 10000;  // the server's default time-out (ms)

struct scoped_handle {
  HANDLE h = INVALID_HANDLE_VALUE;
  scoped_handle() = default;
  scoped_handle(const scoped_handle &) = delete;
  scoped_handle &operator=(const scoped_handle &) = delete;
  ~scoped_handle() {
    if (h && h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
};

int fail(const char *what, DWORD error) {
  fprintf(stderr, "kivctl: %s %s: error %lu\n", what, PIPE, static_cast<unsigned long>(error));
  return 2;
}

// Opens the pipe in message mode; a busy pipe is waited for as long as the server's
// default time-out. With absent_ok, a pipe that does not exist gives -1 without a report.
int open_pipe(scoped_handle *pipe, bool absent_ok = false) {
  for (;;) {
    pipe->h = CreateFileA(PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (pipe->h != INVALID_HANDLE_VALUE) break;
    DWORD e = GetLastError();
    if (absent_ok && e == ERROR_FILE_NOT_FOUND) return -1;
    if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    if (!WaitNamedPipeA(PIPE, NMPWAIT_USE_DEFAULT_WAIT)) {
      e = GetLastError();
      // The instance freed by the wait can be taken by another client before we open it.
      if (e == ERROR_SEM_TIMEOUT) return fail("busy, gave up waiting for", e);
      if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    }
  }
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!SetNamedPipeHandleState(pipe->h, &mode, nullptr, nullptr))
    return fail("cannot set message mode on", GetLastError());
  return 0;
}

// Reads one whole message into out. 0, or the platform's error.
DWORD read_message(HANDLE pipe, dstr *out) {
  dstr_truncate(out, 0);
  char buffer[1024];
  for (;;) {
    DWORD got = 0;
    BOOL ok = ReadFile(pipe, buffer, sizeof buffer, &got, nullptr);
    DWORD e = ok ? 0 : GetLastError();
    if (!ok && e != ERROR_MORE_DATA) return e;
    if (dstr_append(out, buffer, static_cast<int>(got)) < 0) return ERROR_NOT_ENOUGH_MEMORY;
    if (ok) return 0;
  }
}

bool hung_up(DWORD e) {
  return e == ERROR_BROKEN_PIPE || e == ERROR_PIPE_NOT_CONNECTED || e == ERROR_NO_DATA;
}

// "quit" is answered by hanging up, and nothing else. The hang-up is watched for
// without a read left pending on a pipe that the server disconnects.
int await_hangup(HANDLE pipe) {
  for (DWORD waited = 0; waited < NPIPE_DEFAULT_WAIT; waited += 10) {
    DWORD avail = 0;
    if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, &avail, nullptr)) {
      DWORD e = GetLastError();
      return hung_up(e) ? 0 : fail("lost", e);
    }
    Sleep(10);
  }
  return fail("no hang-up after quit on", ERROR_TIMEOUT);
}

// Sends one command line and prints its reply. Returns the exit code of that command.
// A line the server answers with nothing is not sent.
int send_command(HANDLE pipe, const char *line, int length) {
  answer expected = server_answer(line, length);
  if (expected == answer::none) return 0;
  DWORD put = 0;
  if (!WriteFile(pipe, line, length, &put, nullptr)) {
    DWORD e = GetLastError();
    if (hung_up(e) && expected == answer::hangup) return 0;
    return fail("cannot write to", e);
  }
  if (expected == answer::hangup) return await_hangup(pipe);
  dstr reply;
  dstr_init(&reply);
  int code = 0;
  bool listing = false;
  for (;;) {
    DWORD e = read_message(pipe, &reply);
    if (e) {
      code = fail("lost", e);
      break;
    }
    printf("%s\n", reply.buffer);
    if (!listing && strcmp(reply.buffer, "!") == 0) {
      listing = true;
      continue;
    }
    if (listing) {
      if (strcmp(reply.buffer, ".") == 0) break;
      continue;
    }
    code = reply.buffer[0] == '-' ? 1 : 0;
    break;
  }
  fflush(stdout);
  dstr_free(&reply, 0);
  return code;
}

// The command line's words as one command: each word stays one word for the server,
// whatever blanks, tabs, quotes or backslashes it holds.
void join_words(int argc, char **argv, dstr *line) {
  for (int i = 1; i < argc; i++) {
    if (i > 1) dstr_append(line, " ", 1);
    if (argv[i][0] == '\0') dstr_append(line, "\"\"", 2);
    for (const char *c = argv[i]; *c; c++) {
      if (*c == ' ' || *c == '\t' || *c == '"' || *c == '\\') dstr_append(line, "\\", 1);
      dstr_append(line, c, 1);
    }
  }
}

// One line of input without its line end, however long (the server refuses what is too
// long for it). false at the end of the input.
bool read_line(FILE *in, dstr *line) {
  dstr_truncate(line, 0);
  int c;
  while ((c = getc(in)) != EOF && c != '\n') {
    char ch = static_cast<char>(c);
    dstr_append(line, &ch, 1);
  }
  while (line->length > 0 && line->buffer[line->length - 1] == '\r') dstr_truncate(line, line->length - 1);
  return c != EOF || line->length > 0;
}

}  // namespace

int kivctl_reconfig() {
  scoped_handle pipe;
  int code = open_pipe(&pipe, true);
  if (code) return code < 0 ? 0 : code;
  dstr reply;
  dstr_init(&reply);
  DWORD e = read_message(pipe.h, &reply);
  DWORD put = 0;
  if (!e && !WriteFile(pipe.h, "reconfig", 8, &put, nullptr)) e = GetLastError();
  if (!e) e = read_message(pipe.h, &reply);
  if (!e && strcmp(reply.buffer, "+") != 0) {
    fprintf(stderr, "kivctl: reconfig: %s\n", reply.buffer);
    code = 2;
  }
  dstr_free(&reply, 0);
  return e ? fail("reconfig failed on", e) : code;
}

int main(int argc, char **argv) {
  // apply and export work on the registry; they are not commands of the pipe.
  if (argc > 1 && strcmp(argv[1], "apply") == 0) return kivctl_apply(argc - 1, argv + 1);
  if (argc > 1 && strcmp(argv[1], "export") == 0) return kivctl_export(argc - 1, argv + 1);
  scoped_handle pipe;
  int code = open_pipe(&pipe);
  if (code) return code;
  dstr greeting;
  dstr_init(&greeting);
  DWORD e = read_message(pipe.h, &greeting);
  dstr_free(&greeting, 0);
  if (e) return fail("no greeting on", e);

  if (argc > 1) {
    dstr line;
    dstr_init(&line);
    join_words(argc, argv, &line);
    code = send_command(pipe.h, line.buffer, line.length);
    dstr_free(&line, 0);
    return code;
  }
  dstr line;
  dstr_init(&line);
  while (read_line(stdin, &line)) {
    code = send_command(pipe.h, line.buffer, line.length);
    if (code == 2 || server_answer(line.buffer, line.length) == answer::hangup) break;
  }
  dstr_free(&line, 0);
  return code;
}
