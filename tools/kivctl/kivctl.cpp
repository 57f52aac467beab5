// kivctl: the control client. `kivctl [--raw|--json] WORDS...` sends one command and
// prints its reply; with no words it reads commands from standard input, one per line.
// Output: for people by default (ls as a table, no protocol framing, a "-" reply's text on
// standard error), the protocol's elements one per line with --raw, JSON with --json.
// Exit codes: 0 for "+", a listing, or a "quit" that hung up; 1 for a "-" reply or a
// wrong option; 2 when the pipe cannot be opened or breaks.
// `kivctl status` says whether the service is installed, its state, and kivd's pid and
// ports by state. `kivctl --version` prints the version. `kivctl apply [--dry-run] FILE.cfg` and `kivctl
// export` work on the registry (apply.h).
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "kiv_version.h"
#include "lib/cmdsplit.h"
#include "lib/dstr.h"
#include "lib/wire.h"
#include "tools/kivctl/answer.h"
#include "tools/kivctl/apply.h"
#include "tools/kivctl/listing.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

// How replies are printed: for people (a table, no framing, "-" texts on standard
// error), the protocol's elements as they come (--raw), or JSON (--json).
enum class output { people, raw, json };

const char PIPE[] = WIRE_PIPE;
constexpr DWORD NPIPE_DEFAULT_WAIT = 10000;  // the server's default time-out (ms)

int fail(const char *what, DWORD error) {
  fprintf(stderr, "kivctl: %s %s: error %lu\n", what, PIPE, static_cast<unsigned long>(error));
  return 2;
}

