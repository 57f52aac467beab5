#include "tools/kivctl/client.h"

#include <cstdio>

#include "lib/dstr.h"
#include "lib/wire.h"
#include "tools/kivctl/answer.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

const char PIPE[] = WIRE_PIPE;
constexpr DWORD NPIPE_DEFAULT_WAIT = 10000;  // the server's default time-out (ms)

int fail(const char *what, DWORD error) {
  fprintf(stderr, "kivctl: %s %s: error %lu\n", what, PIPE, static_cast<unsigned long>(error));
  return 2;
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

}  // namespace

int client_open(HANDLE *pipe, if_absent absent) {
  *pipe = nullptr;
  scoped_handle opened;
  for (;;) {
    opened.reset(
        CreateFileA(PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (opened.valid()) break;
    DWORD e = GetLastError();
    if (absent != if_absent::report && e == ERROR_FILE_NOT_FOUND) return -1;
    if (absent == if_absent::quiet && e != ERROR_PIPE_BUSY) return -1;
    if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    if (!WaitNamedPipeA(PIPE, NMPWAIT_USE_DEFAULT_WAIT)) {
      e = GetLastError();
      // The instance freed by the wait can be taken by another client before we open it.
      if (e == ERROR_SEM_TIMEOUT) return fail("busy, gave up waiting for", e);
      if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    }
  }
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!SetNamedPipeHandleState(opened.get(), &mode, nullptr, nullptr))
    return fail("cannot set message mode on", GetLastError());
  dstr greeting;
  dstr_init(&greeting);
  DWORD e = read_message(opened.get(), &greeting);
  dstr_free(&greeting, 0);
  if (e) return absent == if_absent::quiet ? -1 : fail("no greeting on", e);
  *pipe = opened.release();
  return 0;
}

int client_exchange(HANDLE pipe, const char *line, int length, std::vector<std::string> *elements) {
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
  for (;;) {
    DWORD e = read_message(pipe, &reply);
    if (e) {
      code = fail("lost", e);
      break;
    }
    elements->push_back(reply.buffer);
    if (elements->front() == "!") {
      if (elements->size() > 1 && elements->back() == ".") break;
      continue;
    }
    code = reply.buffer[0] == '-' ? 1 : 0;
    break;
  }
  dstr_free(&reply, 0);
  return code;
}