// Opens the pipe in message mode; a busy pipe is waited for as long as the server's
// default time-out. With absent_ok, a pipe that does not exist gives -1 without a report.
int open_pipe(scoped_handle *pipe, bool absent_ok = false, bool quiet = false) {
  for (;;) {
    pipe->reset(
        CreateFileA(PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (pipe->valid()) break;
    DWORD e = GetLastError();
    if (absent_ok && e == ERROR_FILE_NOT_FOUND) return -1;
    if (quiet && e != ERROR_PIPE_BUSY) return -1;
    if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    if (!WaitNamedPipeA(PIPE, NMPWAIT_USE_DEFAULT_WAIT)) {
      e = GetLastError();
      // The instance freed by the wait can be taken by another client before we open it.
      if (e == ERROR_SEM_TIMEOUT) return fail("busy, gave up waiting for", e);
      if (e != ERROR_PIPE_BUSY) return fail("cannot open", e);
    }
  }
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!SetNamedPipeHandleState(pipe->get(), &mode, nullptr, nullptr))
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

// The command word of a line, as the server splits it.
std::string first_word(const char *line, int length) {
  char copy[CMD_LINE + 1];
  int n = length < CMD_LINE ? length : CMD_LINE;
  memcpy(copy, line, static_cast<size_t>(n));
  copy[n] = '\0';
  char *words[CMD_MAXWORDS];
  cmd_split(copy, words);
  return words[0];
}

// What the disable command shows as its date here: the local time of the largest time.
std::string forever_text() {
  time_t t = 0x7FFFFFFF;
  const tm *local = localtime(&t);
  char text[32] = "2038-01-19_03:14";
  if (local)
    snprintf(text, sizeof text, "%d-%02d-%02d_%02d:%02d", local->tm_year + 1900, local->tm_mon + 1,
             local->tm_mday, local->tm_hour, local->tm_min);
  return text;
}

// Prints the elements of one reply to the command `word` as `mode` asks.
void print_reply(output mode, const std::string &word, const std::vector<std::string> &elements) {
  if (mode == output::raw) {
    for (const std::string &e : elements) printf("%s\n", e.c_str());
    return;
  }
  if (elements.front() != "!") {
    const std::string &r = elements.front();
    if (mode == output::json)
      printf("%s\n", reply_json(r).c_str());
    else if (r[0] == '-')
      fprintf(stderr, "kivctl: %s\n", r.c_str() + 1);
    else if (r != "+")
      printf("%s\n", r.c_str());
    return;
  }
  std::vector<std::string> inner(elements.begin() + 1, elements.end() - 1);
  std::vector<listed_port> ports;
  std::string forever = forever_text();
  for (const std::string &line : inner) {
    listed_port p;
    if (!parse_listing_line(line, forever, &p)) break;
    ports.push_back(p);
  }
  if (_stricmp(word.c_str(), "ls") == 0 && ports.size() == inner.size()) {
    printf("%s", mode == output::json ? (listing_json(ports) + "\n").c_str()
                                      : listing_table(ports).c_str());
  } else if (mode == output::json) {
    std::string out = "[";
    for (size_t i = 0; i < inner.size(); i++) out += (i ? "," : "") + json_string(inner[i]);
    printf("%s]\n", out.c_str());
  } else {
    for (const std::string &line : inner) printf("%s\n", line.c_str());
  }
}

// Sends one command line and collects its reply's elements. Returns the exit code of that
// command. A line the server answers with nothing is not sent.
int exchange(HANDLE pipe, const char *line, int length, std::vector<std::string> *elements) {
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

// Sends one command line and prints its reply as `mode` asks. The exit code of it.
int send_command(HANDLE pipe, const char *line, int length, output mode) {
  std::vector<std::string> elements;
  int code = exchange(pipe, line, length, &elements);
  if (code != 2 && !elements.empty()) print_reply(mode, first_word(line, length), elements);
  fflush(stdout);
  return code;
}

const char *state_name(DWORD state) {
  static const char *const names[] = {"unknown",       "stopped", "start pending",
                                      "stop pending",  "running", "continue pending",
                                      "pause pending", "paused"};
  return state < sizeof names / sizeof names[0] ? names[state] : "unknown";
}

// `kivctl status`: the service as the service manager knows it, and kivd as its pipe
// answers (its pid and its ports by state). Readable whether or not kivd runs: 0.
int status(output mode) {
  bool installed = false;
  DWORD state = 0, service_pid = 0;
  scoped_service scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  scoped_service svc(scm.valid() ? OpenServiceA(scm.get(), WIRE_SERVICE, SERVICE_QUERY_STATUS)
                                 : nullptr);
  if (svc.valid()) {
    installed = true;
    SERVICE_STATUS_PROCESS st = {};
    DWORD need = 0;
    if (QueryServiceStatusEx(svc.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(&st),
                             sizeof st, &need)) {
      state = st.dwCurrentState;
      service_pid = st.dwProcessId;
    }
  }
  scoped_handle pipe;
  ULONG pid = 0;
  std::vector<std::string> elements;
  bool answering = open_pipe(&pipe, true, true) == 0;
  if (answering) {
    if (!GetNamedPipeServerProcessId(pipe.get(), &pid)) pid = service_pid;
    dstr greeting;
    dstr_init(&greeting);
    answering =
        read_message(pipe.get(), &greeting) == 0 && exchange(pipe.get(), "ls", 2, &elements) == 0;
    dstr_free(&greeting, 0);
  }
  int counts[4] = {};  // idle, serving, disabled, hooked
  int total = 0;
  std::string forever = forever_text();
  for (size_t i = 1; answering && i + 1 < elements.size(); i++) {
    listed_port p;
    if (!parse_listing_line(elements[i], forever, &p)) continue;
    total++;
    counts[p.disabled ? 2 : p.agent ? 1 : 0]++;
    counts[3] += p.parent != 0;
  }
  if (mode == output::json) {
    printf("{\"installed\":%s,\"state\":%s,\"running\":%s,\"pid\":%s,\"ports\":",
           installed ? "true" : "false",
           installed ? json_string(state_name(state)).c_str() : "null",
           answering ? "true" : "false", answering && pid ? std::to_string(pid).c_str() : "null");
    if (answering)
      printf("{\"total\":%d,\"idle\":%d,\"serving\":%d,\"disabled\":%d,\"hooked\":%d}}\n", total,
             counts[0], counts[1], counts[2], counts[3]);
    else
      printf("null}\n");
    return 0;
  }
  printf("service:  %s\n",
         installed ? (std::string("installed, ") + state_name(state)).c_str() : "not installed");
  if (answering)
    printf("kivd:     running%s\nports:    %d (idle %d, serving %d, disabled %d, hooked %d)\n",
           pid ? (", pid " + std::to_string(pid)).c_str() : "", total, counts[0], counts[1],
           counts[2], counts[3]);
  else
    printf("kivd:     not running\n");
  return 0;
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
  while (line->length > 0 && line->buffer[line->length - 1] == '\r')
    dstr_truncate(line, line->length - 1);
  return c != EOF || line->length > 0;
}

}  // namespace

int kivctl_reconfig() {
  scoped_handle pipe;
  int code = open_pipe(&pipe, true);
  if (code) return code < 0 ? 0 : code;
  dstr reply;
  dstr_init(&reply);
  DWORD e = read_message(pipe.get(), &reply);
  DWORD put = 0;
  if (!e && !WriteFile(pipe.get(), WIRE_RECONFIG, sizeof WIRE_RECONFIG - 1, &put, nullptr))
    e = GetLastError();
  if (!e) e = read_message(pipe.get(), &reply);
  if (!e && strcmp(reply.buffer, "+") != 0) {
    fprintf(stderr, "kivctl: reconfig: %s\n", reply.buffer);
    code = 2;
  }
  dstr_free(&reply, 0);
  return e ? fail("reconfig failed on", e) : code;
}

int main(int argc, char **argv) {
  output mode = output::people;
  for (; argc > 1 && strncmp(argv[1], "--", 2) == 0; argc--, argv++) {
    if (strcmp(argv[1], "--version") == 0) {
      printf("kivctl %s\n", KIV_VERSION);
      return 0;
    } else if (strcmp(argv[1], "--raw") == 0) {
      mode = output::raw;
    } else if (strcmp(argv[1], "--json") == 0) {
      mode = output::json;
    } else {
      fprintf(stderr, "kivctl: unknown option %s (--raw, --json, --version)\n", argv[1]);
      return 1;
    }
    argv[1] = argv[0];
  }
  if (argc > 1 && strcmp(argv[1], "status") == 0) {
    // Options go before the command; one after it would otherwise pass unnoticed.
    if (argc > 2) {
      fprintf(stderr, "kivctl: status takes no words (options go first: kivctl --json status)\n");
      return 1;
    }
    return status(mode);
  }
  // apply and export work on the registry; they are not commands of the pipe.
  if (argc > 1 && strcmp(argv[1], "apply") == 0) return kivctl_apply(argc - 1, argv + 1);
  if (argc > 1 && strcmp(argv[1], "export") == 0) return kivctl_export(argc - 1, argv + 1);
  scoped_handle pipe;
  int code = open_pipe(&pipe);
  if (code) return code;
  dstr greeting;
  dstr_init(&greeting);
  DWORD e = read_message(pipe.get(), &greeting);
  dstr_free(&greeting, 0);
  if (e) return fail("no greeting on", e);

  if (argc > 1) {
    dstr line;
    dstr_init(&line);
    join_words(argc, argv, &line);
    code = send_command(pipe.get(), line.buffer, line.length, mode);
    dstr_free(&line, 0);
    return code;
  }
  dstr line;
  dstr_init(&line);
  while (read_line(stdin, &line)) {
    code = send_command(pipe.get(), line.buffer, line.length, mode);
    if (code == 2 || server_answer(line.buffer, line.length) == answer::hangup) break;
  }
  dstr_free(&line, 0);
  return code;
}
